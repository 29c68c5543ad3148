#ifndef TESTS_CALC_SERVICE_H_
#define TESTS_CALC_SERVICE_H_

// calc.Calculator, a user's own service in no generated code: its .proto
// files (tests/data/relay_call/calc/) are compiled when it is made, and its
// messages are dynamic.

#include <google/protobuf/compiler/importer.h>
#include <google/protobuf/dynamic_message.h>
#include <google/protobuf/service.h>

#include <atomic>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace vantu {
namespace testing {

// Add answers at once with the total of its values; Fail fails with its
// request's error text; Hold keeps the call until releaseHeld() or the
// service's destruction. Every call counts in `calls`. Any thread.
class CalcService : public google::protobuf::Service {
 public:
  // Null (and a test failure to follow) when the files do not compile.
  static std::shared_ptr<CalcService> load() {
    std::shared_ptr<CalcService> service(new CalcService);
    const google::protobuf::FileDescriptor* file = service->importer_.Import("calc/calc.proto");
    if (file == nullptr) return nullptr;
    service->descriptor_ = file->FindServiceByName("Calculator");
    return service->descriptor_ != nullptr ? service : nullptr;
  }

  ~CalcService() override { releaseHeld(); }

  // The pool the service's descriptors live in.
  const google::protobuf::DescriptorPool& pool() const { return *importer_.pool(); }

  // google::protobuf::Service
  const google::protobuf::ServiceDescriptor* GetDescriptor() override { return descriptor_; }
  void CallMethod(const google::protobuf::MethodDescriptor* method,
                  google::protobuf::RpcController* controller,
                  const google::protobuf::Message* request, google::protobuf::Message* response,
                  google::protobuf::Closure* done) override {
    ++calls;
    const google::protobuf::Reflection* in = request->GetReflection();
    const google::protobuf::Descriptor* type = request->GetDescriptor();
    if (method->name() == "Fail") {
      controller->SetFailed(in->GetString(*request, type->FindFieldByName("error")));
    } else if (method->name() == "Hold") {
      std::lock_guard<std::mutex> lock(mutex_);
      held_.push_back(done);
      return;
    } else {
      const google::protobuf::FieldDescriptor* values = type->FindFieldByName("values");
      int64_t total = 0;
      for (int i = 0; i < in->FieldSize(*request, values); ++i) {
        total += in->GetRepeatedInt64(*request, values, i);
      }
      const google::protobuf::Reflection* out = response->GetReflection();
      const google::protobuf::Descriptor* sum = response->GetDescriptor();
      out->SetInt64(response, sum->FindFieldByName("total"), total);
      out->SetEnumValue(response, sum->FindFieldByName("unit"),
                        in->GetEnumValue(*request, type->FindFieldByName("unit")));
    }
    done->Run();
  }
  const google::protobuf::Message& GetRequestPrototype(
      const google::protobuf::MethodDescriptor* method) const override {
    return *factory_.GetPrototype(method->input_type());
  }
  const google::protobuf::Message& GetResponsePrototype(
      const google::protobuf::MethodDescriptor* method) const override {
    return *factory_.GetPrototype(method->output_type());
  }

  // Completes the held calls with empty replies.
  void releaseHeld() {
    std::vector<google::protobuf::Closure*> held;
    {
      std::lock_guard<std::mutex> lock(mutex_);
      held.swap(held_);
    }
    for (google::protobuf::Closure* done : held) done->Run();
  }

  std::atomic<int> calls{0};

 private:
  class Errors : public google::protobuf::compiler::MultiFileErrorCollector {
   public:
    void AddError(const std::string& file, int line, int, const std::string& message) override {
      fprintf(stderr, "%s:%d: %s\n", file.c_str(), line + 1, message.c_str());
    }
  };

  CalcService() : importer_(&tree_, &errors_), factory_(importer_.pool()) {
    tree_.MapPath("", HSL_SOURCE_DIR "/tests/data/relay_call");
  }

  google::protobuf::compiler::DiskSourceTree tree_;
  Errors errors_;
  google::protobuf::compiler::Importer importer_;
  mutable google::protobuf::DynamicMessageFactory factory_;
  const google::protobuf::ServiceDescriptor* descriptor_ = nullptr;
  std::mutex mutex_;
  std::vector<google::protobuf::Closure*> held_;
};

}  // namespace testing
}  // namespace vantu

#endif  // TESTS_CALC_SERVICE_H_
