#include "pactivo/platform.h"

#include <mutex>
#include <utility>

#include "pactivo/user_default_manager.h"
#include "persistence/preference_store.h"

namespace pactivo {
namespace detail {
// The running program's file name (linux_platform.cc).
std::string programName();
}  // namespace detail

namespace {

struct PlatformSlot {
  std::mutex mutex;
  std::shared_ptr<Platform> platform;  // guarded by mutex; null until first use
};

PlatformSlot& slot() {
  // Never destroyed, so that threads running during static destruction still
  // find a platform.
  static auto* instance = new PlatformSlot;
  return *instance;
}

}  // namespace

Platform::~Platform() = default;

std::optional<int> Platform::locationAuthorizationStatus() const { return std::nullopt; }
std::optional<int> Platform::cameraAuthorizationStatus() const { return std::nullopt; }
std::optional<int> Platform::microphoneAuthorizationStatus() const { return std::nullopt; }
std::optional<int> Platform::photoLibraryAuthorizationStatus() const { return std::nullopt; }
std::optional<int> Platform::photoLibraryAddOnlyAuthorizationStatus() const { return std::nullopt; }
std::optional<int> Platform::siriAuthorizationStatus() const { return std::nullopt; }
std::optional<int> Platform::healthDataAvailability() const { return std::nullopt; }
std::optional<int> Platform::bluetoothAuthorization() const { return std::nullopt; }
std::optional<int> Platform::speechRecognitionAuthorizationStatus() const { return std::nullopt; }
std::optional<int> Platform::homeKitAuthorizationStatus() const { return std::nullopt; }
void Platform::requestNotificationAuthorizationStatus(std::function<void(int)>) const {}
bool Platform::standardPreferenceBool(const std::string& key) const {
  // No companion UI keeps this flag here: the library stands in for it.
  return key == keys::kArePurposesChanged && !UserDefaultManager::getPendingPurposes().empty();
}
Platform::ConsentModeHandler Platform::consentModeHandler() const { return {}; }
std::unique_ptr<NetworkPathMonitor> Platform::makeNetworkPathMonitor() const { return nullptr; }
std::string Platform::applicationName() const { return detail::programName(); }
NetworkSettings Platform::networkSettings() const { return {}; }

NetworkPathMonitor::~NetworkPathMonitor() = default;

void installPlatform(std::shared_ptr<Platform> platform) {
  if (!platform) platform = std::make_shared<LinuxPlatform>();
  std::shared_ptr<Platform> previous;
  {
    std::lock_guard lock(slot().mutex);
    previous = std::exchange(slot().platform, std::move(platform));
  }
  // The suite lives in the platform's directory, so it follows the platform.
  detail::resetCurrentStore();
}

std::shared_ptr<Platform> currentPlatform() {
  std::lock_guard lock(slot().mutex);
  if (!slot().platform) slot().platform = std::make_shared<LinuxPlatform>();
  return slot().platform;
}

}  // namespace pactivo
