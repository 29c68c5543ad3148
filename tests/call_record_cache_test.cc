#include "relay/call_record_cache.h"

#include <google/protobuf/dynamic_message.h>
#include <gtest/gtest.h>

#include <memory>
#include <thread>
#include <vector>

#include "common/event_thread.h"
#include "common/memory_policy.h"
#include "relay/rpc.h"
#include "tests/test_service.h"

namespace vantu {
namespace relay {
namespace {

using RPCInfo = HttpServerImpl::RPCInfo;

using vantu::testing::testMethod;

// Messages from a dynamic factory, as a service built at run time has them.
class DynamicTextService : public testing::TestServiceImpl {
 public:
  const google::protobuf::Message& GetRequestPrototype(
      const google::protobuf::MethodDescriptor* m) const override {
    return *factory_.GetPrototype(m->input_type());
  }
  const google::protobuf::Message& GetResponsePrototype(
      const google::protobuf::MethodDescriptor* m) const override {
    return *factory_.GetPrototype(m->output_type());
  }

 private:
  mutable google::protobuf::DynamicMessageFactory factory_;
};

TEST(CallRecordCacheTest, AKeptRecordComesBackAsANewOneForMethodsOfTheSameTypes) {
  testing::TestServiceImpl service;
  runOnEventThreadAndWait([&] {
    RPCInfo* record = CallRecordCache::take(&service, testMethod("Echo"));
    // Every field a call sets, set.
    auto answer = std::make_shared<HttpResponse>();
    auto connection = std::make_shared<HttpConnectionHandler>(HttpServerImpl::create());
    std::weak_ptr<HttpResponse> answer_watch = answer;
    record->controller->SetFailed("failed before");
    static_cast<relaytest::Text*>(record->request.get())->set_text("request");
    static_cast<relaytest::Text*>(record->response.get())->set_text("reply");
    record->http_response = std::move(answer);
    record->connection = connection;
    record->id = 77;
    record->format = RPCInfo::kJson;
    record->owes_answer = true;
    record->method = testMethod("Echo");
    record->started = Time::now();
    record->observed = true;
    const size_t kept = CallRecordCache::keptForTesting();
    CallRecordCache::give(record);
    EXPECT_EQ(kept + 1, CallRecordCache::keptForTesting());
    EXPECT_TRUE(answer_watch.expired()) << "a kept record pins the last call's answer";

    // Hold has Echo's types: it gets the same record, as good as new.
    RPCInfo* again = CallRecordCache::take(&service, testMethod("Hold"));
    ASSERT_EQ(record, again);
    EXPECT_EQ(kept, CallRecordCache::keptForTesting());
    RPCInfo fresh;
    EXPECT_FALSE(again->controller->Failed());
    EXPECT_EQ("", again->controller->ErrorText());
    EXPECT_EQ(0u, again->request->ByteSizeLong());
    EXPECT_EQ(0u, again->response->ByteSizeLong());
    EXPECT_EQ(nullptr, again->http_response);
    EXPECT_TRUE(again->connection.expired());
    EXPECT_EQ(fresh.id, again->id);
    EXPECT_EQ(fresh.format, again->format);
    EXPECT_EQ(fresh.owes_answer, again->owes_answer);
    EXPECT_EQ(fresh.method, again->method);
    EXPECT_EQ(fresh.started, again->started);
    EXPECT_EQ(fresh.observed, again->observed);
    EXPECT_TRUE(again->reusable);
    CallRecordCache::give(again);

    // Length reads a Text like Echo but answers a Number; Square neither: the
    // kept record fits neither.
    RPCInfo* echo = again;
    for (const char* name : {"Length", "Square"}) {
      SCOPED_TRACE(name);
      RPCInfo* other = CallRecordCache::take(&service, testMethod(name));
      EXPECT_NE(echo, other);
      EXPECT_EQ(testMethod(name)->input_type(), other->request->GetDescriptor());
      EXPECT_EQ(testMethod(name)->output_type(), other->response->GetDescriptor());
      CallRecordCache::give(other);
    }
    EXPECT_EQ(echo, CallRecordCache::take(&service, testMethod("Echo")));
    CallRecordCache::give(echo);
  });
}

TEST(CallRecordCacheTest, KeepsOnlyGeneratedRecordsOnTheEventThreadAndNotTooMany) {
  DynamicTextService dynamic;
  testing::TestServiceImpl generated;
  const int live = liveRPCRecordsForTesting();
  size_t kept = 0;
  runOnEventThreadAndWait([&] {
    kept = CallRecordCache::keptForTesting();
    RPCInfo* record = CallRecordCache::take(&dynamic, testMethod("Echo"));
    EXPECT_FALSE(record->reusable);
    CallRecordCache::give(record);
    EXPECT_EQ(kept, CallRecordCache::keptForTesting()) << "a dynamic record was kept";
  });
  // Taken on the event thread, given back elsewhere: deleted there.
  RPCInfo* record = nullptr;
  runOnEventThreadAndWait([&] {
    record = CallRecordCache::take(&generated, testMethod("Echo"));
    kept = CallRecordCache::keptForTesting();
  });
  EXPECT_EQ(live + 1, liveRPCRecordsForTesting());
  std::thread([record] { CallRecordCache::give(record); }).join();
  runOnEventThreadAndWait([&] { EXPECT_EQ(kept, CallRecordCache::keptForTesting()); });

  runOnEventThreadAndWait([&] {
    std::vector<RPCInfo*> records;
    for (size_t i = 0; i < memory_policy::kMaxCachedCallRecords + 5; ++i) {
      records.push_back(CallRecordCache::take(&generated, testMethod("Square")));
    }
    for (RPCInfo* r : records) CallRecordCache::give(r);
    EXPECT_EQ(memory_policy::kMaxCachedCallRecords, CallRecordCache::keptForTesting());
  });
  EXPECT_EQ(live, liveRPCRecordsForTesting());
}

}  // namespace
}  // namespace relay
}  // namespace vantu
