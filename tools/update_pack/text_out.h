/// Text as the package tools print it: on a terminal and in JSON.
#pragma once

#include <string>

/// Text of others for the reader's terminal: control characters come out as '?'.
[[nodiscard]] std::string Clean(const std::string& text);

/// A JSON string; bytes that are no printable ASCII are escaped one by one, whatever their encoding.
[[nodiscard]] std::string Quoted(const std::string& text);

/// A JSON array of what `one` makes of each element.
template <class List, class One>
std::string Joined(const List& list, One one) {
  std::string text = "[";
  for (const auto& element : list) text += (text.size() > 1 ? "," : "") + one(element);
  return text + "]";
}
