/// The sub-commands of update_pack. Each takes the arguments behind its name and returns the exit status.
#pragma once

#include <span>
#include <string>

inline constexpr int kExitDone = 0;
inline constexpr int kExitRefused = 1;
inline constexpr int kExitUsage = 2;

int RunMake(std::span<char* const> arguments);
int RunInspect(std::span<char* const> arguments);
int RunSecureBoot(std::span<char* const> arguments);
int RunDevPki(std::span<char* const> arguments);

/// Prints "update_pack: <text>" on standard error; the two statuses as results.
int Refuse(const std::string& text);
int RefuseUsage(const std::string& text, const char* usage);
/// Prints "update_pack: note: <text>" on standard error.
void Note(const std::string& text);
