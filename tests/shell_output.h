#ifndef TESTS_SHELL_OUTPUT_H_
#define TESTS_SHELL_OUTPUT_H_

#include <stdio.h>
#include <sys/wait.h>

#include <string>

namespace vantu {
namespace testing {

// Runs a shell command (curl, python3, openssl: clients nobody here wrote) to
// its end; its standard output, and its exit status in *status (-1 when it
// did not exit normally).
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

}  // namespace testing
}  // namespace vantu

#endif  // TESTS_SHELL_OUTPUT_H_
