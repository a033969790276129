// The state behind ConsentSDK, shared by the facade's source files (one per
// concern: setup and readiness, configuration cache, network calls, the check
// cycle, the public consent operations).
#ifndef PACTIVO_SRC_SDK_CONSENT_SDK_IMPL_H_
#define PACTIVO_SRC_SDK_CONSENT_SDK_IMPL_H_

#include <filesystem>
#include <memory>
#include <mutex>
#include <optional>

#include "pactivo/consent_sdk.h"
#include "pactivo/sdk_listener.h"
#include "sdk/task_runner.h"

namespace pactivo {

class ConsentSDK::Impl {
 public:
  Impl();
  ~Impl();

  void setup(const ConsentSDKOptions& options);
  void isReady(std::function<void(SDKStatus)> callback);
  void removeListeners();
  std::optional<ConsentSDKOptions> options() const;

  // Loads the configuration (fetch or cache) and moves readiness to
  // `available` or `unavailable`.
  void getCDNFile();

  // Deletes the cached configuration file and forgets its ETag, so the next
  // fetch is unconditional.
  static void discardCachedConfiguration();
  static void removeCDNFile(const std::filesystem::path& file);

  // Constant after construction.
  const std::shared_ptr<SDKListener> sdkListener = std::make_shared<SDKListener>();
  const std::shared_ptr<SDKListener> prevSdkListener = std::make_shared<SDKListener>();

 private:
  void runSetupTask();

  mutable std::mutex mutex_;
  // State below is guarded by mutex_.
  std::optional<ConsentSDKOptions> options_;
  SDKListener::Observation observer_;

  // Declared last: destroyed first, so no task outlives the state it uses.
  detail::TaskRunner tasks_;
};

}  // namespace pactivo

#endif  // PACTIVO_SRC_SDK_CONSENT_SDK_IMPL_H_
