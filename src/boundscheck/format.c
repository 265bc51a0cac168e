// The formatted half: printing tells "cut on purpose by count" from "did not fit", and never allocates on its
// own; reading takes numbers only, since a text conversion is where an input decides how much is written.
#include <stdarg.h>
#include <stdio.h>
#include <string.h>

#include "securec.h"

int vsnprintf_s(char* dest, size_t destMax, size_t count, const char* format, va_list args) {
  if (dest == NULL || destMax == 0 || destMax > SECUREC_STRING_MAX_LEN) {
    return -1;
  }
  if (format == NULL) {
    dest[0] = '\0';
    return -1;
  }
  const size_t room = count < destMax ? count + 1 : destMax;
  const int length = vsnprintf(dest, room, format, args);
  if (length >= 0 && (size_t)length < room) {
    return length;
  }
  if (length < 0 || count >= destMax) {
    dest[0] = '\0';  // did not fit; a text that only `count` cut stays
  }
  return -1;
}

int snprintf_s(char* dest, size_t destMax, size_t count, const char* format, ...) {
  va_list args;
  va_start(args, format);
  const int length = vsnprintf_s(dest, destMax, count, format, args);
  va_end(args);
  return length;
}

int vsprintf_s(char* dest, size_t destMax, const char* format, va_list args) {
  return vsnprintf_s(dest, destMax, destMax, format, args);
}

int sprintf_s(char* dest, size_t destMax, const char* format, ...) {
  va_list args;
  va_start(args, format);
  const int length = vsprintf_s(dest, destMax, format, args);
  va_end(args);
  return length;
}

// The end of the conversion that begins after '%', or null when it is not a numeric one.
static const char* SkipNumeric(const char* at) {
  if (*at == '%') {
    return at + 1;
  }
  if (*at == '*') {
    ++at;
  }
  at += strspn(at, "0123456789");
  static const char* const kLengths[] = {"hh", "h", "ll", "l", "j", "z", "t", ""};
  const char* const* length = kLengths;
  while (strncmp(at, *length, strlen(*length)) != 0) {
    ++length;
  }
  at += strlen(*length);
  return *at != '\0' && strchr("diouxX", *at) != NULL ? at + 1 : NULL;
}

static int IsNumericFormat(const char* format) {
  for (const char* at = strchr(format, '%'); at != NULL; at = strchr(at, '%')) {
    at = SkipNumeric(at + 1);
    if (at == NULL) {
      return 0;
    }
  }
  return 1;
}

int sscanf_s(const char* buffer, const char* format, ...) {
  if (buffer == NULL || format == NULL || !IsNumericFormat(format)) {
    return -1;
  }
  va_list args;
  va_start(args, format);
  const int read = vsscanf(buffer, format, args);
  va_end(args);
  return read;
}
