#include "url/gurl.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <random>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "url/url_canon.h"
#include "url/url_parse.h"
#include "url/url_util.h"

namespace {

TEST(GurlTest, ValidityAndCanonicalForm) {
  struct Case {
    std::string input;
    const char* spec;                         // nullptr: invalid
    const char* kept_when_invalid = nullptr;  // an invalid URL's parsed form, else the input
  } cases[] = {
      {"http://example.com/a", "http://example.com/a"},
      {"HTTP://Example.COM/A/b", "http://example.com/A/b"},
      {"http://h", "http://h/"},
      {"http://h?q", "http://h/?q"},
      {"http://h/a?", "http://h/a?"},
      {"http://h:80/x", "http://h/x"},
      {"https://h:443/", "https://h/"},
      {"http://h:443/", "http://h:443/"},
      {"http://h:0080/", "http://h/"},
      {"http://h:08080/", "http://h:8080/"},
      {"http://h:/x", "http://h/x"},
      {"http://h:65535/", "http://h:65535/"},
      {"http://h/a/./b/../c", "http://h/a/c"},
      {"http://h/a/..", "http://h/"},
      {"http://h/a/b/.", "http://h/a/b/"},
      {"http://h/../../x?y=/../z", "http://h/x?y=/../z"},
      {"http://h/a//../b", "http://h/a/b"},
      {"http://h/..a/.b/...", "http://h/..a/.b/..."},
      {"http://h/%7e%41/%2E%2E?x=%2f#%20", "http://h/%7e%41/%2E%2E?x=%2f#%20"},
      {"http://H%4A/", "http://h%4A/"},
      {"http://User:PW@Host/", "http://User:PW@host/"},
      {"http://[::A]:8080/", "http://[::a]:8080/"},
      {"http://h/a#Frag", "http://h/a#Frag"},
      {"mailto:Someone@Example.com", "mailto:Someone@Example.com"},
      {"file:///etc/hosts", "file:///etc/hosts"},
      {"foo:/a/../b", "foo:/b"},
      {"foo:/.//x", "foo:/.//x"},
      {"urn:a:../b", "urn:a:../b"},
      {"", nullptr},
      {"/rpc", nullptr},
      {"rpc", nullptr},
      {"a b", nullptr},
      // Without a host, http(s) URLs are invalid but keep their parts.
      {"http:/a", nullptr, "http:/a"},
      {"http://", nullptr, "http:///"},
      {"http://h:65536/", nullptr},
      {"http://h:80%41/", nullptr},  // not a port, and no path after it
      {"http://h:99999999999999999999/", nullptr},
      // What RFC 3986 forbids but clients send is escaped, not refused.
      {"http://h/a b", "http://h/a%20b"},
      {"http://h/%zz", "http://h/%25zz"},
      {"http://h/%4", "http://h/%254"},
      {"http://h/100%", "http://h/100%25"},
      {"http://h/\x01", "http://h/%01"},
      {std::string("http://h/a\0b", 12), "http://h/a%00b"},
      {"http://h/a|b?q={x}&r=\"^`\\[]", "http://h/a%7Cb?q=%7Bx%7D&r=%22%5E%60%5C%5B%5D"},
      {"http://h/\xc3\xa9", "http://h/%C3%A9"},
      {" http://h/", nullptr},
      {"1http://h/", nullptr},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.input);
    GURL url(c.input);
    EXPECT_EQ(c.spec != nullptr, url.is_valid());
    EXPECT_EQ(c.spec ? c.spec : "", url.spec());
    EXPECT_EQ(c.spec ? c.spec : (c.kept_when_invalid ? c.kept_when_invalid : c.input),
              url.possibly_invalid_spec());
    EXPECT_EQ(c.input.empty(), url.is_empty());
    std::ostringstream streamed;
    streamed << url;
    EXPECT_EQ(url.spec(), streamed.str());
  }
}

// Components point into the canonical form, and copies keep them. A text
// whose authority or fragment the grammar refuses still yields its path and
// query; only a text without a scheme keeps nothing but itself.
TEST(GurlTest, ComponentsOfValidAndInvalidUrls) {
  struct Case {
    const char* input;
    bool valid;
    const char* spec;  // possibly_invalid_spec(); nullptr: the input
    const char* host;
    int port;
    const char* path;   // nullptr: no path component
    const char* query;  // nullptr: no query component
  } cases[] = {
      {"HTTP://H/a/b?x=1&y=2#f", true, "http://h/a/b?x=1&y=2#f", "h", -1, "/a/b", "x=1&y=2"},
      {"http://h:8080", true, "http://h:8080/", "h", 8080, "/", nullptr},
      {"http://h:80/a?", true, "http://h/a?", "h", -1, "/a", ""},
      {"https://u:p@h/?#", true, "https://u:p@h/?#", "h", -1, "/", ""},
      {"http://h/a#?x", true, nullptr, "h", -1, "/a", nullptr},
      {"http://h/%zz?x=1", true, "http://h/%25zz?x=1", "h", -1, "/%25zz", "x=1"},
      {"http:///a?x=1", false, nullptr, "", -1, "/a", "x=1"},
      {"http://h:65536/a?x=1", false, nullptr, "h:65536", -1, "/a", "x=1"},
      {"http://a@b@c/a?x=1", false, nullptr, "c", -1, "/a", "x=1"},
      {"http://[::1/a?x=1", false, nullptr, "[::1", -1, "/a", "x=1"},
      {"http://h/a?x=1#f#g", false, nullptr, "h", -1, "/a", "x=1"},
      {"HTTP://H:99999/b/../a b?q r", false, "http://h:99999/a%20b?q%20r", "h:99999", -1, "/a%20b",
       "q%20r"},
      {"http://h:x", false, "http://h:x/", "h:x", -1, "/", nullptr},
      {"foo:#a#b", false, nullptr, "", -1, "", nullptr},
      {"/a?x=1", false, nullptr, "", -1, nullptr, nullptr},
      {"1http://h/?x", false, nullptr, "", -1, nullptr, nullptr},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.input);
    const GURL url(c.input);
    const GURL copy = url;
    for (const GURL* u : {&url, &copy}) {
      EXPECT_EQ(c.valid, u->is_valid());
      EXPECT_EQ(c.spec ? c.spec : c.input, u->possibly_invalid_spec());
      EXPECT_EQ(c.host, u->host());
      EXPECT_EQ(c.port, u->IntPort());
      EXPECT_EQ(c.path != nullptr, u->has_path());
      EXPECT_EQ(c.path ? c.path : "", u->path());
      EXPECT_EQ(c.query != nullptr, u->has_query());
      EXPECT_EQ(c.query ? c.query : "", u->query());
      const url_parse::Component& query = u->parsed_for_possibly_invalid_spec().query;
      if (query.is_valid()) {
        EXPECT_EQ('?', u->possibly_invalid_spec()[query.begin - 1]);
      }
    }
  }
}

// Random texts over URL punctuation reach the corners (dot segments, empty
// ports, stray escapes) that hand-picked cases miss. The canonical form must
// be a fixed point, or a URL handed on and parsed again would change meaning.
// fromParts takes a short cut around joining its parts; it must end exactly
// where parsing the joined text ends, valid or not, whatever the parts hold.
TEST(GurlTest, CanonicalFormIsStableAndFromPartsIsTheJoinedText) {
  const unsigned seed = std::random_device{}();
  std::printf("seed %u\n", seed);
  SCOPED_TRACE(seed);
  std::mt19937 random(seed);
  const std::string alphabet = "/./..%?#:@[]aZ09 &=+\x01\x7f\xff";
  std::vector<std::string> inputs = {
      std::string(1 << 20, '%'),
      "/" + std::string(1 << 20, 'a'),
      std::string(3 << 20, '.').replace(0, 1, "/"),
      [] {
        std::string dots = "/a";
        for (int i = 0; i < 200000; ++i) dots += "/b/..";
        return dots;
      }(),
      std::string("/\0\r\n", 4),
  };
  for (int i = 0; i < 3000; ++i) {
    std::string uri = "/";
    const int length = std::uniform_int_distribution<int>(0, 24)(random);
    for (int j = 0; j < length; ++j) uri += alphabet[random() % alphabet.size()];
    inputs.push_back(uri);
  }
  int valid = 0;
  for (const std::string& uri : inputs) {
    for (const std::string& text : {"http://Host:80" + uri, "http://" + uri, uri}) {
      SCOPED_TRACE(text.substr(0, 64));
      GURL url;
      EXPECT_NO_THROW(url = GURL(text));
      if (!url.is_valid()) continue;
      ++valid;
      EXPECT_EQ(url.spec(), GURL(url.spec()).spec());
      const url_parse::Component& path = url.parsed_for_possibly_invalid_spec().path;
      EXPECT_LE(path.end(), static_cast<int>(url.spec().size()));
    }
  }
  // The check above means nothing unless many inputs were valid (about 400
  // are, whatever the seed).
  EXPECT_GT(valid, 100);
  EXPECT_EQ("http://host/a/", GURL("http://Host:80" + inputs[3]).spec());

  const std::string authority_bytes = "hH0:9@[]%.-:/?#aB ~!$&'()*+,;=\x01\xe9";
  const std::string target_bytes = "/./..%?#:@[]aZ09 &=+|\x01\x7f\xff";
  auto draw = [&random](const std::string& bytes, int longest) {
    std::string text;
    const int length = std::uniform_int_distribution<int>(0, longest)(random);
    for (int i = 0; i < length; ++i) text += bytes[random() % bytes.size()];
    return text;
  };
  std::vector<std::string> authorities = {
      "",     "h",       "H:80",  "h:",  "u:p@h:8080", "[::1]:1",
      "[::1", "h:99999", "a@b@c", "h/x", "h?x",        "h#x"};
  std::vector<std::string> targets = {"", "/", "//x", "/a?", "?x", "#f", "x", "/a?x=1#f#g"};
  for (int i = 0; i < 400; ++i) authorities.push_back(draw(authority_bytes, 10));
  for (int i = 0; i < 400; ++i) targets.push_back("/" + draw(target_bytes, 16));
  valid = 0;
  for (size_t i = 0; i < 20000; ++i) {
    const std::string& authority = authorities[i < 12 * 8 ? i / 8 : random() % authorities.size()];
    const std::string& target = targets[i < 12 * 8 ? i % 8 : random() % targets.size()];
    SCOPED_TRACE("authority \"" + authority + "\" target \"" + target + "\"");
    const GURL joined("http://" + authority + target);
    const GURL parts = GURL::fromParts("http", authority, target);
    valid += joined.is_valid();
    ASSERT_EQ(joined.is_valid(), parts.is_valid());
    ASSERT_EQ(joined.possibly_invalid_spec(), parts.possibly_invalid_spec());
    const url_parse::Parsed& a = joined.parsed_for_possibly_invalid_spec();
    const url_parse::Parsed& b = parts.parsed_for_possibly_invalid_spec();
    for (auto component :
         {&url_parse::Parsed::scheme, &url_parse::Parsed::username, &url_parse::Parsed::password,
          &url_parse::Parsed::host, &url_parse::Parsed::port, &url_parse::Parsed::path,
          &url_parse::Parsed::query, &url_parse::Parsed::ref}) {
      ASSERT_EQ((a.*component).begin, (b.*component).begin);
      ASSERT_EQ((a.*component).len, (b.*component).len);
    }
  }
  // Both kinds must be well represented for the comparison to mean much.
  EXPECT_GT(valid, 2000);
  EXPECT_LT(valid, 18000);
}

std::vector<std::pair<std::string, std::string>> splitQuery(const std::string& query) {
  // Offsets are into the whole URL, so place the query after a prefix.
  const std::string url = "http://h/p?" + query;
  url_parse::Component remaining(11, static_cast<int>(query.size()));
  url_parse::Component key, value;
  std::vector<std::pair<std::string, std::string>> pairs;
  while (url_parse::ExtractQueryKeyValue(url.data(), &remaining, &key, &value)) {
    pairs.emplace_back(url.substr(key.begin, key.len), url.substr(value.begin, value.len));
  }
  return pairs;
}

TEST(GurlTest, ExtractQueryKeyValueSplitsPairs) {
  using Pairs = std::vector<std::pair<std::string, std::string>>;
  struct Case {
    const char* query;
    Pairs pairs;
  } cases[] = {
      {"a=1&b=2", {{"a", "1"}, {"b", "2"}}},
      {"a", {{"a", ""}}},
      {"=v", {{"", "v"}}},
      {"a&&b", {{"a", ""}, {"", ""}, {"b", ""}}},
      {"a=b=c&d==", {{"a", "b=c"}, {"d", "="}}},
      {"a&", {{"a", ""}}},
      {"", {}},
      {"%41=%42+&x=1", {{"%41", "%42+"}, {"x", "1"}}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.query);
    EXPECT_EQ(c.pairs, splitQuery(c.query));
  }
}

TEST(GurlTest, EncodeUriComponentEscapesAllButUnreservedMarks) {
  std::string all;
  for (int b = 0; b < 256; ++b) all.push_back(static_cast<char>(b));
  url_canon::RawCanonOutputT<char, 16> output;
  url_util::EncodeURIComponent(all.data(), static_cast<int>(all.size()), &output);
  const std::string encoded(output.data(), output.length());

  std::string expected;
  for (int b = 0; b < 256; ++b) {
    const bool passes = (b >= 'a' && b <= 'z') || (b >= 'A' && b <= 'Z') ||
                        (b >= '0' && b <= '9') ||
                        std::string("-_.!~*'()").find(b) != std::string::npos;
    char escaped[4];
    std::snprintf(escaped, sizeof(escaped), "%%%02X", b);
    expected += passes ? std::string(1, static_cast<char>(b)) : escaped;
  }
  EXPECT_EQ(expected, encoded);

  url_util::EncodeURIComponent("x", -1, &output);
  EXPECT_EQ(static_cast<int>(encoded.size()), output.length());
}

TEST(GurlTest, RawCanonOutputGrowsPastItsInlineBuffer) {
  url_canon::RawCanonOutputT<char, 1024> output;
  std::string expected;
  for (int i = 0; output.length() < 5000; ++i) {
    const char c = static_cast<char>('a' + i % 26);
    if (i % 3 == 0) {
      const std::string piece(i % 97, c);
      output.Append(piece.data(), static_cast<int>(piece.size()));
      expected += piece;
    } else {
      output.push_back(c);
      expected += c;
    }
    if (output.length() <= 1024) {
      EXPECT_TRUE(output.usesFixedBuffer());
    }
  }
  EXPECT_FALSE(output.usesFixedBuffer());
  EXPECT_GE(output.capacity(), output.length());
  EXPECT_EQ(expected, std::string(output.data(), output.length()));

  output.Resize(10);
  EXPECT_TRUE(output.usesFixedBuffer());
  EXPECT_EQ(expected.substr(0, 10), std::string(output.data(), output.length()));
}

}  // namespace
