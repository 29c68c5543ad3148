#include "url/url_parse.h"

namespace url_parse {

bool ExtractQueryKeyValue(const char* url, Component* query, Component* key, Component* value) {
  if (!query->is_nonempty()) return false;
  const int end = query->end();
  int cur = query->begin;

  key->begin = cur;
  while (cur < end && url[cur] != '&' && url[cur] != '=') ++cur;
  key->len = cur - key->begin;
  if (cur < end && url[cur] == '=') ++cur;

  value->begin = cur;
  while (cur < end && url[cur] != '&') ++cur;
  value->len = cur - value->begin;
  if (cur < end && url[cur] == '&') ++cur;

  *query = Component(cur, end - cur);
  return true;
}

}  // namespace url_parse
