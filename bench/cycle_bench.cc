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

// A content server with the example document, an application server that
// accepts every upload, and the fake platform and quiet log around them.
struct LocalDeployment {
  LocalDeployment() {
    cdn.respond(200, exampleDocument());
    app.respond(200, R"({"status": 0, "message": "ok"})");
  }
  ConsentSDKOptions options() const {
    return ConsentSDKOptions(app.baseUrl(), cdn.baseUrl(), "t", "a", false, LogLevel::error, 1800,
                             std::nullopt, "en", "DE", WebViewConfig({}, std::nullopt));
  }
  testing::ScopedPlatform scoped;
  testing::LogCapture quiet;
  testing::TestServer cdn;
  testing::TestServer app;
};

void BM_ConsentCheckWithUpload(benchmark::State& state) {
  LocalDeployment local;
  ConsentSDK sdk;
  sdk.setup(local.options());
  detail::ConsentSDKAccess::impl(sdk).waitUntilIdle();
  for (auto _ : state) {
    // Something to upload: the last upload "failed".
    UserDefaultManager::setBool(keys::kUploadConsentRequestPending, true);
    sdk.checkConsents();
  }
  state.counters["uploads"] = static_cast<double>(local.app.requestCount());
}
BENCHMARK(BM_ConsentCheckWithUpload)
    ->Unit(benchmark::kMicrosecond)
    ->Repetitions(5)
    ->ReportAggregatesOnly(true);

void BM_TeardownWithWorkInFlight(benchmark::State& state) {
  LocalDeployment local;
  testing::TestServer& cdn = local.cdn;
  testing::TestServer& app = local.app;
  for (auto _ : state) {
    state.PauseTiming();
    auto slow = [](const httplib::Request&, httplib::Response& response) {
      std::this_thread::sleep_for(std::chrono::milliseconds(1500));
      response.status = 503;
    };
    cdn.setHandler(slow);
    app.setHandler(slow);
    std::filesystem::remove(local.scoped.dataDirectory() / "tessarin-sdk-cdn.json");
    const std::size_t before = cdn.requestCount() + app.requestCount();
    auto sdk = std::make_unique<ConsentSDK>();
    sdk->setup(local.options());                                       // a fetch
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

// With the Linux platform, so that the real path monitor runs.
void BM_IdleThreads(benchmark::State& state) {
  LocalDeployment local;
  installPlatform(std::make_shared<LinuxPlatform>(
      LinuxPlatform::Settings{"bench", local.scoped.dataDirectory(), {}, {}}));
  const int before = threadCount();
  {
    ConsentSDK sdk;
    sdk.setup(local.options());
    detail::ConsentSDKAccess::impl(sdk).waitUntilIdle();
    for (auto _ : state) benchmark::DoNotOptimize(sdk.getStatus());
    // The timer (consent was recorded by the prefill) and the path monitor.
    state.counters["library_threads_idle"] = threadCount() - before;
  }
}
BENCHMARK(BM_IdleThreads)->Iterations(1);

}  // namespace
}  // namespace pactivo
