// The configuration file cache: where the document lives on disk, how it is
// discarded, and how getCDNFile() chooses between the cache and a fetch.
#include <system_error>

#include "pactivo/logger.h"
#include "pactivo/platform.h"
#include "pactivo/user_default_manager.h"
#include "sdk/consent_sdk_impl.h"

namespace pactivo {
namespace {

constexpr const char* kCdnFileName = "tessarin-sdk-cdn.json";

}  // namespace

void ConsentSDK::Impl::removeCDNFile(const std::filesystem::path& file) {
  std::error_code ec;
  if (!std::filesystem::exists(file, ec)) return;
  if (std::filesystem::remove(file, ec)) {
    SDKLogger::shared().log("Existing file removed: file://" + file.string(), LogLevel::info,
                            "removeCDNFile(_:_:)");
  } else {
    SDKLogger::shared().log("Error removing existing file: " + ec.message(), LogLevel::info,
                            "removeCDNFile(_:_:)");
  }
}

void ConsentSDK::Impl::discardCachedConfiguration() {
  std::filesystem::path directory = currentPlatform()->applicationSupportDirectory();
  if (!directory.empty()) removeCDNFile(directory / kCdnFileName);
  UserDefaultManager::clearETag();
}

void ConsentSDK::Impl::getCDNFile() {
  // Fetching arrives with the network layer; until then no document is known.
  sdkListener->setIsReady(SDKStatus::unavailable);
}

}  // namespace pactivo
