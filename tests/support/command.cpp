#include "support/command.h"

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>

namespace support {

CommandResult RunCommand(const std::vector<std::string>& arguments) {
  std::vector<char*> argv;
  for (const std::string& argument : arguments) argv.push_back(const_cast<char*>(argument.c_str()));
  argv.push_back(nullptr);
  int ends[2];
  if (pipe2(ends, O_CLOEXEC) != 0) return {};
  const pid_t child = fork();
  if (child == 0) {
    const int none = open("/dev/null", O_RDONLY);
    if (none >= 0) (void)dup2(none, STDIN_FILENO);
    (void)dup2(ends[1], STDOUT_FILENO);
    (void)dup2(ends[1], STDERR_FILENO);
    execvp(argv[0], argv.data());
    _exit(127);
  }
  (void)close(ends[1]);
  CommandResult result;
  std::array<char, 4096> buffer;
  for (ssize_t got = 0; (got = TEMP_FAILURE_RETRY(read(ends[0], buffer.data(), buffer.size()))) > 0;) {
    result.output.append(buffer.data(), static_cast<size_t>(got));
  }
  (void)close(ends[0]);
  int status = 0;
  if (child > 0 && TEMP_FAILURE_RETRY(waitpid(child, &status, 0)) == child) {
    result.status = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
  }
  return result;
}

CommandResult RunShell(const std::string& directory, const std::string& commands) {
  return RunCommand({"sh", "-ec", "cd '" + directory + "'\n" + commands});
}

}  // namespace support
