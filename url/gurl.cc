#include "url/gurl.h"

#include <boost/url/parse.hpp>
#include <boost/url/url_view.hpp>
#include <climits>
#include <exception>
#include <ostream>

namespace {

using boost::urls::string_view;
using url_parse::Component;

// Canonicalising adds at most two bytes ("/" or "/."), and every offset must
// fit an int; longer texts are simply invalid.
constexpr size_t kMaxInputLength = INT_MAX - 16;

int defaultPort(const std::string& scheme) {
  if (scheme == "http") return 80;
  if (scheme == "https") return 443;
  return -1;
}

// Appends `text`, recording where it went.
Component appendComponent(string_view text, std::string* out) {
  Component component(static_cast<int>(out->size()), static_cast<int>(text.size()));
  out->append(text.data(), text.size());
  return component;
}

// Appends `text` with ASCII letters lower-cased, except the hexadecimal digits
// of percent-escapes, which stay as written like every other escape.
Component appendLowerCase(string_view text, std::string* out) {
  Component component(static_cast<int>(out->size()), static_cast<int>(text.size()));
  size_t keep_until = 0;
  for (size_t i = 0; i < text.size(); ++i) {
    char c = text[i];
    if (c == '%') keep_until = i + 3;
    if (i >= keep_until && c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
    out->push_back(c);
  }
  return component;
}

// The grammar already guarantees digits only; this rejects values that do not
// fit a TCP port, however many leading zeros they carry.
bool parsePort(string_view digits, int* port) {
  int value = 0;
  for (char c : digits) {
    value = value * 10 + (c - '0');
    if (value > 65535) return false;
  }
  *port = value;
  return true;
}

// Appends `path` (which starts with "/") with its "." and ".." segments
// resolved. Each byte is copied at most once and removed at most once, so this
// is linear in the length of the path.
void appendWithoutDotSegments(string_view path, std::string* out) {
  // Every dot segment starts with "/."; most paths have none. (A plain loop:
  // string_view::find of two bytes costs a library call per "/".)
  bool has_dot_segment = false;
  for (size_t i = 0; i + 1 < path.size() && !has_dot_segment; ++i) {
    has_dot_segment = path[i] == '/' && path[i + 1] == '.';
  }
  if (!has_dot_segment) {
    out->append(path.data(), path.size());
    return;
  }
  std::string result;
  result.reserve(path.size());
  size_t i = 0;
  while (i < path.size()) {
    size_t next = path.find('/', i + 1);
    if (next == string_view::npos) next = path.size();
    const string_view segment = path.substr(i + 1, next - i - 1);
    const bool last = next == path.size();
    if (segment == "." || segment == "..") {
      if (segment == "..") {
        const size_t slash = result.rfind('/');
        result.resize(slash == std::string::npos ? 0 : slash);
      }
      // "/a/." and "/a/b/.." name the directory, so they keep the final "/".
      if (last) result.push_back('/');
    } else {
      result.push_back('/');
      result.append(segment.data(), segment.size());
    }
    i = next;
  }
  out->append(result);
}

inline bool isHex(char c) {
  return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'f') || (c >= 'A' && c <= 'F');
}

// Bytes that may stand nowhere in a URI: controls, blank, non-ASCII and
// " < > \ ^ ` { | }. Browsers and HTTP clients send them anyway.
inline bool neverAllowed(unsigned char c) {
  return c <= 0x20 || c >= 0x7f || c == '"' || c == '<' || c == '>' || c == '\\' || c == '^' ||
         c == '`' || c == '{' || c == '|' || c == '}';
}

// Percent-escapes what RFC 3986 forbids so that such URLs are read as clients
// mean them: the bytes above, a "%" that starts no escape (as "%25"), and "["
// or "]" outside the authority. The scheme is left alone: a bad one stays bad.
// Returns false, writing nothing, when there is nothing to escape (the common
// case, which then costs one scan and no copy).
bool escapeForParsing(const std::string& text, std::string* out) {
  static const char kHex[] = "0123456789ABCDEF";
  const size_t colon = text.find(':');
  if (colon == std::string::npos) return false;
  size_t authority_end = colon + 1;
  if (text.compare(colon + 1, 2, "//") == 0) {
    authority_end = text.find_first_of("/?#", colon + 3);
    if (authority_end == std::string::npos) authority_end = text.size();
  }
  auto needsEscape = [&text, authority_end](size_t i) {
    const unsigned char c = text[i];
    if (neverAllowed(c)) return true;
    if (c == '%') return !(i + 2 < text.size() && isHex(text[i + 1]) && isHex(text[i + 2]));
    return (c == '[' || c == ']') && i >= authority_end;
  };
  size_t first = colon + 1;
  while (first < text.size() && !needsEscape(first)) ++first;
  if (first == text.size()) return false;
  out->reserve(text.size() + 16);
  out->assign(text, 0, first);
  for (size_t i = first; i < text.size(); ++i) {
    const unsigned char c = text[i];
    if (needsEscape(i)) {
      out->push_back('%');
      out->push_back(kHex[c >> 4]);
      out->push_back(kHex[c & 15]);
    } else {
      out->push_back(static_cast<char>(c));
    }
  }
  return true;
}

enum class Verdict { kUnparsable, kParsedInvalid, kValid };

// Writes the canonical form of `text` to `*out` and its components to
// `*parsed`. An http(s) URL without a host is kept with its components but is
// not valid.
Verdict canonicalize(const std::string& input, std::string* out, url_parse::Parsed* parsed) {
  std::string escaped;
  const std::string& text = escapeForParsing(input, &escaped) ? escaped : input;
  if (text.size() > kMaxInputLength) return Verdict::kUnparsable;
  auto result = boost::urls::parse_uri(text);
  if (!result) return Verdict::kUnparsable;
  const boost::urls::url_view& url = *result;
  out->reserve(text.size() + 2);

  parsed->scheme = appendLowerCase(url.scheme(), out);
  const std::string scheme = *out;
  out->push_back(':');

  const bool needs_host = scheme == "http" || scheme == "https";
  const bool valid = !(needs_host && (!url.has_authority() || url.encoded_host().empty()));

  if (url.has_authority()) {
    out->append("//");
    if (url.has_userinfo()) {
      parsed->username = appendComponent(url.encoded_user(), out);
      if (url.has_password()) {
        out->push_back(':');
        parsed->password = appendComponent(url.encoded_password(), out);
      }
      out->push_back('@');
    }
    parsed->host = appendLowerCase(url.encoded_host(), out);
    if (url.has_port() && !url.port().empty()) {
      int port = 0;
      if (!parsePort(url.port(), &port)) return Verdict::kUnparsable;
      if (port != defaultPort(scheme)) {
        out->push_back(':');
        parsed->port = appendComponent(std::to_string(port), out);
      }
    }
  }

  const string_view path = url.encoded_path();
  // After an authority the path must be empty or start with "/". Boost.URL
  // 1.81 lets "http://h:80%41/" through with the path "%41/", which would
  // read back as part of the host.
  if (url.has_authority() && !path.empty() && path[0] != '/') return Verdict::kUnparsable;
  const int path_begin = static_cast<int>(out->size());
  if (path.empty() && url.has_authority()) {
    out->push_back('/');
  } else if (!path.empty() && path[0] == '/') {
    appendWithoutDotSegments(path, out);
    // Without an authority a path may not start with "//", or reading the URL
    // back would take the first segment for a host ("foo:/.//x").
    if (!url.has_authority() && out->compare(path_begin, 2, "//") == 0) {
      out->insert(path_begin, "/.");
    }
  } else {
    out->append(path.data(), path.size());
  }
  parsed->path = Component(path_begin, static_cast<int>(out->size()) - path_begin);

  if (url.has_query()) {
    out->push_back('?');
    parsed->query = appendComponent(url.encoded_query(), out);
  }
  if (url.has_fragment()) {
    out->push_back('#');
    parsed->ref = appendComponent(url.encoded_fragment(), out);
  }
  return valid ? Verdict::kValid : Verdict::kParsedInvalid;
}

}  // namespace

GURL::GURL() = default;

GURL::GURL(const std::string& url_string) {
  try {
    spec_ = url_string;
    if (url_string.size() > kMaxInputLength) return;
    std::string canonical;
    url_parse::Parsed parsed;
    const Verdict verdict = canonicalize(url_string, &canonical, &parsed);
    if (verdict == Verdict::kUnparsable) return;
    spec_.swap(canonical);
    parsed_ = parsed;
    is_valid_ = verdict == Verdict::kValid;
  } catch (const std::exception&) {
    // Only running out of memory gets here; the URL stays invalid. Boost.URL
    // itself reports bad text through its result, not by throwing.
  }
}

const std::string& GURL::spec() const {
  static const std::string* const kEmpty = new std::string();
  return is_valid_ ? spec_ : *kEmpty;
}

int GURL::IntPort() const {
  if (!parsed_.port.is_nonempty()) return -1;
  int port = 0;
  for (int i = parsed_.port.begin; i < parsed_.port.end(); ++i) port = port * 10 + (spec_[i] - '0');
  return port;
}

std::string GURL::componentString(const url_parse::Component& component) const {
  if (!component.is_valid()) return std::string();
  return spec_.substr(component.begin, component.len);
}

std::ostream& operator<<(std::ostream& out, const GURL& url) { return out << url.spec(); }
