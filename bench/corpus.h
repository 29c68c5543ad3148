// The fixed requests that the parser benchmarks feed: a browser's GET, an RPC
// POST, and 32 pipelined GETs (all alike, or every URL distinct).
#ifndef BENCH_CORPUS_H_
#define BENCH_CORPUS_H_

#include <string>
#include <vector>

namespace bench {

struct CorpusInput {
  const char* name;
  std::string bytes;
  int requests;  // complete requests in `bytes`
};

constexpr int kCorpusInputs = 4;

// Input `which`, 0 to kCorpusInputs - 1, read from bench/data.
CorpusInput corpusInput(int which);

// `bytes` cut into pieces of `chunk` bytes (the last may be shorter); 0 means
// one piece.
std::vector<std::string> chunked(const std::string& bytes, size_t chunk);

}  // namespace bench

#endif  // BENCH_CORPUS_H_
