/// A directory of its own for a test, removed with everything in it. Lies under TMPDIR, else under /tmp, so
/// that tests run side by side, as any user and again and again without meeting each other's files.
#pragma once

#include <stdio.h>
#include <stdlib.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <string_view>
#include <system_error>

namespace support {

/// The file's content; "" where there is none.
inline std::string ReadFile(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(file), {}};
}

class TempDir {
 public:
  /// Ends the process with a line on standard error when no directory can be made.
  TempDir() {
    const char* base = getenv("TMPDIR");
    path_ = std::string(base != nullptr && *base != '\0' ? base : "/tmp") + "/tola_test.XXXXXX";
    if (mkdtemp(path_.data()) == nullptr) {
      perror(path_.c_str());
      abort();
    }
  }
  ~TempDir() {
    std::error_code ignored;  // a test that took its own rights away leaves the directory behind
    std::filesystem::remove_all(path_, ignored);
  }
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;

  [[nodiscard]] const std::string& path() const { return path_; }

  /// Full name of `name`, which may have directories in front; nothing is made.
  [[nodiscard]] std::string File(std::string_view name) const { return path_ + "/" + std::string(name); }

  /// Writes the file `name` with `content`, directories in front included, and gives its full name.
  std::string Write(std::string_view name, std::string_view content) const {
    const std::string file = File(name);
    std::error_code ignored;  // a directory that could not be made shows at fopen
    std::filesystem::create_directories(std::filesystem::path(file).parent_path(), ignored);
    FILE* stream = fopen(file.c_str(), "wb");
    if (stream == nullptr || fwrite(content.data(), 1, content.size(), stream) != content.size() ||
        fclose(stream) != 0) {
      perror(file.c_str());
      abort();
    }
    return file;
  }

 private:
  std::string path_;
};

}  // namespace support
