#include "pactivo/platform.h"

#include <mutex>
#include <utility>

#include "persistence/preference_store.h"

namespace pactivo {
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
