// Request parsing speed on fixed requests, beside http-parser tokenising the
// same bytes. Ours produces complete request objects (headers map, URL, query
// components); http-parser only reports token boundaries to empty callbacks.
#include <benchmark/benchmark.h>
#include <http_parser.h>

#include <string>
#include <vector>

#include "bench/corpus.h"
#include "relay/http_request_parser.h"
#include "relay/strict_framing.h"

namespace {

using bench::chunked;

void setCounters(benchmark::State& state, const bench::CorpusInput& input) {
  state.SetItemsProcessed(state.iterations() * input.requests);
  state.SetBytesProcessed(state.iterations() * input.bytes.size());
  state.SetLabel(input.name);
}

// range(0): input; range(1): chunk size (0 = whole). Parser is either reader.
template <typename Parser>
void parseCorpus(benchmark::State& state) {
  const bench::CorpusInput input = bench::corpusInput(state.range(0));
  const std::vector<std::string> chunks = chunked(input.bytes, state.range(1));
  Parser parser;
  std::vector<vantu::relay::HttpRequestPtr> requests;
  for (auto _ : state) {
    for (const std::string& chunk : chunks) {
      if (!parser.parse(chunk, &requests)) state.SkipWithError("parse failed");
    }
    if (requests.size() != static_cast<size_t>(input.requests)) {
      state.SkipWithError("wrong request count");
    }
    // Query components are split on first use; a full request has them.
    for (const vantu::relay::HttpRequestPtr& request : requests) {
      benchmark::DoNotOptimize(request->query_components.size());
    }
    requests.clear();
  }
  setCounters(state, input);
}

void BM_RelayRequestParser(benchmark::State& state) {
  parseCorpus<vantu::relay::HttpRequestParser>(state);
}

// The strict reader on the same inputs: what strict framing costs per request.
void BM_StrictRequestParser(benchmark::State& state) {
  parseCorpus<vantu::relay::StrictRequestParser>(state);
}

// A 1 MiB chunked upload in 16 KiB chunks of the transfer coding, arriving in
// TCP-sized reads; range(0) is 0 for the strict reader, 1 for http-parser.
std::string chunkedUpload() {
  std::string upload = "PUT /upload HTTP/1.1\r\nHost: h\r\nTransfer-Encoding: chunked\r\n\r\n";
  const std::string data(16 << 10, 'x');
  for (int i = 0; i < 64; ++i) upload += "4000\r\n" + data + "\r\n";
  return upload + "0\r\n\r\n";
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

void BM_ChunkedUpload(benchmark::State& state) {
  const std::string upload = chunkedUpload();
  const std::vector<std::string> chunks = chunked(upload, 1460);
  http_parser_settings settings;
  http_parser_settings_init(&settings);
  settings.on_body = onData;
  settings.on_message_complete = onMessageComplete;
  for (auto _ : state) {
    if (state.range(0) == 0) {
      vantu::relay::StrictRequestParser parser;
      std::vector<vantu::relay::HttpRequestPtr> requests;
      for (const std::string& chunk : chunks) parser.parse(chunk, &requests);
      if (requests.size() != 1 || requests[0]->body.size() != (1u << 20)) {
        state.SkipWithError("upload not decoded");
      }
    } else {
      http_parser parser;
      http_parser_init(&parser, HTTP_REQUEST);
      int completed = 0;
      parser.data = &completed;
      for (const std::string& chunk : chunks) {
        http_parser_execute(&parser, &settings, chunk.data(), chunk.size());
      }
      if (completed != 1) state.SkipWithError("http-parser failed");
    }
  }
  state.SetBytesProcessed(state.iterations() * upload.size());
  state.SetLabel(state.range(0) == 0 ? "strict reader, body kept" : "http-parser, body skipped");
}

void inputsAndChunks(benchmark::internal::Benchmark* b) {
  for (int input = 0; input < bench::kCorpusInputs; ++input) {
    b->Args({input, 0});
    b->Args({input, 1460});
  }
}

BENCHMARK(BM_RelayRequestParser)->Apply(inputsAndChunks);
BENCHMARK(BM_StrictRequestParser)->Apply(inputsAndChunks);
BENCHMARK(BM_ChunkedUpload)->Arg(0)->Arg(1);
BENCHMARK(BM_HttpParserTokenise)->Apply(inputsAndChunks);

}  // namespace

BENCHMARK_MAIN();
