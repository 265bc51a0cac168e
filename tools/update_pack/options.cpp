#include "options.h"

#include <algorithm>
#include <charconv>
#include <string_view>

namespace {

bool Store(const Option& option, std::string_view value, bool hasValue, std::string& error) {
  const std::string name = std::string("--") + option.name;
  if (bool* const* flag = std::get_if<bool*>(&option.to)) {
    if (hasValue) error = name + " takes no value";
    **flag = true;
    return !hasValue;
  }
  if (!hasValue || value.empty()) {
    error = name + " wants a value";
    return false;
  }
  if (auto* const* list = std::get_if<std::vector<std::string>*>(&option.to)) {
    (*list)->emplace_back(value);
    return true;
  }
  std::string& to = *std::get<std::string*>(option.to);
  if (!to.empty()) {
    error = name + " is given twice";
    return false;
  }
  to = value;
  return true;
}

}  // namespace

bool ParseOptions(std::span<char* const> arguments, std::span<const Option> options,
                  std::vector<std::string>& words, std::string& error) {
  for (size_t i = 0; i < arguments.size(); ++i) {
    std::string_view argument(arguments[i]);
    if (argument == "--") {
      words.insert(words.end(), arguments.begin() + static_cast<std::ptrdiff_t>(i) + 1, arguments.end());
      return true;
    }
    if (!argument.starts_with("-") || argument == "-") {
      words.emplace_back(argument);
      continue;
    }
    const size_t equals = argument.find('=');
    const std::string_view name = argument.substr(0, equals);
    const auto option = std::find_if(options.begin(), options.end(), [&](const Option& candidate) {
      return name.starts_with("--") && name.substr(2) == candidate.name;
    });
    if (option == options.end()) {
      error = "unknown option " + std::string(name);
      return false;
    }
    bool hasValue = equals != std::string_view::npos;
    std::string_view value = hasValue ? argument.substr(equals + 1) : std::string_view();
    if (!hasValue && !std::holds_alternative<bool*>(option->to) && i + 1 < arguments.size()) {
      value = arguments[++i];
      hasValue = true;
    }
    if (!Store(*option, value, hasValue, error)) return false;
  }
  return true;
}

bool ParseNumber(const std::string& text, const char* option, long low, long high, long& value,
                 std::string& error) {
  if (text.empty()) return true;
  long parsed = 0;
  const auto [end, fault] = std::from_chars(text.data(), text.data() + text.size(), parsed);
  if (fault != std::errc() || end != text.data() + text.size() || parsed < low || parsed > high) {
    error = std::string(option) + " wants a number from " + std::to_string(low) + " to " +
            std::to_string(high) + ", not '" + text + "'";
    return false;
  }
  value = parsed;
  return true;
}
