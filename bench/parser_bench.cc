// Request parsing speed on fixed requests, beside http-parser tokenising the
// same bytes. Ours produces complete request objects (headers map, URL, query
// components); http-parser only reports token boundaries to empty callbacks.
#include <benchmark/benchmark.h>
#include <http_parser.h>

#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "relay/http_request_parser.h"
#include "relay/strict_framing.h"

namespace {

std::string readData(const char* name) {
  std::ifstream file(std::string(HSL_BENCH_DATA) + "/" + name, std::ios::binary);
  std::stringstream bytes;
  bytes << file.rdbuf();
  return bytes.str();
}

struct Input {
  std::string bytes;
  int requests;
};

Input makeInput(int which) {
  switch (which) {
    case 0:
      return {readData("browser_get.http"), 1};
    case 1:
      return {readData("rpc_post.http"), 1};
    case 2: {
      std::string one = readData("browser_get.http");
      std::string all;
      for (int i = 0; i < 32; ++i) all += one;
      return {all, 32};
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
      return {all, 32};
    }
  }
}

const char* const kInputNames[] = {"browser_get", "rpc_post", "browser_get_x32_pipelined",
                                   "browser_get_x32_distinct_urls"};

std::vector<std::string> chunked(const std::string& bytes, size_t chunk) {
  std::vector<std::string> chunks;
  if (chunk == 0) chunk = bytes.size();
  for (size_t at = 0; at < bytes.size(); at += chunk) chunks.push_back(bytes.substr(at, chunk));
  return chunks;
}

void setCounters(benchmark::State& state, const Input& input) {
  state.SetItemsProcessed(state.iterations() * input.requests);
  state.SetBytesProcessed(state.iterations() * input.bytes.size());
  state.SetLabel(kInputNames[state.range(0)]);
}

// range(0): input; range(1): chunk size (0 = whole).
void BM_RelayRequestParser(benchmark::State& state) {
  const Input input = makeInput(state.range(0));
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

// The strict reader on the same inputs: what strict framing costs per request.
void BM_StrictRequestParser(benchmark::State& state) {
  const Input input = makeInput(state.range(0));
  const std::vector<std::string> chunks = chunked(input.bytes, state.range(1));
  vantu::relay::StrictRequestParser parser;
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
  const Input input = makeInput(state.range(0));
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
  for (int input = 0; input < 4; ++input) {
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
