#include "relay_call_args.h"

#include <cerrno>
#include <cstdlib>

#include "relay/rpc_channel_options.h"

namespace relay_call {

const char kUsage[] =
    "usage: relay_call [options] TARGET list\n"
    "       relay_call [options] TARGET describe SYMBOL\n"
    "       relay_call [options] TARGET package.Service.Method JSON|-\n"
    "\n"
    "  TARGET     HOST:PORT (every address of HOST), HOST:PORT,HOST:PORT,... or\n"
    "             dns:///NAME:PORT: the servers; a call goes to one that answers\n"
    "  list       the services the server hosts (with --proto: those the files define)\n"
    "  describe   a service, method, message or enum in .proto syntax (names with\n"
    "             or without protobuf's leading dot: demo.EchoService, .demo.EchoService)\n"
    "  a method   calls it with the JSON request (\"-\" reads it from standard input)\n"
    "             and prints the reply as JSON\n"
    "\n"
    "options:\n"
    "  --proto FILE      compile FILE here for the descriptors (repeatable); without it\n"
    "                    they come from the server's reflection service\n"
    "  -I, --import-path DIR\n"
    "                    where --proto files and their imports are found (repeatable;\n"
    "                    default: the current directory)\n"
    "  --wire binary|json  the encoding of the call (default binary)\n"
    "  --timeout-ms N    give up after N milliseconds (default 10000); the calls\n"
    "                    carry it as their deadline, so the server sees it too\n"
    "  --tls             TLS to the servers (binary wire only)\n"
    "  --cacert FILE     with --tls: the CA certificates (PEM) the servers' must verify\n"
    "                    against (default: the system's trust store)\n"
    "  --cert FILE --key FILE\n"
    "                    with --tls: a client certificate and its key (PEM)\n"
    "  -h, --help        this text\n"
    "\n"
    "exit status, the same whether descriptors come from --proto or reflection:\n"
    "  0  success\n"
    "  1  the call failed: no connection, no answer in time, or the server's error\n"
    "     (its text on stderr)\n"
    "  2  bad usage: bad arguments, a --proto file that does not compile, a request\n"
    "     that is not the method's JSON, or an unknown service, method or type\n";

namespace {

bool parseAddress(const std::string& text, Options* options, std::string* error) {
  vantu::relay::RPCTarget target;
  if (!vantu::relay::RPCTarget::parse(text, &target, error)) return false;
  options->address = text;
  options->host = target.hosts.front().host;
  options->port = target.hosts.front().port;
  return true;
}

bool parseTimeout(const std::string& text, int* timeout_ms, std::string* error) {
  char* end = nullptr;
  errno = 0;
  const long value =
      text.empty() || text[0] < '0' || text[0] > '9' ? -1 : strtol(text.c_str(), &end, 10);
  if (value < 1 || value > 86400000 || errno != 0 || *end != '\0') {
    *error = "--timeout-ms wants milliseconds from 1 to 86400000, got \"" + text + "\"";
    return false;
  }
  *timeout_ms = static_cast<int>(value);
  return true;
}

// Names as protobuf writes fully-qualified references (".demo.Echo") are
// taken as users write them ("demo.Echo").
std::string withoutLeadingDot(const std::string& name) {
  return name.size() > 1 && name[0] == '.' ? name.substr(1) : name;
}

}  // namespace

bool parseArguments(const std::vector<std::string>& args, Options* options, std::string* error) {
  std::vector<std::string> positional;
  bool options_ended = false;
  for (size_t i = 0; i < args.size(); ++i) {
    const std::string& arg = args[i];
    if (options_ended || arg.size() < 2 || arg[0] != '-') {
      positional.push_back(arg);
      continue;
    }
    if (arg == "--") {
      options_ended = true;
      continue;
    }
    if (arg == "-h" || arg == "--help") {
      options->help = true;
      return true;
    }
    if (arg == "--tls") {
      options->tls = true;
      continue;
    }
    // The option's name and its value, from "--name=value", "-Ivalue" or the
    // next argument.
    std::string name = arg;
    std::string value;
    bool has_value = false;
    if (arg.compare(0, 2, "--") == 0 && arg.find('=') != std::string::npos) {
      name = arg.substr(0, arg.find('='));
      value = arg.substr(arg.find('=') + 1);
      has_value = true;
    } else if (arg.compare(0, 2, "-I") == 0 && arg.size() > 2) {
      name = "-I";
      value = arg.substr(2);
      has_value = true;
    }
    if (name != "--proto" && name != "-I" && name != "--import-path" && name != "--wire" &&
        name != "--timeout-ms" && name != "--cacert" && name != "--cert" && name != "--key") {
      *error = "unknown option " + name;
      return false;
    }
    if (!has_value) {
      if (i + 1 >= args.size()) {
        *error = name + " needs a value";
        return false;
      }
      value = args[++i];
    }
    if (name == "--proto") {
      options->proto_files.push_back(value);
    } else if (name == "-I" || name == "--import-path") {
      options->import_paths.push_back(value);
    } else if (name == "--cacert") {
      options->ca_file = value;
    } else if (name == "--cert") {
      options->certificate_file = value;
    } else if (name == "--key") {
      options->key_file = value;
    } else if (name == "--wire") {
      if (value == "binary") {
        options->wire = Wire::kBinary;
      } else if (value == "json") {
        options->wire = Wire::kJson;
      } else {
        *error = "--wire is binary or json, not \"" + value + "\"";
        return false;
      }
    } else if (!parseTimeout(value, &options->timeout_ms, error)) {
      return false;
    }
  }

  if (!options->tls && (!options->ca_file.empty() || !options->certificate_file.empty() ||
                        !options->key_file.empty())) {
    *error = "--cacert, --cert and --key need --tls";
    return false;
  }
  if (options->certificate_file.empty() != options->key_file.empty()) {
    *error = "--cert and --key go together";
    return false;
  }
  if (options->tls && options->wire == Wire::kJson) {
    *error = "--wire json is not available with --tls";
    return false;
  }
  if (positional.empty()) {
    *error = "missing HOST:PORT";
    return false;
  }
  if (!parseAddress(positional[0], options, error)) return false;
  if (positional.size() < 2) {
    *error = "missing what to do: list, describe SYMBOL or Service.Method JSON";
    return false;
  }
  const std::string& verb = positional[1];
  size_t wanted;
  if (verb == "list") {
    options->verb = Verb::kList;
    wanted = 2;
  } else if (verb == "describe") {
    options->verb = Verb::kDescribe;
    wanted = 3;
    if (positional.size() == 2) {
      *error = "describe needs a SYMBOL";
      return false;
    }
    options->target = withoutLeadingDot(positional[2]);
  } else {
    options->verb = Verb::kCall;
    wanted = 3;
    const std::string method = withoutLeadingDot(verb);
    const size_t dot = method.rfind('.');
    if (dot == std::string::npos || dot == 0 || dot + 1 == method.size()) {
      *error = "\"" + verb + "\" is not list, describe or package.Service.Method";
      return false;
    }
    if (positional.size() == 2) {
      *error = "missing the request: JSON, or - to read it from standard input";
      return false;
    }
    options->target = method;
    options->request_json = positional[2];
  }
  if (positional.size() > wanted) {
    *error = "unexpected argument \"" + positional[wanted] + "\"";
    return false;
  }
  return true;
}

}  // namespace relay_call
