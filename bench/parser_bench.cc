// Request parsing speed on fixed requests, beside http-parser tokenising the
// same bytes. Ours produces complete request objects (headers map, URL, query
// components); http-parser only reports token boundaries to empty callbacks.
#include <benchmark/benchmark.h>
#include <http_parser.h>

#include <string>
#include <vector>

#include "bench/corpus.h"
#include "relay/http_request_parser.h"

namespace {

using bench::chunked;

void setCounters(benchmark::State& state, const bench::CorpusInput& input) {
  state.SetItemsProcessed(state.iterations() * input.requests);
  state.SetBytesProcessed(state.iterations() * input.bytes.size());
  state.SetLabel(input.name);
}

// range(0): input; range(1): chunk size (0 = whole).
void BM_RelayRequestParser(benchmark::State& state) {
  const bench::CorpusInput input = bench::corpusInput(state.range(0));
  const std::vector<std::string> chunks = chunked(input.bytes, state.range(1));
  vantu::relay::HttpRequestParser parser;
  std::vector<vantu::relay::HttpRequestPtr> requests;
  for (auto _ : state) {
    for (const std::string& chunk : chunks) {
      if (!parser.parse(chunk, &requests)) state.SkipWithError("parse failed");
    }
    if (requests.size() != static_cast<size_t>(input.requests)) {
      state.SkipWithError("wrong request count");
    }
    requests.clear();
  }
  setCounters(state, input);
}

int onMessageComplete(http_parser* parser) {
  ++*static_cast<int*>(parser->data);
  return 0;
}
int onData(http_parser*, const char*, size_t) { return 0; }
int onEvent(http_parser*) { return 0; }

void BM_HttpParserTokenise(benchmark::State& state) {
  const bench::CorpusInput input = bench::corpusInput(state.range(0));
  const std::vector<std::string> chunks = chunked(input.bytes, state.range(1));
  http_parser_settings settings;
  http_parser_settings_init(&settings);
  settings.on_message_begin = onEvent;
  settings.on_url = onData;
  settings.on_header_field = onData;
  settings.on_header_value = onData;
  settings.on_headers_complete = onEvent;
  settings.on_body = onData;
  settings.on_message_complete = onMessageComplete;
  http_parser parser;
  http_parser_init(&parser, HTTP_REQUEST);
  int completed = 0;
  parser.data = &completed;
  for (auto _ : state) {
    for (const std::string& chunk : chunks) {
      size_t used = http_parser_execute(&parser, &settings, chunk.data(), chunk.size());
      if (used != chunk.size()) state.SkipWithError("http-parser failed");
    }
    if (completed != input.requests) state.SkipWithError("wrong request count");
    completed = 0;
  }
  setCounters(state, input);
}

void inputsAndChunks(benchmark::internal::Benchmark* b) {
  for (int input = 0; input < bench::kCorpusInputs; ++input) {
    b->Args({input, 0});
    b->Args({input, 1460});
  }
}

BENCHMARK(BM_RelayRequestParser)->Apply(inputsAndChunks);
BENCHMARK(BM_HttpParserTokenise)->Apply(inputsAndChunks);

}  // namespace

BENCHMARK_MAIN();
