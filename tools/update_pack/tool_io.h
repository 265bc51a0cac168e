/// Files and programs as update_pack needs them. Every operation that may fail says in `error`, one sentence
/// without its full stop, what failed and where it can, what to do about it.
#pragma once

#include <stddef.h>
#include <stdint.h>
#include <sys/types.h>

#include <functional>
#include <string>
#include <string_view>
#include <vector>

inline constexpr size_t kSmallFileMax = 2000000;  ///< certificates, keys, lists and signatures

/// The text behind the last slash.
[[nodiscard]] std::string BaseName(const std::string& path);

[[nodiscard]] bool IsRegularFile(const std::string& path);

/// Reads a regular file of at most kSmallFileMax bytes.
[[nodiscard]] bool ReadSmallFile(const std::string& path, std::string& bytes, std::string& error);

/// Writes all of the file or nothing: a temporary file beside it, brought to the disk, is renamed.
[[nodiscard]] bool WriteWholeFile(const std::string& path, std::string_view bytes, mode_t mode,
                                  std::string& error);

/// Copies a regular file of any size, mode 0644.
[[nodiscard]] bool CopyToNewFile(const std::string& from, const std::string& to, std::string& error);

/// A directory that goes with everything in it, unless it is kept.
class ScratchDir {
 public:
  ScratchDir() = default;
  ~ScratchDir();
  ScratchDir(const ScratchDir&) = delete;
  ScratchDir& operator=(const ScratchDir&) = delete;

  /// Makes the directory `prefix` followed by six characters, mode 0700.
  [[nodiscard]] bool Make(const std::string& prefix, std::string& error);
  /// Gives the directory the name `target`, which must be free or an empty directory, mode 0755.
  [[nodiscard]] bool RenameTo(const std::string& target, std::string& error);
  [[nodiscard]] const std::string& path() const { return path_; }
  [[nodiscard]] std::string File(const std::string& name) const { return path_ + "/" + name; }

 private:
  std::string path_;
};

/// Runs a program without a shell and hands each line of its output to `line`. False when it could not be
/// started or its exit code was not 0; `error` then holds what it said on standard error.
[[nodiscard]] bool RunProgram(const std::vector<std::string>& arguments,
                              const std::function<void(std::string_view)>& line, std::string& error);
