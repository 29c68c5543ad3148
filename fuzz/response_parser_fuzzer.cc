// Response parser: whole, byte by byte and split feeds agree; nothing crashes,
// hangs or leaks.
#include "fuzz/parser_oracle.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  std::vector<size_t> cuts = fuzz::takeCuts(&data, &size);
  const std::string input(reinterpret_cast<const char*>(data), size);
  fuzz::checkSplits<vantu::relay::HttpResponseParser, vantu::relay::HttpResponsePtr>(input, cuts);
  return 0;
}
