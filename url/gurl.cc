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

inline bool isHex(unsigned char c) {
  return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'f') || (c >= 'A' && c <= 'F');
}

// What a byte is to escapeRange: kPlain bytes stand as they are; the others
// need a closer look.
enum ByteClass : unsigned char { kPlain, kNeverAllowed, kPercent, kBracket };

// Bytes that may stand nowhere in a URI: controls, blank, non-ASCII and
// " < > \ ^ ` { | }. Browsers and HTTP clients send them anyway.
struct ByteClasses {
  ByteClass of[256];
  ByteClasses() {
    for (int c = 0; c < 256; ++c) {
      const bool never = c <= 0x20 || c >= 0x7f || c == '"' || c == '<' || c == '>' || c == '\\' ||
                         c == '^' || c == '`' || c == '{' || c == '|' || c == '}';
      of[c] = never                    ? kNeverAllowed
              : c == '%'               ? kPercent
              : (c == '[' || c == ']') ? kBracket
                                       : kPlain;
    }
  }
};
const ByteClasses kByteClasses;

// Percent-escapes, from `from` on, what RFC 3986 forbids so that such URLs are
// read as clients mean them: the bytes above, a "%" that starts no escape (as
// "%25"), and "[" or "]" at or after `authority_end`. Returns false, writing
// nothing, when there is nothing to escape (the common case, which then costs
// one scan of a table and no copy).
bool escapeRange(const std::string& text, size_t from, size_t authority_end, std::string* out) {
  static const char kHex[] = "0123456789ABCDEF";
  const unsigned char* bytes = reinterpret_cast<const unsigned char*>(text.data());
  const size_t size = text.size();
  auto needsEscape = [bytes, size, authority_end](size_t i) {
    switch (kByteClasses.of[bytes[i]]) {
      case kPlain:
        return false;
      case kNeverAllowed:
        return true;
      case kPercent:
        return !(i + 2 < size && isHex(bytes[i + 1]) && isHex(bytes[i + 2]));
      case kBracket:
        return i >= authority_end;
    }
    return false;
  };
  size_t first = from;
  for (;;) {
    while (first < size && kByteClasses.of[bytes[first]] == kPlain) ++first;
    if (first == size) return false;
    if (needsEscape(first)) break;
    ++first;
  }
  out->reserve(size + 16);
  out->assign(text, 0, first);
  for (size_t i = first; i < size; ++i) {
    const unsigned char c = bytes[i];
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

// The whole text, escaped as above; the scheme is left alone (a bad one stays
// bad) and brackets are allowed inside the authority.
bool escapeForParsing(const std::string& text, std::string* out) {
  const size_t colon = text.find(':');
  if (colon == std::string::npos) return false;
  size_t authority_end = colon + 1;
  if (text.compare(colon + 1, 2, "//") == 0) {
    authority_end = text.find_first_of("/?#", colon + 3);
    if (authority_end == std::string::npos) authority_end = text.size();
  }
  return escapeRange(text, colon + 1, authority_end, out);
}

// The length of the scheme at the start of `text` (ALPHA *( ALPHA / DIGIT /
// "+" / "-" / "." ) before a ":"), or 0 when there is none.
size_t schemeLength(const std::string& text) {
  auto alpha = [](char c) { return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z'); };
  if (text.empty() || !alpha(text[0])) return 0;
  size_t i = 1;
  while (i < text.size() && (alpha(text[i]) || (text[i] >= '0' && text[i] <= '9') ||
                             text[i] == '+' || text[i] == '-' || text[i] == '.')) {
    ++i;
  }
  return i < text.size() && text[i] == ':' ? i : 0;
}

// A URL taken apart, as views into text that outlives the build.
struct Pieces {
  string_view scheme;
  bool has_authority = false;
  bool has_userinfo = false;
  string_view user;
  bool has_password = false;
  string_view password;
  string_view host;
  bool has_port = false;  // with digits: an empty port is as good as none
  string_view port;
  string_view path;
  bool has_query = false;
  string_view query;
  bool has_fragment = false;
  string_view fragment;
};

// The authority's pieces, from a url_view or an authority_view alike.
template <typename View>
void takeAuthority(const View& view, Pieces* p) {
  p->has_userinfo = view.has_userinfo();
  p->user = view.encoded_user();
  p->has_password = view.has_password();
  p->password = view.encoded_password();
  p->host = view.encoded_host();
  p->has_port = view.has_port() && !view.port().empty();
  p->port = view.port();
}

Pieces piecesOf(const boost::urls::url_view& url) {
  Pieces p;
  p.scheme = url.scheme();
  p.has_authority = url.has_authority();
  takeAuthority(url, &p);
  p.path = url.encoded_path();
  p.has_query = url.has_query();
  p.query = url.encoded_query();
  p.has_fragment = url.has_fragment();
  p.fragment = url.encoded_fragment();
  return p;
}

enum class Verdict { kUnparsable, kParsedInvalid, kValid };

// Writes the canonical form of `p` to `*out` and its components to `*parsed`.
// An http(s) URL without a host is kept with its components but is not valid.
Verdict build(const Pieces& p, std::string* out, url_parse::Parsed* parsed) {
  const size_t size = p.scheme.size() + p.user.size() + p.password.size() + p.host.size() +
                      p.port.size() + p.path.size() + p.query.size() + p.fragment.size() + 16;
  if (size > kMaxInputLength) return Verdict::kUnparsable;
  out->reserve(size);

  parsed->scheme = appendLowerCase(p.scheme, out);
  const std::string scheme = out->substr(parsed->scheme.begin, parsed->scheme.len);
  out->push_back(':');

  const bool needs_host = scheme == "http" || scheme == "https";
  const bool valid = !(needs_host && (!p.has_authority || p.host.empty()));

  if (p.has_authority) {
    out->append("//");
    if (p.has_userinfo) {
      parsed->username = appendComponent(p.user, out);
      if (p.has_password) {
        out->push_back(':');
        parsed->password = appendComponent(p.password, out);
      }
      out->push_back('@');
    }
    parsed->host = appendLowerCase(p.host, out);
    if (p.has_port) {
      int port = 0;
      if (!parsePort(p.port, &port)) return Verdict::kUnparsable;
      if (port != defaultPort(scheme)) {
        out->push_back(':');
        parsed->port = appendComponent(std::to_string(port), out);
      }
    }
  }

  const string_view path = p.path;
  // After an authority the path must be empty or start with "/". Boost.URL
  // 1.81 lets "http://h:80%41/" through with the path "%41/", which would
  // read back as part of the host.
  if (p.has_authority && !path.empty() && path[0] != '/') return Verdict::kUnparsable;
  const int path_begin = static_cast<int>(out->size());
  if (path.empty() && p.has_authority) {
    out->push_back('/');
  } else if (!path.empty() && path[0] == '/') {
    appendWithoutDotSegments(path, out);
    // Without an authority a path may not start with "//", or reading the URL
    // back would take the first segment for a host ("foo:/.//x").
    if (!p.has_authority && out->compare(path_begin, 2, "//") == 0) {
      out->insert(path_begin, "/.");
    }
  } else {
    out->append(path.data(), path.size());
  }
  parsed->path = Component(path_begin, static_cast<int>(out->size()) - path_begin);

  if (p.has_query) {
    out->push_back('?');
    parsed->query = appendComponent(p.query, out);
  }
  if (p.has_fragment) {
    out->push_back('#');
    parsed->ref = appendComponent(p.fragment, out);
  }
  return valid ? Verdict::kValid : Verdict::kParsedInvalid;
}

Verdict canonicalize(const std::string& input, std::string* out, url_parse::Parsed* parsed) {
  std::string escaped;
  const std::string& text = escapeForParsing(input, &escaped) ? escaped : input;
  if (text.size() > kMaxInputLength) return Verdict::kUnparsable;
  auto result = boost::urls::parse_uri(text);
  if (!result) return Verdict::kUnparsable;
  return build(piecesOf(*result), out, parsed);
}

// For a text with a scheme that the grammar refuses: splits it at the first
// "//" authority, "?" and "#" and canonicalises the path, query and fragment,
// keeping the authority as written. False when the text has no scheme.
bool splitLeniently(const std::string& input, std::string* out, url_parse::Parsed* parsed) {
  const size_t scheme_length = schemeLength(input);
  if (scheme_length == 0) return false;
  std::string escaped;
  const std::string& text = escapeForParsing(input, &escaped) ? escaped : input;
  const string_view all(text.data(), text.size());
  Pieces p;
  p.scheme = all.substr(0, scheme_length);
  size_t at = scheme_length + 1;
  if (all.substr(at, 2) == "//") {
    size_t end = text.find_first_of("/?#", at + 2);
    if (end == std::string::npos) end = text.size();
    string_view authority = all.substr(at + 2, end - at - 2);
    p.has_authority = true;
    const size_t last_at = authority.rfind('@');
    if (last_at != string_view::npos) {
      p.has_userinfo = true;
      p.user = authority.substr(0, last_at);
      authority = authority.substr(last_at + 1);
    }
    p.host = authority;
    at = end;
  }
  size_t end = text.find_first_of("?#", at);
  if (end == std::string::npos) end = text.size();
  p.path = all.substr(at, end - at);
  at = end;
  if (at < text.size() && text[at] == '?') {
    end = text.find('#', at);
    if (end == std::string::npos) end = text.size();
    p.has_query = true;
    p.query = all.substr(at + 1, end - at - 1);
    at = end;
  }
  if (at < text.size()) {
    p.has_fragment = true;
    p.fragment = all.substr(at + 1);
  }
  *parsed = url_parse::Parsed();
  out->clear();
  return build(p, out, parsed) != Verdict::kUnparsable;
}

}  // namespace

GURL::GURL() = default;

GURL::GURL(const std::string& url_string) {
  try {
    std::string spec;
    const Verdict verdict = canonicalize(url_string, &spec, &parsed_);
    if (verdict == Verdict::kUnparsable) {
      parsed_ = url_parse::Parsed();
      spec.clear();
      if (!splitLeniently(url_string, &spec, &parsed_)) {
        parsed_ = url_parse::Parsed();
        spec = url_string;
      }
    }
    is_valid_ = verdict == Verdict::kValid;
    spec_ = std::make_shared<const std::string>(std::move(spec));
  } catch (const std::exception&) {
    // Only running out of memory gets here; the URL stays empty and invalid.
    // Boost.URL itself reports bad text through its result, not by throwing.
    is_valid_ = false;
    parsed_ = url_parse::Parsed();
    spec_.reset();
  }
}

namespace {

// A target that starts with a single "/", once escaped: every byte left is a
// path, query or fragment character or one of their delimiters, so a scan
// for the first "?" and "#" splits it as the grammar would. Only a second "#"
// (inside the fragment) is not allowed. False when that is found.
bool splitEscapedTarget(const std::string& target, Pieces* p) {
  const string_view all(target.data(), target.size());
  size_t end = target.find_first_of("?#");
  if (end == std::string::npos) end = target.size();
  p->path = all.substr(0, end);
  if (end < target.size() && target[end] == '?') {
    const size_t hash = target.find('#', end + 1);
    const size_t query_end = hash == std::string::npos ? target.size() : hash;
    p->has_query = true;
    p->query = all.substr(end + 1, query_end - end - 1);
    end = query_end;
  }
  if (end < target.size()) {
    if (target.find('#', end + 1) != std::string::npos) return false;
    p->has_fragment = true;
    p->fragment = all.substr(end + 1);
  }
  return true;
}

// An authority of letters, digits, "-", ".", "_" and "~" (a reg-name or an
// IPv4 address), with an optional ":" and port digits: what nearly every
// Host header holds. False for anything else, which the grammar then reads.
bool splitPlainAuthority(const std::string& authority, Pieces* p) {
  size_t i = 0;
  for (; i < authority.size(); ++i) {
    const char c = authority[i];
    if (!((c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '-' ||
          c == '.' || c == '_' || c == '~')) {
      break;
    }
  }
  const string_view all(authority.data(), authority.size());
  p->host = all.substr(0, i);
  if (i == authority.size()) return true;
  if (authority[i] != ':') return false;
  for (size_t j = i + 1; j < authority.size(); ++j) {
    if (authority[j] < '0' || authority[j] > '9') return false;
  }
  p->has_port = i + 1 < authority.size();
  p->port = all.substr(i + 1);
  return true;
}

}  // namespace

GURL GURL::fromParts(const std::string& scheme, const std::string& authority,
                     const std::string& target) {
  // The joined text would end the authority at its first "/", "?" or "#", and
  // read a target starting with "//" as part of the path after it: only when
  // neither happens do the parts parse as they stand.
  if (authority.find_first_of("/?#") == std::string::npos && !target.empty() && target[0] == '/' &&
      target.compare(0, 2, "//") != 0) {
    try {
      std::string escaped_authority;
      const std::string& authority_text =
          escapeRange(authority, 0, authority.size(), &escaped_authority) ? escaped_authority
                                                                          : authority;
      std::string escaped_target;
      const std::string& target_text =
          escapeRange(target, 0, 0, &escaped_target) ? escaped_target : target;
      Pieces p;
      bool parsed = splitEscapedTarget(target_text, &p);
      if (parsed && !splitPlainAuthority(authority_text, &p)) {
        auto parsed_authority = boost::urls::parse_authority(authority_text);
        parsed = static_cast<bool>(parsed_authority);
        if (parsed) takeAuthority(*parsed_authority, &p);
      }
      if (parsed && schemeLength(scheme + ":") == scheme.size()) {
        p.scheme = scheme;
        p.has_authority = true;
        GURL url;
        std::string spec;
        const Verdict verdict = build(p, &spec, &url.parsed_);
        if (verdict != Verdict::kUnparsable) {
          url.is_valid_ = verdict == Verdict::kValid;
          url.spec_ = std::make_shared<const std::string>(std::move(spec));
          return url;
        }
      }
    } catch (const std::exception&) {
      // Out of memory: the joined way below decides.
    }
  }
  std::string joined;
  joined.reserve(scheme.size() + 3 + authority.size() + target.size());
  joined.append(scheme).append("://").append(authority).append(target);
  return GURL(joined);
}

const std::string& GURL::possibly_invalid_spec() const {
  static const std::string* const kEmpty = new std::string();
  return spec_ ? *spec_ : *kEmpty;
}

const std::string& GURL::spec() const {
  static const std::string* const kEmpty = new std::string();
  return is_valid_ ? *spec_ : *kEmpty;
}

int GURL::IntPort() const {
  if (!parsed_.port.is_nonempty()) return -1;
  const std::string& spec = *spec_;
  int port = 0;
  for (int i = parsed_.port.begin; i < parsed_.port.end(); ++i) port = port * 10 + (spec[i] - '0');
  return port;
}

std::string GURL::componentString(const url_parse::Component& component) const {
  if (!component.is_valid()) return std::string();
  return possibly_invalid_spec().substr(component.begin, component.len);
}

std::ostream& operator<<(std::ostream& out, const GURL& url) { return out << url.spec(); }
