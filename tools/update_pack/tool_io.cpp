#include "tool_io.h"

#include <errno.h>
#include <fcntl.h>
#include <spawn.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <system_error>

#include "base/owners.h"

namespace {

bool Fail(std::string& error, const std::string& what) {
  const int fault = errno;
  error = what + ": " + strerror(fault);
  return false;
}

bool WriteAll(int fd, std::string_view bytes) {
  while (!bytes.empty()) {
    const ssize_t put = write(fd, bytes.data(), bytes.size());
    if (put < 0 && errno == EINTR) continue;
    if (put < 0) return false;
    bytes.remove_prefix(static_cast<size_t>(put));
  }
  return true;
}

/// Opens a regular file for reading, never waiting for a pipe's writer.
base::UniqueFd OpenRegular(const std::string& path, struct stat& info, std::string& error) {
  base::UniqueFd fd(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
  if (!fd || fstat(fd.get(), &info) != 0) {
    (void)Fail(error, "cannot open " + path);
    return base::UniqueFd();
  }
  if (!S_ISREG(info.st_mode)) {
    error = path + " is no regular file";
    return base::UniqueFd();
  }
  return fd;
}

/// Reads `fd` to its end; the file's size is only a hint.
bool ReadAll(int fd, size_t limit, const std::function<bool(std::string_view)>& take) {
  std::vector<char> buffer(64 * 1024);
  for (size_t total = 0; total <= limit;) {
    const ssize_t got = read(fd, buffer.data(), buffer.size());
    if (got < 0 && errno == EINTR) continue;
    if (got <= 0) return got == 0;
    total += static_cast<size_t>(got);
    if (!take({buffer.data(), static_cast<size_t>(got)})) return false;
  }
  errno = EFBIG;
  return false;
}

}  // namespace

std::string BaseName(const std::string& path) {
  return path.substr(path.rfind('/') + 1);
}

bool IsRegularFile(const std::string& path) {
  struct stat info;
  return stat(path.c_str(), &info) == 0 && S_ISREG(info.st_mode);
}

bool ReadSmallFile(const std::string& path, std::string& bytes, std::string& error) {
  struct stat info;
  const base::UniqueFd fd = OpenRegular(path, info, error);
  if (!fd) return false;
  bytes.clear();
  const bool read = ReadAll(fd.get(), kSmallFileMax, [&](std::string_view piece) {
    bytes += piece;
    return true;
  });
  return read || Fail(error, "cannot read " + path);
}

bool WriteWholeFile(const std::string& path, std::string_view bytes, mode_t mode, std::string& error) {
  std::string temporary = path + ".XXXXXX";
  base::UniqueFd fd(mkostemp(temporary.data(), O_CLOEXEC));
  if (!fd) return Fail(error, "cannot write beside " + path);
  if (fchmod(fd.get(), mode) != 0 || !WriteAll(fd.get(), bytes) || fsync(fd.get()) != 0 ||
      rename(temporary.c_str(), path.c_str()) != 0) {
    (void)Fail(error, "cannot write " + path);
    (void)unlink(temporary.c_str());
    return false;
  }
  return true;
}

bool CopyToNewFile(const std::string& from, const std::string& to, std::string& error) {
  struct stat info;
  const base::UniqueFd source = OpenRegular(from, info, error);
  if (!source) return false;
  const base::UniqueFd target(open(to.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0644));
  if (!target) return Fail(error, "cannot make " + to);
  const bool copied = ReadAll(source.get(), SIZE_MAX - 1,
                              [&](std::string_view piece) { return WriteAll(target.get(), piece); });
  return (copied && fsync(target.get()) == 0) || Fail(error, "cannot copy " + from + " to " + to);
}

ScratchDir::~ScratchDir() {
  std::error_code ignored;  // what cannot be removed stays where it is, under its telling name
  if (!path_.empty()) std::filesystem::remove_all(path_, ignored);
}

bool ScratchDir::Make(const std::string& prefix, std::string& error) {
  std::string name = prefix + "XXXXXX";
  if (mkdtemp(name.data()) == nullptr) return Fail(error, "cannot make the directory " + name);
  path_ = name;
  return true;
}

bool ScratchDir::RenameTo(const std::string& target, std::string& error) {
  if (chmod(path_.c_str(), 0755) != 0 || rename(path_.c_str(), target.c_str()) != 0) {
    return Fail(error, "cannot put the result in " + target);
  }
  path_.clear();
  return true;
}

bool RunProgram(const std::vector<std::string>& arguments, const std::function<void(std::string_view)>& line,
                std::string& error) {
  base::FilePtr errors(tmpfile());
  int ends[2];
  if (!errors || pipe2(ends, O_CLOEXEC) != 0) return Fail(error, "cannot run " + arguments[0]);
  base::UniqueFd readEnd(ends[0]);
  base::UniqueFd writeEnd(ends[1]);

  std::vector<char*> argv;
  for (const std::string& argument : arguments) argv.push_back(const_cast<char*>(argument.c_str()));
  argv.push_back(nullptr);
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
  posix_spawn_file_actions_adddup2(&actions, writeEnd.get(), 1);
  posix_spawn_file_actions_adddup2(&actions, fileno(errors.get()), 2);
  pid_t pid = 0;
  errno = posix_spawnp(&pid, argv[0], &actions, nullptr, argv.data(), environ);
  const int started = errno;
  posix_spawn_file_actions_destroy(&actions);
  errno = started;
  if (started != 0) return Fail(error, "cannot run " + arguments[0]);
  writeEnd.reset();

  std::string rest;
  const bool read = ReadAll(readEnd.get(), SIZE_MAX - 1, [&](std::string_view piece) {
    rest += piece;
    size_t end = 0;
    while ((end = rest.find('\n')) != std::string::npos) {
      line(std::string_view(rest).substr(0, end));
      rest.erase(0, end + 1);
    }
    return true;
  });
  readEnd.reset();
  int status = 0;
  while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
  }
  if (read && WIFEXITED(status) && WEXITSTATUS(status) == 0) return true;

  char said[512] = {};
  rewind(errors.get());
  const size_t length = fread(said, 1, sizeof(said) - 1, errors.get());
  error = arguments[0] + " failed: " + std::string(said, length);
  while (!error.empty() && error.back() == '\n') error.pop_back();
  return false;
}
