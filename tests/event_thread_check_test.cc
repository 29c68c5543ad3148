#include "common/event_thread_check.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "common/event_thread.h"
#include "common/logging.h"
#include "relay/http_server.h"
#include "tests/log_capture.h"

namespace vantu {
namespace {

#ifdef NDEBUG
constexpr bool kChecked = false;
#else
constexpr bool kChecked = true;
#endif

void eventThreadOnly() { VANTU_DCHECK_ON_EVENT_THREAD("tests/event_thread_check_test"); }

using vantu::testing::LogCapture;

TEST(EventThreadCheckTest, CallsOffTheEventThreadAreReportedInDebugBuildsOnly) {
  LogCapture records;
  runOnEventThreadAndWait(eventThreadOnly);
  EXPECT_TRUE(records.take().empty()) << "a call on the event thread was reported";

  eventThreadOnly();  // and the call goes on: the check is never fatal
  std::vector<LogRecord> written = records.take();
  ASSERT_EQ(kChecked ? 1u : 0u, written.size());
  if (kChecked) {
    EXPECT_EQ(1, written[0].level);
    EXPECT_EQ("check", written[0].logger);
    EXPECT_EQ("tests/event_thread_check_test", written[0].file);
    EXPECT_EQ("Check failed isEventThread() ", written[0].text);
    EXPECT_NE(std::string::npos, written[0].function.find("eventThreadOnly"));
  }
}

TEST(EventThreadCheckTest, ConnectionNotificationsAreChecked) {
  std::shared_ptr<relay::HttpConnectionHandler> connection;
  runOnEventThreadAndWait([&] {
    connection = std::make_shared<relay::HttpConnectionHandler>(relay::HttpServerImpl::create());
  });
  LogCapture records;
  std::string nothing;
  connection->notifyInputShutdown(&nothing);  // no bytes left: does nothing else
  std::vector<LogRecord> written = records.take();
  ASSERT_EQ(kChecked ? 1u : 0u, written.size());
  if (kChecked) {
    EXPECT_EQ("relay/http_connection_handler", written[0].file);
    EXPECT_NE(std::string::npos, written[0].function.find("notifyInputShutdown"));
  }
  runOnEventThreadAndWait([&] { connection.reset(); });
}

}  // namespace
}  // namespace vantu
