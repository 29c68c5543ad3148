#ifndef EXAMPLES_RELAY_CALL_DESCRIPTORS_H_
#define EXAMPLES_RELAY_CALL_DESCRIPTORS_H_

#include <google/protobuf/descriptor.h>

#include <memory>
#include <string>
#include <vector>

#include "relay_call_args.h"

namespace relay_call {

class Caller;

// Where relay_call finds the descriptors of the services it talks to: .proto
// files compiled at run time, or the server's reflection service. Either way
// the descriptors live in a pool of the source's own, never in the generated
// pool, so relay_call needs no code generated for anybody's service.
//
// Owned by main; used from one thread. Descriptors it returns live as long as
// the source.
class DescriptorSource {
 public:
  virtual ~DescriptorSource() = default;

  // The full names of the services to list, in name order.
  virtual ExitCode listServices(std::vector<std::string>* names, std::string* error) = 0;

  // Makes sure the file that defines `symbol` (a service, method, message,
  // enum or field) is loaded and sets *pool to the pool that has it.
  // kExitUsage when nothing defines it; kExitCallFailed when the server could
  // not be asked.
  virtual ExitCode load(const std::string& symbol, const google::protobuf::DescriptorPool** pool,
                        std::string* error) = 0;
};

// Compiles `files` (with their imports) found under `import_paths` (the
// current directory when there is none, and then also each file's own
// directory). Returns null with the first compiler error in *error when a file
// does not compile.
std::unique_ptr<DescriptorSource> loadProtoFiles(const std::vector<std::string>& files,
                                                 const std::vector<std::string>& import_paths,
                                                 std::string* error);

// Asks the server's reflection service through `caller`, which must outlive
// the source, loading files only as symbols are asked for.
std::unique_ptr<DescriptorSource> newReflectionSource(Caller* caller);

// The definition of `symbol` in .proto syntax, after a comment naming its
// file; empty when `pool` has no such symbol.
std::string describeSymbol(const google::protobuf::DescriptorPool& pool, const std::string& symbol);

}  // namespace relay_call

#endif  // EXAMPLES_RELAY_CALL_DESCRIPTORS_H_
