// Runs a fuzz target over its seed corpus as an ordinary test: every file in the
// directories named on the command line goes through LLVMFuzzerTestOneInput once.
#include <dirent.h>

#include <cstdint>
#include <cstdio>
#include <fstream>
#include <sstream>
#include <string>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

int main(int argc, char** argv) {
  int files = 0;
  for (int i = 1; i < argc; ++i) {
    DIR* dir = opendir(argv[i]);
    if (dir == nullptr) {
      fprintf(stderr, "cannot open %s\n", argv[i]);
      return 1;
    }
    while (dirent* entry = readdir(dir)) {
      if (entry->d_name[0] == '.') continue;
      std::ifstream file(std::string(argv[i]) + "/" + entry->d_name, std::ios::binary);
      std::stringstream bytes;
      bytes << file.rdbuf();
      const std::string input = bytes.str();
      LLVMFuzzerTestOneInput(reinterpret_cast<const uint8_t*>(input.data()), input.size());
      ++files;
    }
    closedir(dir);
  }
  printf("ran %d corpus files\n", files);
  return files > 0 ? 0 : 1;
}
