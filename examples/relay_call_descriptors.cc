#include "relay_call_descriptors.h"

#include <google/protobuf/compiler/importer.h>
#include <google/protobuf/descriptor.pb.h>
#include <sys/stat.h>

#include <algorithm>
#include <cctype>
#include <utility>

#include "relay/reflection.pb.h"
#include "relay_call_client.h"

namespace relay_call {
namespace {

// Keeps the compiler's complaints as "file:line:column: message" lines.
class CollectingErrors : public google::protobuf::compiler::MultiFileErrorCollector {
 public:
  void AddError(const std::string& filename, int line, int column,
                const std::string& message) override {
    // The compiler counts from 0; editors count from 1.
    errors.push_back(filename + ":" + std::to_string(line + 1) + ":" + std::to_string(column + 1) +
                     ": " + message);
  }
  std::vector<std::string> errors;
};

// The same for descriptors that a server sent.
class PoolErrors : public google::protobuf::DescriptorPool::ErrorCollector {
 public:
  void AddError(const std::string& filename, const std::string& element_name,
                const google::protobuf::Message* /*descriptor*/, ErrorLocation /*location*/,
                const std::string& message) override {
    if (first.empty()) first = filename + ": " + element_name + ": " + message;
  }
  std::string first;
};

std::string directoryOf(const std::string& path) {
  const size_t slash = path.rfind('/');
  if (slash == std::string::npos) return ".";
  return slash == 0 ? "/" : path.substr(0, slash);
}

bool isFile(const std::string& path) {
  struct stat info;
  return stat(path.c_str(), &info) == 0 && S_ISREG(info.st_mode);
}

// protobuf's definitions name types fully qualified with a leading dot
// (".demo.EchoRequest"); users write, and paste back, "demo.EchoRequest".
// Drops a dot that starts a name, outside string literals.
std::string asUsersWriteIt(const std::string& text) {
  std::string out;
  out.reserve(text.size());
  bool quoted = false;
  for (size_t i = 0; i < text.size(); ++i) {
    const char c = text[i];
    if (c == '"' && (i == 0 || text[i - 1] != '\\')) quoted = !quoted;
    const bool starts_name =
        c == '.' && !quoted && i + 1 < text.size() &&
        (isalpha(static_cast<unsigned char>(text[i + 1])) || text[i + 1] == '_');
    const bool after_name = i > 0 && (isalnum(static_cast<unsigned char>(text[i - 1])) ||
                                      text[i - 1] == '_' || text[i - 1] == '.');
    if (starts_name && !after_name) continue;
    out += c;
  }
  return out;
}

std::string withComment(const google::protobuf::FileDescriptor* file, const std::string& text) {
  return "// " + file->name() + "\n" + asUsersWriteIt(text);
}

class ProtoFileSource : public DescriptorSource {
 public:
  ProtoFileSource() : importer_(&tree_, &errors_) {}

  bool compile(const std::vector<std::string>& files, const std::vector<std::string>& import_paths,
               std::string* error) {
    std::vector<std::string> paths = import_paths;
    if (paths.empty()) {
      paths.push_back(".");
      for (const std::string& file : files) paths.push_back(directoryOf(file));
    }
    for (const std::string& path : paths) tree_.MapPath("", path);
    for (const std::string& file : files) {
      // A name under an import path ("my.proto" with -I dir), or a file on
      // disk that lies under one ("dir/my.proto").
      std::string name = file;
      if (isFile(file)) {
        std::string virtual_name, shadowing;
        if (tree_.DiskFileToVirtualFile(file, &virtual_name, &shadowing) ==
            google::protobuf::compiler::DiskSourceTree::SUCCESS) {
          name = virtual_name;
        }
      }
      const google::protobuf::FileDescriptor* descriptor = importer_.Import(name);
      if (descriptor == nullptr) {
        if (!errors_.errors.empty()) {
          *error = errors_.errors.front();
          if (errors_.errors.size() > 1) {
            *error += " (and " + std::to_string(errors_.errors.size() - 1) + " more)";
          }
        } else {
          *error = "cannot read " + file + " under the import paths";
        }
        return false;
      }
      files_.push_back(descriptor);
    }
    return true;
  }

  ExitCode listServices(std::vector<std::string>* names, std::string* /*error*/) override {
    for (const google::protobuf::FileDescriptor* file : files_) {
      for (int i = 0; i < file->service_count(); ++i)
        names->push_back(file->service(i)->full_name());
    }
    std::sort(names->begin(), names->end());
    names->erase(std::unique(names->begin(), names->end()), names->end());
    return kExitOk;
  }

  ExitCode load(const std::string& symbol, const google::protobuf::DescriptorPool** pool,
                std::string* error) override {
    if (importer_.pool()->FindFileContainingSymbol(symbol) == nullptr) {
      *error = "no " + symbol + " in the --proto files";
      return kExitUsage;
    }
    *pool = importer_.pool();
    return kExitOk;
  }

 private:
  google::protobuf::compiler::DiskSourceTree tree_;
  CollectingErrors errors_;
  google::protobuf::compiler::Importer importer_;
  std::vector<const google::protobuf::FileDescriptor*> files_;
};

class ReflectionSource : public DescriptorSource {
 public:
  explicit ReflectionSource(Caller* caller) : caller_(*caller) {}

  ExitCode listServices(std::vector<std::string>* names, std::string* error) override {
    vantu::relay::ListServicesRequest request;
    vantu::relay::ListServicesReply reply;
    const ExitCode code = ask("ListServices", request, &reply, error);
    if (code != kExitOk) return code;
    names->assign(reply.service().begin(), reply.service().end());
    std::sort(names->begin(), names->end());
    return kExitOk;
  }

  ExitCode load(const std::string& symbol, const google::protobuf::DescriptorPool** pool,
                std::string* error) override {
    *pool = &pool_;
    if (pool_.FindFileContainingSymbol(symbol) != nullptr) return kExitOk;
    vantu::relay::FileContainingSymbolRequest request;
    request.set_symbol(symbol);
    google::protobuf::FileDescriptorSet files;
    const ExitCode code = ask("FileContainingSymbol", request, &files, error);
    if (code != kExitOk) {
      if (error->compare(0, 17, "Symbol not found:") == 0) {
        *error = "the server defines no " + symbol;
        return kExitUsage;
      }
      return code;
    }
    // Each file comes after its dependencies.
    for (const google::protobuf::FileDescriptorProto& file : files.file()) {
      if (pool_.FindFileByName(file.name()) != nullptr) continue;
      PoolErrors errors;
      if (pool_.BuildFileCollectingErrors(file, &errors) == nullptr) {
        *error = "the server's descriptors do not build: " + errors.first;
        return kExitCallFailed;
      }
    }
    if (pool_.FindFileContainingSymbol(symbol) == nullptr) {
      *error = "the server's answer does not define " + symbol;
      return kExitCallFailed;
    }
    return kExitOk;
  }

 private:
  ExitCode ask(const std::string& method_name, const google::protobuf::Message& request,
               google::protobuf::Message* reply, std::string* error) {
    const google::protobuf::MethodDescriptor* method =
        vantu::relay::Reflection::descriptor()->FindMethodByName(method_name);
    const ExitCode code = caller_.call(Wire::kBinary, *method, request, reply, error);
    if (code != kExitOk && *error == "Service not found.") {
      *error = "the server has no reflection service (" +
               vantu::relay::Reflection::descriptor()->full_name() +
               "); name the .proto files with --proto";
    }
    return code;
  }

  Caller& caller_;
  google::protobuf::DescriptorPool pool_;
};

}  // namespace

std::unique_ptr<DescriptorSource> loadProtoFiles(const std::vector<std::string>& files,
                                                 const std::vector<std::string>& import_paths,
                                                 std::string* error) {
  std::unique_ptr<ProtoFileSource> source(new ProtoFileSource);
  if (!source->compile(files, import_paths, error)) return nullptr;
  return source;
}

std::unique_ptr<DescriptorSource> newReflectionSource(Caller* caller) {
  return std::unique_ptr<DescriptorSource>(new ReflectionSource(caller));
}

std::string describeSymbol(const google::protobuf::DescriptorPool& pool,
                           const std::string& symbol) {
  if (const auto* service = pool.FindServiceByName(symbol)) {
    return withComment(service->file(), service->DebugString());
  }
  if (const auto* method = pool.FindMethodByName(symbol)) {
    return withComment(method->service()->file(), method->DebugString());
  }
  if (const auto* message = pool.FindMessageTypeByName(symbol)) {
    return withComment(message->file(), message->DebugString());
  }
  if (const auto* enumeration = pool.FindEnumTypeByName(symbol)) {
    return withComment(enumeration->file(), enumeration->DebugString());
  }
  if (const auto* field = pool.FindFieldByName(symbol)) {
    return withComment(field->file(), field->DebugString());
  }
  if (const auto* extension = pool.FindExtensionByName(symbol)) {
    return withComment(extension->file(), extension->DebugString());
  }
  return std::string();
}

}  // namespace relay_call
