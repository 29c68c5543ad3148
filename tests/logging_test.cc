#include "common/logging.h"

#include <gtest/gtest.h>

#include <vector>

namespace vantu {
namespace {

class LoggingTest : public ::testing::Test {
 protected:
  void SetUp() override {
    setLogSink([this](const LogRecord& r) { records_.push_back(r); });
  }
  void TearDown() override {
    setLogSink(nullptr);
    setLogLevel("test_logger", 2);
  }
  std::vector<LogRecord> records_;
};

int evaluations = 0;
int countEvaluation() { return ++evaluations; }

void logTwice() {
  for (int i = 0; i < 2; ++i) VANTU_LOG(2, "test_logger", "tests/logging") << "i=" << i;
}

TEST_F(LoggingTest, DefaultLevelsAndRecordFields) {
  EXPECT_TRUE(isLoggerEnabled(1, "check"));
  EXPECT_TRUE(isLoggerEnabled(2, "http_server"));
  EXPECT_FALSE(isLoggerEnabled(5, "http_server"));

  logTwice();
  ASSERT_EQ(2u, records_.size());
  EXPECT_EQ(2, records_[0].level);
  EXPECT_EQ("test_logger", records_[0].logger);
  EXPECT_EQ("tests/logging", records_[0].file);
  EXPECT_NE(std::string::npos, records_[0].function.find("logTwice"));
  EXPECT_EQ("i=0", records_[0].text);
  EXPECT_EQ("i=1", records_[1].text);
  // One statement, one identifier.
  EXPECT_GE(records_[0].id, 0);
  EXPECT_EQ(records_[0].id, records_[1].id);
  // A line and function given explicitly are kept.
  VANTU_LOG_AT(1, "check", "relay/rpc", "void f()", 116) << "Check failed x";
  ASSERT_EQ(3u, records_.size());
  EXPECT_EQ(116, records_[2].line);
  EXPECT_EQ("void f()", records_[2].function);
  EXPECT_EQ("Check failed x", records_[2].text);
}

TEST_F(LoggingTest, DisabledRecordIsNeverBuilt) {
  evaluations = 0;
  VANTU_LOG(5, "test_logger", "tests/logging") << countEvaluation();
  EXPECT_EQ(0, evaluations);
  EXPECT_TRUE(records_.empty());

  setLogLevel("test_logger", 5);
  EXPECT_TRUE(isLoggerEnabled(5, "test_logger"));
  EXPECT_FALSE(isLoggerEnabled(6, "test_logger"));
  EXPECT_FALSE(isLoggerEnabled(5, "other_logger"));
  VANTU_LOG(5, "test_logger", "tests/logging") << countEvaluation();
  EXPECT_EQ(1, evaluations);
  ASSERT_EQ(1u, records_.size());
  EXPECT_EQ("1", records_[0].text);

  setLogLevel("test_logger", 1);
  EXPECT_FALSE(isLoggerEnabled(2, "test_logger"));
  EXPECT_TRUE(isLoggerEnabled(2, "other_logger"));
}

TEST_F(LoggingTest, DefaultSinkCutsLongTextsAndASetSinkGetsThemWhole) {
  const std::string path = "/" + std::string(1 << 20, 'p');
  VANTU_LOG(2, "test_logger", "tests/logging") << "No handler found for " << path;
  ASSERT_EQ(1u, records_.size());
  EXPECT_EQ("No handler found for " + path, records_[0].text);

  setLogSink(nullptr);
  ::testing::internal::CaptureStderr();
  VANTU_LOG(2, "test_logger", "tests/logging") << "No handler found for " << path << "!";
  VANTU_LOG(2, "test_logger", "tests/logging") << "short " << 42;
  const std::string written = ::testing::internal::GetCapturedStderr();
  const std::string kept = ("No handler found for " + path).substr(0, kDefaultSinkTextLimit);
  const std::string cut = std::to_string(21 + path.size() + 1 - kDefaultSinkTextLimit);
  EXPECT_NE(std::string::npos, written.find("] " + kept + " [" + cut + " bytes cut]\n"));
  EXPECT_NE(std::string::npos, written.find("] short 42\n"));
  EXPECT_LT(written.size(), 2 * kDefaultSinkTextLimit);
}

}  // namespace
}  // namespace vantu
