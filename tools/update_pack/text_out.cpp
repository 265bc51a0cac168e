#include "text_out.h"

#include <stdio.h>

std::string Clean(const std::string& text) {
  std::string clean = text;
  for (char& c : clean) {
    if (static_cast<unsigned char>(c) < 0x20 || c == 0x7F) c = '?';
  }
  return clean;
}

std::string Quoted(const std::string& text) {
  std::string quoted = "\"";
  for (const char c : text) {
    const unsigned char byte = static_cast<unsigned char>(c);
    char escaped[8];
    if (c == '"' || c == '\\') {
      quoted += {'\\', c};
    } else if (byte < 0x20 ||
               byte >= 0x7F) {  // bytes, whatever their encoding, so that the object is always valid
      (void)snprintf(escaped, sizeof(escaped), "\\u%04x", byte);
      quoted += escaped;
    } else {
      quoted += c;
    }
  }
  return quoted + "\"";
}
