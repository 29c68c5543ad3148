// Response parser: the same responses and verdicts as the plain reference,
// chunk by chunk, fed whole, byte by byte and cut where the input says;
// nothing crashes, hangs or leaks.
#include "fuzz/parser_oracle.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  fuzz::quietLogs();
  const fuzz::FramedInput input = fuzz::unframe(data, size);
  fuzz::checkFeeds<fuzz::ResponseSide>(input.stream, input.pieces);
  return 0;
}
