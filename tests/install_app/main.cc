// A tiny application built against the installed tree: it must find the
// headers as <relay/...> and link with the installed library alone.
#include <cstdio>
#include <string>

#include <common/string_util.h>

int main() {
  std::string text = vantu::stringPrintf("%s %d", "installed", 1);
  if (text != "installed 1") return 1;
  std::printf("install_app: %s\n", text.c_str());
  return 0;
}
