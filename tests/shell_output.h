#ifndef TESTS_SHELL_OUTPUT_H_
#define TESTS_SHELL_OUTPUT_H_

// Other programs run to their end from a test: clients nobody here wrote
// (curl, python3, openssl) through the shell, and our own command-line tools.

#include <fcntl.h>
#include <spawn.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

extern char** environ;

namespace vantu {
namespace testing {

// Runs a shell command to its end; its standard output, and its exit status
// in *status (-1 when it did not exit normally).
inline std::string shellOutput(const std::string& command, int* status = nullptr) {
  std::string output;
  FILE* pipe = popen(command.c_str(), "r");
  if (pipe == nullptr) {
    if (status != nullptr) *status = -1;
    return output;
  }
  char buffer[65536];
  size_t n;
  while ((n = fread(buffer, 1, sizeof(buffer), pipe)) > 0) output.append(buffer, n);
  const int result = pclose(pipe);
  if (status != nullptr) *status = WIFEXITED(result) ? WEXITSTATUS(result) : -1;
  return output;
}

// Runs `script` with python3 and `arguments` (a client nobody here wrote);
// its standard output.
inline std::string pythonOutput(const std::string& script, const std::string& arguments) {
  char path[] = "/tmp/hsl_script_XXXXXX";
  const int fd = mkstemp(path);
  if (fd < 0) return "";
  ::close(fd);
  std::ofstream(path) << script;
  const std::string output =
      shellOutput("python3 -W ignore " + std::string(path) + " " + arguments);
  unlink(path);
  return output;
}

struct ProcessOutcome {
  int exit_code = -1;  // 128 + the signal that ended it; -1 when it did not run
  std::string out;
  std::string err;
};

// Runs `argv` (argv[0] the binary, looked up in PATH; no shell in between) with `input` on its
// standard input, to its end. Its output goes through files, not pipes, so a
// program that writes much before it reads cannot block on us.
inline ProcessOutcome runProcess(const std::vector<std::string>& argv,
                                 const std::string& input = "") {
  ProcessOutcome run;
  char dir[] = "/tmp/run_process.XXXXXX";
  if (mkdtemp(dir) == nullptr) return run;
  const std::string in = std::string(dir) + "/in", out = std::string(dir) + "/out",
                    err = std::string(dir) + "/err";
  std::ofstream(in, std::ios::binary) << input;
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, 0, in.c_str(), O_RDONLY, 0);
  posix_spawn_file_actions_addopen(&actions, 1, out.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
  posix_spawn_file_actions_addopen(&actions, 2, err.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
  std::vector<char*> args;
  for (const std::string& arg : argv) args.push_back(const_cast<char*>(arg.c_str()));
  args.push_back(nullptr);
  pid_t pid;
  if (posix_spawnp(&pid, args[0], &actions, nullptr, args.data(), environ) == 0) {
    int status = 0;
    while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
    }
    run.exit_code = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    const auto read = [](const std::string& path) {
      std::stringstream text;
      text << std::ifstream(path, std::ios::binary).rdbuf();
      return text.str();
    };
    run.out = read(out);
    run.err = read(err);
  }
  posix_spawn_file_actions_destroy(&actions);
  unlink(in.c_str());
  unlink(out.c_str());
  unlink(err.c_str());
  rmdir(dir);
  return run;
}

}  // namespace testing
}  // namespace vantu

#endif  // TESTS_SHELL_OUTPUT_H_
