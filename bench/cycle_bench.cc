// The check cycle against local servers: one consent check that uploads, the
// teardown of a facade with a fetch and an upload in flight, and the threads
// an idle facade keeps.
#include <benchmark/benchmark.h>

#include <fstream>
#include <sstream>
#include <thread>

#include "pactivo/consent_sdk.h"
#include "pactivo/user_default_manager.h"
#include "sdk/consent_sdk_access.h"
#include "sdk/consent_sdk_impl.h"
#include "support/test_server.h"
#include "support/test_support.h"

namespace pactivo {
namespace {

using testing::exampleDocument;

int threadCount() {
  int count = 0;
  for ([[maybe_unused]] const auto& entry :
       std::filesystem::directory_iterator("/proc/self/task")) {
    ++count;
  }
  return count;
}

ConsentSDKOptions options(const testing::TestServer& cdn, const testing::TestServer& app) {
  return ConsentSDKOptions(app.baseUrl(), cdn.baseUrl(), "t", "a", false, LogLevel::error, 1800,
                           std::nullopt, "en", "DE", WebViewConfig({}, std::nullopt));
}

void BM_ConsentCheckWithUpload(benchmark::State& state) {
  testing::ScopedPlatform scoped;
  testing::LogCapture quiet;
  testing::TestServer cdn;
  testing::TestServer app;
  cdn.respond(200, exampleDocument());
  app.respond(200, R"({"status": 0, "message": "ok"})");
  ConsentSDK sdk;
  sdk.setup(options(cdn, app));
  detail::ConsentSDKAccess::impl(sdk).waitUntilIdle();
  for (auto _ : state) {
    // Something to upload: the last upload "failed".
    UserDefaultManager::setBool(keys::kUploadConsentRequestPending, true);
    sdk.checkConsents();
  }
  state.counters["uploads"] = static_cast<double>(app.requestCount());
}
BENCHMARK(BM_ConsentCheckWithUpload)
    ->Unit(benchmark::kMicrosecond)
    ->Repetitions(5)
    ->ReportAggregatesOnly(true);

void BM_TeardownWithWorkInFlight(benchmark::State& state) {
  testing::ScopedPlatform scoped;
  testing::LogCapture quiet;
  testing::TestServer cdn;
  testing::TestServer app;
  cdn.respond(200, exampleDocument());
  app.respond(200, R"({"status": 0, "message": "ok"})");
  for (auto _ : state) {
    state.PauseTiming();
    auto slow = [](const httplib::Request&, httplib::Response& response) {
      std::this_thread::sleep_for(std::chrono::milliseconds(1500));
      response.status = 503;
    };
    cdn.setHandler(slow);
    app.setHandler(slow);
    std::filesystem::remove(scoped.dataDirectory() / "tessarin-sdk-cdn.json");
    const std::size_t before = cdn.requestCount() + app.requestCount();
    auto sdk = std::make_unique<ConsentSDK>();
    sdk->setup(options(cdn, app));                                     // a fetch
    sdk->uploadConsents(app.baseUrl(), PostConsentsRequest{}, [] {});  // an upload
    while (cdn.requestCount() + app.requestCount() < before + 2) {
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    state.ResumeTiming();
    sdk.reset();
  }
}
BENCHMARK(BM_TeardownWithWorkInFlight)
    ->Unit(benchmark::kMillisecond)
    ->Iterations(5)
    ->Repetitions(3)
    ->ReportAggregatesOnly(true);

void BM_IdleThreads(benchmark::State& state) {
  testing::ScopedPlatform scoped;
  testing::LogCapture quiet;
  testing::TestServer cdn;
  testing::TestServer app;
  cdn.respond(200, exampleDocument());
  app.respond(200, R"({"status": 0, "message": "ok"})");
  const int before = threadCount();
  ConsentSDK sdk;
  sdk.setup(options(cdn, app));
  auto& impl = detail::ConsentSDKAccess::impl(sdk);
  impl.waitUntilIdle();
  impl.startNetworkMonitoring();  // the platform's real monitor is a fake here: see counter note
  for (auto _ : state) benchmark::DoNotOptimize(sdk.getStatus());
  // Timer armed (consent was recorded) plus the monitor of the platform.
  state.counters["library_threads_idle"] = threadCount() - before;
}
BENCHMARK(BM_IdleThreads)->Iterations(1);

}  // namespace
}  // namespace pactivo
