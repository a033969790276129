// One consent evaluation as the check cycle runs it: checkPurposes() and
// checkPermissions() over a document with 1,000 purposes (some mapped to
// tracking) and all 28 permission keys, with every consent already stored.
#include <benchmark/benchmark.h>

#include "document_generator.h"
#include "pactivo/user_default_manager.h"
#include "permissions/permission_manager.h"
#include "persistence/preference_store.h"
#include "purposes/purpose_manager.h"
#include "support/test_support.h"

namespace pactivo {
namespace {

void BM_CheckPurposesAndPermissions(benchmark::State& state) {
  testing::ScopedPlatform scoped;
  testing::LogCapture quiet;
  SDKLogger::shared().setLogLevel(LogLevel::warning);
  for (const char* probe : {"cameraAuthorizationStatus", "microphoneAuthorizationStatus",
                            "locationAuthorizationStatus", "bluetoothAuthorization"}) {
    scoped.platform().setProbe(probe, 3);
  }
  const MainConfiguration config = bench::generateConfiguration(1000, 0);
  // A first pass stores every consent, as after the first check of a device.
  detail::PermissionManager(config.permissions, config.settingPrompt).checkPermissions();
  detail::PurposeManager(config.purposes, config.isATTEnabled, config.attConfig).checkPurposes();
  auto store = detail::currentStore();
  std::uint64_t operations = 0;
  for (auto _ : state) {
    std::uint64_t before = store->operationCount();
    detail::PermissionManager permissions(config.permissions, config.settingPrompt);
    benchmark::DoNotOptimize(permissions.checkPermissions());
    detail::PurposeManager purposes(config.purposes, config.isATTEnabled, config.attConfig);
    benchmark::DoNotOptimize(purposes.checkPurposes());
    operations += store->operationCount() - before;
  }
  state.counters["store_ops_per_check"] =
      static_cast<double>(operations) / static_cast<double>(state.iterations());
}
BENCHMARK(BM_CheckPurposesAndPermissions)
    ->Unit(benchmark::kMicrosecond)
    ->Repetitions(5)
    ->ReportAggregatesOnly(true);

}  // namespace
}  // namespace pactivo
