/// The command line of one sub-command: a table of long options, each bound to where its value goes.
#pragma once

#include <span>
#include <string>
#include <variant>
#include <vector>

struct Option {
  const char* name;  ///< without the dashes
  std::variant<std::string*, std::vector<std::string>*, bool*>
      to;  ///< one value, any number of values, a switch
};

/// Reads "--name value", "--name=value" and "--name" (switches); the rest goes to `words`, all of it behind
/// "--". False with a sentence in `error` for an unknown option, a missing, doubled or needless value.
[[nodiscard]] bool ParseOptions(std::span<char* const> arguments, std::span<const Option> options,
                                std::vector<std::string>& words, std::string& error);

/// A decimal number from `low` to `high`; false with a sentence in `error`. An empty text leaves `value`.
[[nodiscard]] bool ParseNumber(const std::string& text, const char* option, long low, long high, long& value,
                               std::string& error);
