#ifndef URL_GURL_H_
#define URL_GURL_H_

#include <iosfwd>
#include <memory>
#include <string>

#include "url/url_parse.h"

// An absolute URL, checked and put in canonical form when it is built.
//
// Valid means: the text is an absolute RFC 3986 URI (a scheme, then the rest;
// every "%" followed by two hexadecimal digits once the bytes below are
// escaped), its port, if any, fits 16 bits, and an http or https URL has a
// non-empty host. Relative references such as "/rpc" are invalid.
//
// The canonical form lower-cases the scheme and the host, drops an empty port
// and the scheme's default one (80 for http, 443 for https), removes "." and
// ".." segments from a path that starts with "/", and gives a URL with an
// authority but no path the path "/". Bytes that may stand nowhere in a URI
// but that clients send anyway (blanks, controls, non-ASCII, " < > \ ^ ` { | },
// a "%" that starts no escape, brackets outside the authority) are
// percent-escaped. Everything else, escapes included, stays as it was written.
//
// An invalid URL keeps what could be made of it, so that its path and query
// still reach whoever asks:
// - an http(s) URL without a host has its canonical form and components;
// - a text with a scheme that cannot be parsed in full (a bad port or host, a
//   second "#") is split leniently at the first "//" authority, "?" and "#":
//   the path and query are canonicalised as above, the authority is kept as
//   written (after any userinfo it all stands as the host), and
//   possibly_invalid_spec() is the text so rebuilt;
// - anything else (no scheme, as "/rpc" or "a b") keeps the text as given and
//   has no components.
//
// Any text may be handed in, untrusted bytes included: construction takes
// linear time, never throws and never crashes; bad text gives an invalid URL.
//
// A value type whose text is shared between copies: copying is cheap. A const
// GURL may be read from several threads at once.
class GURL {
 public:
  // The empty URL, which is invalid.
  GURL();
  explicit GURL(const std::string& url_string);

  // The same URL as GURL(scheme + "://" + authority + target), built without
  // joining the three first where that is possible (an authority without "/",
  // "?" or "#", and a target that starts with a single "/"), so that a long
  // target costs one copy, not three.
  static GURL fromParts(const std::string& scheme, const std::string& authority,
                        const std::string& target);

  bool is_valid() const { return is_valid_; }
  // True for the URL made from "" (and the default one).
  bool is_empty() const { return possibly_invalid_spec().empty(); }

  // The canonical form; empty for an invalid URL.
  const std::string& spec() const;
  // The canonical form of a valid URL; for an invalid one, as said above.
  const std::string& possibly_invalid_spec() const;
  // Where the components lie in possibly_invalid_spec().
  const url_parse::Parsed& parsed_for_possibly_invalid_spec() const { return parsed_; }
  // The text behind possibly_invalid_spec(), for holders that must keep it
  // alive on their own (null for the empty URL).
  const std::shared_ptr<const std::string>& shared_spec() const { return spec_; }

  // A query is there when the URL has a "?", even with nothing after it.
  bool has_query() const { return parsed_.query.is_valid(); }
  bool has_path() const { return parsed_.path.is_valid(); }

  // The components' text, without their delimiters ("?" of the query, ":" of
  // the scheme); empty when absent.
  std::string scheme() const { return componentString(parsed_.scheme); }
  std::string host() const { return componentString(parsed_.host); }
  std::string path() const { return componentString(parsed_.path); }
  std::string query() const { return componentString(parsed_.query); }
  // The port written in the canonical form, or -1 when there is none (the
  // scheme's default port is dropped, so it gives -1 too).
  int IntPort() const;

 private:
  std::string componentString(const url_parse::Component& component) const;

  std::shared_ptr<const std::string> spec_;
  bool is_valid_ = false;
  url_parse::Parsed parsed_;
};

// Writes the canonical form (nothing for an invalid URL).
std::ostream& operator<<(std::ostream& out, const GURL& url);

#endif  // URL_GURL_H_
