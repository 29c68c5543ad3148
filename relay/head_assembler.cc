#include "relay/head_assembler.h"

#include <utility>

namespace vantu {
namespace relay {

void HeadAssembler::takeLineBuffer(size_t begin, size_t length, std::string* target) {
  std::string taken;
  taken.swap(*line_);
  taken.erase(begin + length);
  taken.erase(0, begin);
  *target = std::move(taken);
}

}  // namespace relay
}  // namespace vantu
