#ifndef BENCH_THREE_VARIANT_TABLE_H_
#define BENCH_THREE_VARIANT_TABLE_H_

// The side-by-side ending of a benchmark that serves one request three ways
// (benchmark argument 0, 1, 2): runs them, then prints each variant's median
// CPU time with its difference from the first.

#include <benchmark/benchmark.h>

#include <cstdio>
#include <cstdlib>
#include <map>
#include <vector>

#include "common/logging.h"

namespace vantu {
namespace bench {

// Keeps the medians' CPU times, by variant.
class MedianCollector : public benchmark::ConsoleReporter {
 public:
  void ReportRuns(const std::vector<Run>& runs) override {
    ConsoleReporter::ReportRuns(runs);
    for (const Run& run : runs) {
      if (run.error_occurred || run.aggregate_name != "median") continue;
      cpu_ns_[std::atoi(run.run_name.args.c_str())] = run.GetAdjustedCPUTime();
    }
  }
  const std::map<int, double>& cpuNs() const { return cpu_ns_; }

 private:
  std::map<int, double> cpu_ns_;
};

// main() of such a benchmark: `title` heads the table, `names` its columns.
inline int runThreeVariants(int argc, char** argv, const char* program, const char* title,
                            const char* const names[3]) {
  setLogSink([](const LogRecord&) {});
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 2;
  MedianCollector reporter;
  benchmark::RunSpecifiedBenchmarks(&reporter);
  benchmark::Shutdown();
  std::map<int, double> ns = reporter.cpuNs();
  if (ns.size() != 3) {
    std::fprintf(stderr, "%s: %zu of the 3 variants ran\n", program, ns.size());
    return 1;
  }
  std::printf("\n%s", title);
  std::printf("%-22s %-24s %-24s\n", names[0], names[1], names[2]);
  char cells[3][64];
  for (int i = 0; i < 3; ++i) {
    if (i == 0) {
      std::snprintf(cells[i], sizeof(cells[i]), "%.0f", ns[i]);
    } else {
      std::snprintf(cells[i], sizeof(cells[i]), "%.0f (%+.0f, %+.1f%%)", ns[i], ns[i] - ns[0],
                    100 * (ns[i] - ns[0]) / ns[0]);
    }
  }
  std::printf("%-22s %-24s %-24s\n", cells[0], cells[1], cells[2]);
  return 0;
}

}  // namespace bench
}  // namespace vantu

#endif  // BENCH_THREE_VARIANT_TABLE_H_
