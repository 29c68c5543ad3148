// Request parser: the same requests and verdicts as the plain reference, chunk
// by chunk, fed whole, byte by byte and cut where the input says; the line
// matchers agree with PCRE; nothing crashes, hangs or leaks.
#include "fuzz/parser_oracle.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  fuzz::quietLogs();
  const fuzz::FramedInput input = fuzz::unframe(data, size);
  fuzz::checkFeeds<fuzz::RequestSide>(input.stream, input.pieces);
  fuzz::checkLineMatchers(input.stream);
  return 0;
}
