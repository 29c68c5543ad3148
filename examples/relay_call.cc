// relay_call: the command-line client for any service a server hosts.
//
//   relay_call [options] HOST:PORT list
//   relay_call [options] HOST:PORT describe SYMBOL
//   relay_call [options] HOST:PORT package.Service.Method JSON|-
//
// The descriptors come from .proto files compiled here (--proto, -I) or from
// the server's reflection service; requests and replies are built as dynamic
// messages, so no code generated for the service is needed. Exits 0 on
// success, 1 when the call fails, 2 on bad usage or an unknown service,
// method or type (whether the descriptors or the server did not know it),
// with a one-line reason on stderr (relay_call_args.h has the details).
#include <google/protobuf/dynamic_message.h>
#include <google/protobuf/util/json_util.h>

#include <cstdio>
#include <iostream>
#include <iterator>
#include <memory>
#include <string>
#include <vector>

#include "common/logging.h"
#include "relay_call_args.h"
#include "relay_call_client.h"
#include "relay_call_descriptors.h"

namespace {

using relay_call::ExitCode;

int fail(ExitCode code, const std::string& reason) {
  fprintf(stderr, "relay_call: %s\n", reason.c_str());
  return code;
}

int list(relay_call::DescriptorSource* source) {
  std::vector<std::string> names;
  std::string error;
  const ExitCode code = source->listServices(&names, &error);
  if (code != relay_call::kExitOk) return fail(code, error);
  for (const std::string& name : names) printf("%s\n", name.c_str());
  return relay_call::kExitOk;
}

int describe(relay_call::DescriptorSource* source, const std::string& symbol) {
  const google::protobuf::DescriptorPool* pool = nullptr;
  std::string error;
  const ExitCode code = source->load(symbol, &pool, &error);
  if (code != relay_call::kExitOk) return fail(code, error);
  const std::string text = relay_call::describeSymbol(*pool, symbol);
  if (text.empty()) return fail(relay_call::kExitUsage, "no service, method or type " + symbol);
  fputs(text.c_str(), stdout);
  return relay_call::kExitOk;
}

int call(relay_call::DescriptorSource* source, relay_call::Caller* caller,
         const relay_call::Options& options) {
  const size_t dot = options.target.rfind('.');
  const std::string service_name = options.target.substr(0, dot);
  const google::protobuf::DescriptorPool* pool = nullptr;
  std::string error;
  ExitCode code = source->load(service_name, &pool, &error);
  if (code != relay_call::kExitOk) return fail(code, error);
  const google::protobuf::ServiceDescriptor* service = pool->FindServiceByName(service_name);
  if (service == nullptr) return fail(relay_call::kExitUsage, service_name + " is not a service");
  const google::protobuf::MethodDescriptor* method =
      service->FindMethodByName(options.target.substr(dot + 1));
  if (method == nullptr) {
    return fail(relay_call::kExitUsage,
                service_name + " has no method " + options.target.substr(dot + 1));
  }

  std::string json = options.request_json;
  if (json == "-") {
    json.assign(std::istreambuf_iterator<char>(std::cin), std::istreambuf_iterator<char>());
  }
  google::protobuf::DynamicMessageFactory factory(pool);
  std::unique_ptr<google::protobuf::Message> request(
      factory.GetPrototype(method->input_type())->New());
  std::unique_ptr<google::protobuf::Message> response(
      factory.GetPrototype(method->output_type())->New());
  const auto parsed = google::protobuf::util::JsonStringToMessage(json, request.get());
  if (!parsed.ok()) {
    // The parser's message goes on with the text and a caret; its first line
    // says what is wrong.
    const std::string reason = std::string(parsed.message());
    return fail(relay_call::kExitUsage, "the request is not a " +
                                            method->input_type()->full_name() +
                                            " in JSON: " + reason.substr(0, reason.find('\n')));
  }
  code = caller->call(options.wire, *method, *request, response.get(), &error);
  // A service or method the server does not host is the same mistake as one
  // the descriptors do not define, wherever the descriptors came from.
  if (code == relay_call::kExitCallFailed && error == "Service not found.") {
    return fail(relay_call::kExitUsage, "the server hosts no " + service_name);
  }
  if (code == relay_call::kExitCallFailed && error == "Method not found.") {
    return fail(relay_call::kExitUsage,
                "the server's " + service_name + " has no method " + method->name());
  }
  if (code != relay_call::kExitOk) return fail(code, error);
  std::string out;
  google::protobuf::util::MessageToJsonString(*response, &out);
  printf("%s\n", out.c_str());
  return relay_call::kExitOk;
}

}  // namespace

int main(int argc, char** argv) {
  relay_call::Options options;
  std::string error;
  if (!relay_call::parseArguments(std::vector<std::string>(argv + 1, argv + argc), &options,
                                  &error)) {
    return fail(relay_call::kExitUsage, error + " (relay_call --help for usage)");
  }
  if (options.help) {
    fputs(relay_call::kUsage, stdout);
    return relay_call::kExitOk;
  }
  // The library's own notes (a refused connection, say) would repeat what the
  // one-line reason says; only failed internal checks get through.
  vantu::setLogSink([](const vantu::LogRecord& record) {
    if (record.level <= 1) {
      fprintf(stderr, "relay_call: %s: %s\n", record.logger.c_str(), record.text.c_str());
    }
  });

  int result;
  {
    vantu::relay::TlsClientOptions tls;
    tls.enabled = options.tls;
    tls.ca_file = options.ca_file;
    tls.certificate_chain_file = options.certificate_file;
    tls.private_key_file = options.key_file;
    relay_call::Caller caller(options.address, options.timeout_ms, tls);
    std::unique_ptr<relay_call::DescriptorSource> source;
    if (options.proto_files.empty()) {
      source = relay_call::newReflectionSource(&caller);
    } else {
      source = relay_call::loadProtoFiles(options.proto_files, options.import_paths, &error);
      if (!source) return fail(relay_call::kExitUsage, error);
    }
    switch (options.verb) {
      case relay_call::Verb::kList:
        result = list(source.get());
        break;
      case relay_call::Verb::kDescribe:
        result = describe(source.get(), options.target);
        break;
      case relay_call::Verb::kCall:
      default:
        result = call(source.get(), &caller, options);
        break;
    }
  }
  fflush(stdout);
  return result;
}
