// Decoding and encoding of configuration documents, against simdjson's own
// parse of the same bytes (the ceiling for any DOM-based decoder).
#include <benchmark/benchmark.h>
#include <simdjson.h>

#include <chrono>

#include "document_generator.h"
#include "pactivo/json.h"

namespace pactivo {
namespace {

// About 2 MB and about 20 KB.
const std::string& document(int size) {
  static const std::string large = encode(bench::generateConfiguration(300, 3));
  static const std::string small = encode(bench::generateConfiguration(3, 0));
  return size == 0 ? small : large;
}

void BM_SimdjsonParse(benchmark::State& state) {
  const std::string& json = document(state.range(0));
  simdjson::dom::parser parser;
  for (auto _ : state) {
    simdjson::dom::element root;
    if (parser.parse(json).get(root)) state.SkipWithError("parse failed");
    benchmark::DoNotOptimize(root);
  }
  state.SetBytesProcessed(state.iterations() * json.size());
  state.counters["bytes"] = static_cast<double>(json.size());
}

// The decoded document is freed outside the timed region: freeing is not
// decoding (it costs about a fifth as much again).
//
// Counter "of_simdjson" is decoding speed as a share of simdjson's own parse
// of the same bytes, both timed in this benchmark.
void BM_DecodeMainConfiguration(benchmark::State& state) {
  const std::string& json = document(state.range(0));
  using Clock = std::chrono::steady_clock;
  simdjson::dom::parser parser;
  constexpr int kParses = 50;
  auto parseStart = Clock::now();
  for (int i = 0; i < kParses; ++i) {
    simdjson::dom::element root;
    if (parser.parse(json).get(root)) state.SkipWithError("parse failed");
    benchmark::DoNotOptimize(root);
  }
  const double parseSeconds =
      std::chrono::duration<double>(Clock::now() - parseStart).count() / kParses;
  double decodeSeconds = 0;
  for (auto _ : state) {
    auto decodeStart = Clock::now();
    auto decoded = decode<MainConfiguration>(json);
    decodeSeconds += std::chrono::duration<double>(Clock::now() - decodeStart).count();
    if (!decoded.ok()) state.SkipWithError(decoded.error.c_str());
    benchmark::DoNotOptimize(decoded);
    state.PauseTiming();
    decoded = {};
    state.ResumeTiming();
  }
  state.SetBytesProcessed(state.iterations() * json.size());
  state.counters["of_simdjson"] = parseSeconds / (decodeSeconds / state.iterations());
}

void BM_EncodeMainConfiguration(benchmark::State& state) {
  const std::string& json = document(state.range(0));
  MainConfiguration config = *decode<MainConfiguration>(json).value;
  for (auto _ : state) benchmark::DoNotOptimize(encode(config));
  state.SetBytesProcessed(state.iterations() * json.size());
}

// Range 1 is the large document, 0 the small one.
BENCHMARK(BM_SimdjsonParse)->Arg(1)->Arg(0)->Repetitions(5)->ReportAggregatesOnly(true);
BENCHMARK(BM_DecodeMainConfiguration)->Arg(1)->Arg(0)->Repetitions(5)->ReportAggregatesOnly(true);
BENCHMARK(BM_EncodeMainConfiguration)->Arg(1)->Arg(0)->Repetitions(5)->ReportAggregatesOnly(true);

}  // namespace
}  // namespace pactivo
