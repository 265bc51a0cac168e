#include "fault/box_line.h"

#include <errno.h>
#include <unistd.h>

BoxLine& BoxLine::Text(const char* text) {
  while (*text != '\0') Put(*text++);
  return *this;
}

BoxLine& BoxLine::Number(int64_t value, unsigned digits) {
  if (value < 0) Put('-');
  Digits(value < 0 ? 0 - static_cast<uint64_t>(value) : static_cast<uint64_t>(value), 10, digits);
  return *this;
}

BoxLine& BoxLine::Hex(uint64_t value, unsigned digits) {
  Digits(value, 16, digits);
  return *this;
}

void BoxLine::Digits(uint64_t value, unsigned base, unsigned digits) {
  char reversed[20];  // 2^64 has 20 decimal digits
  unsigned count = 0;
  for (; value != 0 || count < digits; value /= base) {
    if (count == sizeof(reversed)) break;
    reversed[count++] = "0123456789abcdef"[value % base];
  }
  while (count > 0) Put(reversed[--count]);
}

void BoxLine::WriteTo(int fd) {
  for (size_t done = 0; done < length_;) {
    const ssize_t written = write(fd, text_ + done, length_ - done);
    if (written < 0 && errno == EINTR) continue;
    if (written <= 0) break;
    done += static_cast<size_t>(written);
  }
  length_ = 0;
}
