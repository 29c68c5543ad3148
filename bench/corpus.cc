#include "bench/corpus.h"

#include <fstream>
#include <sstream>

namespace bench {
namespace {

std::string readData(const char* name) {
  std::ifstream file(std::string(HSL_BENCH_DATA) + "/" + name, std::ios::binary);
  std::stringstream bytes;
  bytes << file.rdbuf();
  return bytes.str();
}

}  // namespace

CorpusInput corpusInput(int which) {
  switch (which) {
    case 0:
      return {"browser_get", readData("browser_get.http"), 1};
    case 1:
      return {"rpc_post", readData("rpc_post.http"), 1};
    case 2: {
      std::string one = readData("browser_get.http");
      std::string all;
      for (int i = 0; i < 32; ++i) all += one;
      return {"browser_get_x32_pipelined", all, 32};
    }
    default: {
      // Every request names another URL, so nothing is served from the last
      // URL built: what a browser loading a page's resources looks like.
      std::string one = readData("browser_get.http");
      const size_t version = one.find("&v=2");
      std::string all;
      for (int i = 0; i < 32; ++i) {
        std::string distinct = one;
        distinct.replace(version, 4, "&v=" + std::to_string(100 + i));
        all += distinct;
      }
      return {"browser_get_x32_distinct_urls", all, 32};
    }
  }
}

std::vector<std::string> chunked(const std::string& bytes, size_t chunk) {
  std::vector<std::string> chunks;
  if (chunk == 0) chunk = bytes.size();
  for (size_t at = 0; at < bytes.size(); at += chunk) chunks.push_back(bytes.substr(at, chunk));
  return chunks;
}

}  // namespace bench
