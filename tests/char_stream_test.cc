// The pull stream's hand-over of incoming bytes: offered where they lie to a
// reader that takes them so, in a string to one that declines, and whatever a
// reader leaves kept, in order, for the next delivery.
#include "net/char_stream.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

namespace vantu {
namespace relay {
namespace char_stream {
namespace {

// Takes at most `take_` bytes of each delivery, recording what it was shown
// and how. Event-thread rules do not matter here: the test is one thread.
class PartialReader : public PullStreamSink::Reader {
 public:
  PartialReader(bool in_place, size_t take) : in_place_(in_place), take_(take) {}

  size_t onReadableBytes(const char* data, size_t size) override {
    if (!in_place_) return kInString;
    shown_in_place.emplace_back(data, size);
    const size_t used = std::min(size, take_);
    taken.append(data, used);
    return used;
  }
  void onReadable(std::string* data) override {
    shown_in_string.push_back(*data);
    const size_t used = std::min(data->size(), take_);
    taken.append(*data, 0, used);
    data->erase(0, used);
  }
  bool onInputEnd(std::string* data) override {
    at_end = *data;
    return false;
  }
  void onOutputEnd() override {}
  void onClosed() override {}

  std::vector<std::string> shown_in_place;
  std::vector<std::string> shown_in_string;
  std::string taken;
  std::string at_end;

 private:
  const bool in_place_;
  const size_t take_;
};

TEST(CharStreamTest, BytesAReaderLeavesComeBackInOrderWithTheNextRead) {
  struct Case {
    const char* name;
    bool in_place;
    size_t take;
    std::vector<std::string> shown_in_place;
    std::vector<std::string> shown_in_string;
    std::string taken;
    std::string at_end;
  };
  const Case cases[] = {
      // Everything used where it lies: nothing is ever kept or copied.
      {"in place, all used", true, 100, {"abc", "defg", "h"}, {}, "abcdefgh", ""},
      // Two bytes used per read: the rest is kept, and the next read finds
      // it before its own bytes, through the string.
      {"in place, part used", true, 2, {"abc"}, {"cdefg", "efgh"}, "abcdef", "gh"},
      // A reader that declines gets every read in a string.
      {"in a string, all used", false, 100, {}, {"abc", "defg", "h"}, "abcdefgh", ""},
      {"in a string, part used", false, 2, {}, {"abc", "cdefg", "efgh"}, "abcdef", "gh"},
  };
  for (const Case& test : cases) {
    SCOPED_TRACE(test.name);
    PartialReader reader(test.in_place, test.take);
    PullStreamSink sink;
    sink.setReader(&reader);
    for (const char* read : {"abc", "defg", "h"})
      sink.deliver(read, std::char_traits<char>::length(read));
    sink.notifyInputEnd();
    EXPECT_EQ(test.shown_in_place, reader.shown_in_place);
    EXPECT_EQ(test.shown_in_string, reader.shown_in_string);
    EXPECT_EQ(test.taken, reader.taken);
    EXPECT_EQ(test.at_end, reader.at_end);
  }
}

}  // namespace
}  // namespace char_stream
}  // namespace relay
}  // namespace vantu
