// Request parser: whole, byte by byte and split feeds agree; line matchers agree
// with PCRE; nothing crashes, hangs or leaks.
#include "fuzz/parser_oracle.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  std::vector<size_t> cuts = fuzz::takeCuts(&data, &size);
  const std::string input(reinterpret_cast<const char*>(data), size);
  fuzz::checkSplits<vantu::relay::HttpRequestParser, vantu::relay::HttpRequestPtr>(input, cuts);
  fuzz::checkLineMatchers(input);
  return 0;
}
