/// Owners for what the C library hands out. Each closes on destruction, moves, and never copies; release()
/// hands the bare thing back where an interface takes it over.
#pragma once

#include <dirent.h>
#include <stdio.h>
#include <stdlib.h>
#include <unistd.h>

#include <memory>
#include <utility>

namespace base {

/// Owns a file descriptor; -1 is none.
class UniqueFd {
 public:
  UniqueFd() = default;
  explicit UniqueFd(int fd) : fd_(fd) {}
  UniqueFd(UniqueFd&& other) noexcept : fd_(other.release()) {}
  UniqueFd& operator=(UniqueFd&& other) noexcept {
    if (this != &other) reset(other.release());
    return *this;
  }
  ~UniqueFd() { reset(); }

  [[nodiscard]] int get() const { return fd_; }
  [[nodiscard]] explicit operator bool() const { return fd_ >= 0; }
  [[nodiscard]] int release() { return std::exchange(fd_, -1); }
  void reset(int fd = -1) {
    if (fd_ >= 0) (void)::close(fd_);  // nothing was written through this owner that close could still lose
    fd_ = fd;
  }

 private:
  int fd_ = -1;
};

/// A deleter that calls a C function, for std::unique_ptr: `UniqueC<BIO, BIO_free_all>`.
template <auto Function>
struct CDeleter {
  template <class T>
  void operator()(T* object) const {
    (void)Function(object);
  }
};

template <class T, auto Function>
using UniqueC = std::unique_ptr<T, CDeleter<Function>>;

using FilePtr =
    UniqueC<FILE, fclose>;  ///< a caller that must know whether the last bytes arrived closes itself
using PipePtr = UniqueC<FILE, pclose>;  ///< waits for the command; one that wants its status closes itself
using DirPtr = UniqueC<DIR, closedir>;
using MallocPtr = UniqueC<char, free>;

}  // namespace base
