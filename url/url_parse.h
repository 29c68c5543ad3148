#ifndef URL_URL_PARSE_H_
#define URL_URL_PARSE_H_

namespace url_parse {

// A span of a URL's text: `len` bytes starting at offset `begin`. A length of
// -1 means the component is absent, which is not the same as present and empty
// ("http://h/a?" has a query of length 0; "http://h/a" has none).
//
// A plain value; copy it freely, from any thread.
struct Component {
  Component() = default;
  Component(int b, int l) : begin(b), len(l) {}

  // One past the last byte.
  int end() const { return begin + len; }
  // Present, possibly empty.
  bool is_valid() const { return len != -1; }
  // Present and at least one byte long.
  bool is_nonempty() const { return len > 0; }
  // Back to absent.
  void reset() {
    begin = 0;
    len = -1;
  }

  int begin = 0;
  int len = -1;
};

// Where each component of one URL's text lies. Offsets refer to the string the
// Parsed was made for (GURL::possibly_invalid_spec()). A plain value.
struct Parsed {
  Component scheme;
  Component username;
  Component password;
  Component host;
  Component port;
  Component path;
  Component query;
  Component ref;
};

// Takes the next key/value pair off the front of a query string. `*query`
// locates the unread part of the query inside `url`; on success `*key` and
// `*value` are set to the pair's spans in `url` and `*query` is advanced past
// the pair and the "&" after it. Returns false, touching nothing, once the
// query is empty or absent.
//
// Pairs are separated by "&", and a pair's key from its value by the pair's
// first "=" (later ones belong to the value). A pair without "=" has an empty
// value, and an empty piece ("a&&b") gives a pair with an empty key and value.
// Nothing is decoded.
bool ExtractQueryKeyValue(const char* url, Component* query, Component* key, Component* value);

}  // namespace url_parse

#endif  // URL_URL_PARSE_H_
