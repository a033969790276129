// Time from setup() to `available` against a local content server: cold (no
// cached document, so a fetch, a save and a parse) and warm (a fresh cache).
#include <benchmark/benchmark.h>

#include <condition_variable>
#include <fstream>
#include <sstream>

#include "pactivo/consent_sdk.h"
#include "pactivo/user_default_manager.h"
#include "support/test_server.h"
#include "support/test_support.h"

namespace pactivo {
namespace {

using testing::exampleDocument;

void runSetups(benchmark::State& state, bool warm) {
  testing::ScopedPlatform scoped;
  testing::TestServer server;
  server.respond(200, exampleDocument(), "\"e\"");
  ConsentSDKOptions options("http://127.0.0.1:9/", server.baseUrl(), "t", "a", false,
                            LogLevel::error, 1800, std::nullopt, "en", std::nullopt,
                            WebViewConfig({}, std::nullopt));
  for (auto _ : state) {
    state.PauseTiming();
    if (!warm) {
      std::filesystem::remove(scoped.dataDirectory() / "tessarin-sdk-cdn.json");
      UserDefaultManager::clearETag();
    }
    auto sdk = std::make_unique<ConsentSDK>();
    std::mutex mutex;
    std::condition_variable ready;
    bool available = false;
    sdk->isReady([&](SDKStatus status) {
      std::lock_guard lock(mutex);
      available = status == SDKStatus::available;
      ready.notify_all();
    });
    state.ResumeTiming();
    sdk->setup(options);
    std::unique_lock lock(mutex);
    ready.wait(lock, [&] { return available; });
    lock.unlock();
    state.PauseTiming();
    sdk.reset();
    state.ResumeTiming();
  }
}

void BM_SetupToAvailableCold(benchmark::State& state) { runSetups(state, false); }
void BM_SetupToAvailableWarm(benchmark::State& state) { runSetups(state, true); }

BENCHMARK(BM_SetupToAvailableCold)
    ->Unit(benchmark::kMicrosecond)
    ->Iterations(50)
    ->Repetitions(5)
    ->ReportAggregatesOnly(true);
BENCHMARK(BM_SetupToAvailableWarm)
    ->Unit(benchmark::kMicrosecond)
    ->Iterations(50)
    ->Repetitions(5)
    ->ReportAggregatesOnly(true);

}  // namespace
}  // namespace pactivo
