#ifndef EXAMPLES_RELAY_CALL_ARGS_H_
#define EXAMPLES_RELAY_CALL_ARGS_H_

#include <cstdint>
#include <string>
#include <vector>

// relay_call's command line: what to do, where, and with which descriptors.
namespace relay_call {

// The process's exit status, which scripts read.
enum ExitCode {
  kExitOk = 0,
  kExitCallFailed = 1,  // no connection, a failed call, no answer in time
  kExitUsage = 2,       // bad arguments, unknown method or symbol, bad .proto or JSON
};

enum class Verb { kList, kDescribe, kCall };
enum class Wire { kBinary, kJson };

struct Options {
  bool help = false;  // -h/--help: print the usage and do nothing else
  // Where the servers are: "HOST:PORT", "HOST:PORT,HOST:PORT,..." or
  // "dns:///NAME:PORT", as given.
  std::string address;
  // The first of them: as given, brackets of an IPv6 literal removed.
  std::string host;
  uint16_t port = 0;
  Verb verb = Verb::kCall;
  // kDescribe: the symbol. kCall: the method as "package.Service.Method".
  std::string target;
  // kCall: the request in JSON; "-" means standard input.
  std::string request_json;
  std::vector<std::string> proto_files;   // --proto, in the order given
  std::vector<std::string> import_paths;  // -I, in the order given
  Wire wire = Wire::kBinary;
  int timeout_ms = 10000;
  // --tls: TLS to the servers; --cacert the authorities that sign their
  // certificates (default: the system's), --cert/--key a client certificate.
  bool tls = false;
  std::string ca_file;
  std::string certificate_file;
  std::string key_file;
};

// The usage text, ending in a newline.
extern const char kUsage[];

// Parses the arguments after the program name. Options may stand anywhere
// ("--timeout-ms 5", "--timeout-ms=5", "-I dir", "-Idir"); "--" ends them.
// Returns false with a one-line reason in *error on bad usage.
bool parseArguments(const std::vector<std::string>& args, Options* options, std::string* error);

}  // namespace relay_call

#endif  // EXAMPLES_RELAY_CALL_ARGS_H_
