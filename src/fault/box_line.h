/// One line of text formed on the stack, for the signal context: no allocation, no stdio, no locale.
#pragma once

#include <stddef.h>
#include <stdint.h>

class BoxLine {
 public:
  BoxLine& Text(const char* text);
  /// Decimal, with zeros in front up to `digits`.
  BoxLine& Number(int64_t value, unsigned digits = 1);
  /// Hexadecimal in lower case without a prefix, with zeros in front up to `digits`.
  BoxLine& Hex(uint64_t value, unsigned digits = 1);

  /// Writes the line and empties it. What the descriptor does not take is lost.
  void WriteTo(int fd);

 private:
  static constexpr size_t kMost = 200;  ///< what is longer is cut

  void Digits(uint64_t value, unsigned base, unsigned digits);
  void Put(char c) {
    if (length_ < kMost) text_[length_++] = c;
  }

  char text_[kMost + 1];
  size_t length_ = 0;
};
