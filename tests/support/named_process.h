/// A process of a chosen name that does nothing, for whoever looks for one.
#pragma once

#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string>

#include "support/temp_dir.h"

namespace support {

class NamedProcess {
 public:
  explicit NamedProcess(const std::string& name) : program_(dir_.File(name)) {
    if (symlink("/bin/sleep", program_.c_str()) != 0) abort();
    pid_ = fork();
    if (pid_ == 0) {
      execl(program_.c_str(), name.c_str(), "600", nullptr);
      _exit(127);
    }
  }
  ~NamedProcess() {
    (void)kill(pid_, SIGKILL);
    (void)waitpid(pid_, nullptr, 0);
  }
  NamedProcess(const NamedProcess&) = delete;
  NamedProcess& operator=(const NamedProcess&) = delete;

  [[nodiscard]] pid_t pid() const { return pid_; }

 private:
  TempDir dir_;
  std::string program_;
  pid_t pid_ = -1;
};

}  // namespace support
