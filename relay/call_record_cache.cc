#include "relay/call_record_cache.h"

#include <google/protobuf/descriptor.h>
#include <google/protobuf/message.h>
#include <google/protobuf/service.h>

#include <atomic>
#include <memory>
#include <new>
#include <vector>

#include "common/event_thread.h"
#include "common/fast_thread_local.h"
#include "common/memory_policy.h"
#include "relay/rpc.h"

namespace vantu {
namespace relay {
namespace {

using RPCInfo = HttpServerImpl::RPCInfo;

std::atomic<int> g_live_records{0};

// The event thread's kept records; freed when the thread ends, after which
// records given back find no cache.
struct Records {
  ~Records() {
    for (RPCInfo* record : list) delete record;
    list.clear();
  }
  std::vector<RPCInfo*> list;
};

VANTU_FAST_THREAD_LOCAL Records* tls_records = nullptr;

// This thread's cache, when it is the event thread; null elsewhere.
Records* records() {
  if (tls_records == nullptr && isEventThread()) {
    struct Owner {
      ~Owner() {
        delete tls_records;
        tls_records = nullptr;
      }
    };
    thread_local Owner owner;
    (void)owner;
    tls_records = new Records;
  }
  return tls_records;
}

}  // namespace

int liveRPCRecordsForTesting() { return g_live_records.load(); }

RPCInfo* CallRecordCache::take(google::protobuf::Service* service,
                               const google::protobuf::MethodDescriptor* method) {
  ++g_live_records;
  const google::protobuf::Message& request = service->GetRequestPrototype(method);
  const google::protobuf::Message& response = service->GetResponsePrototype(method);
  if (Records* cache = records()) {
    // The messages fit when they came from the same prototypes.
    for (size_t i = cache->list.size(); i-- > 0;) {
      RPCInfo* record = cache->list[i];
      if (record->request_prototype == &request && record->response_prototype == &response) {
        cache->list.erase(cache->list.begin() + static_cast<std::ptrdiff_t>(i));
        record->request->Clear();
        record->response->Clear();
        return record;
      }
    }
  }
  auto* record = new RPCInfo;
  record->controller.reset(new RPC);
  record->request.reset(request.New());
  record->response.reset(response.New());
  // Messages of a dynamic factory die with it, perhaps before a kept record.
  google::protobuf::MessageFactory* generated =
      google::protobuf::MessageFactory::generated_factory();
  record->reusable = generated->GetPrototype(method->input_type()) == &request &&
                     generated->GetPrototype(method->output_type()) == &response;
  record->request_prototype = &request;
  record->response_prototype = &response;
  return record;
}

void CallRecordCache::give(RPCInfo* record) {
  --g_live_records;
  Records* cache = record->reusable && isEventThread() ? records() : nullptr;
  if (cache == nullptr || cache->list.size() >= memory_policy::kMaxCachedCallRecords) {
    delete record;
    return;
  }
  // What the next call reuses. Everything else goes with the old record's
  // destructor (the answer, the connection) and comes back as a new record's
  // constructor makes it.
  std::unique_ptr<RPC> controller = std::move(record->controller);
  std::unique_ptr<google::protobuf::Message> request = std::move(record->request);
  std::unique_ptr<google::protobuf::Message> response = std::move(record->response);
  const google::protobuf::Message* request_prototype = record->request_prototype;
  const google::protobuf::Message* response_prototype = record->response_prototype;
  record->~RPCInfo();
  new (record) RPCInfo;
  controller->Reset();
  record->controller = std::move(controller);
  record->request = std::move(request);
  record->response = std::move(response);
  record->reusable = true;
  record->request_prototype = request_prototype;
  record->response_prototype = response_prototype;
  cache->list.push_back(record);
}

size_t CallRecordCache::keptForTesting() {
  Records* cache = records();
  return cache != nullptr ? cache->list.size() : 0;
}

}  // namespace relay
}  // namespace vantu
