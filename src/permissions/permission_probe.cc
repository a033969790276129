// The platform probe behind PermissionManager::getConsentByPermission: one
// platform query per key, reduced to a consent.
#include <atomic>
#include <memory>

#include "pactivo/logger.h"
#include "pactivo/platform.h"
#include "permissions/permission_manager.h"

namespace pactivo::detail {
namespace {

// Location: 0 not determined, 1-2 refused, 3-4 granted.
ConsentStatus fromLocationStatus(std::optional<int> status) {
  if (!status) return ConsentStatus::notDetermined;
  switch (*status) {
    case 1:
    case 2:
      return ConsentStatus::declined;
    case 3:
    case 4:
      return ConsentStatus::granted;
    default:
      return ConsentStatus::notDetermined;
  }
}

// Camera, microphone, voice assistant, tracking: 1-2 refused, 3 granted.
ConsentStatus fromCaptureStatus(std::optional<int> status) {
  if (!status) return ConsentStatus::notDetermined;
  if (*status == 1 || *status == 2) return ConsentStatus::declined;
  if (*status == 3) return ConsentStatus::granted;
  return ConsentStatus::notDetermined;
}

// Photos: as capture, plus 4 (limited access) granted.
ConsentStatus fromPhotoStatus(std::optional<int> status) {
  if (status == 4) return ConsentStatus::granted;
  return fromCaptureStatus(status);
}

PermissionStatus healthStatus(const Platform& platform) {
  std::optional<int> available = platform.healthDataAvailability();
  if (!available || *available == 0) return PermissionStatus::unknown;
  return PermissionStatus::authorized;
}

// The platform's 1 (restricted) and 2 (denied) are read crosswise here; both
// reduce to `declined`.
PermissionStatus bluetoothStatus(const Platform& platform) {
  switch (platform.bluetoothAuthorization().value_or(0)) {
    case 1:
      return PermissionStatus::denied;
    case 2:
      return PermissionStatus::restricted;
    case 3:
      return PermissionStatus::authorizedAlways;
    default:
      return PermissionStatus::unknown;
  }
}

PermissionStatus speechStatus(const Platform& platform) {
  switch (platform.speechRecognitionAuthorizationStatus().value_or(0)) {
    case 1:
      return PermissionStatus::denied;
    case 2:
      return PermissionStatus::restricted;
    case 3:
      return PermissionStatus::authorized;
    default:
      return PermissionStatus::unknown;
  }
}

PermissionStatus homeKitStatus(const Platform& platform) {
  switch (platform.homeKitAuthorizationStatus().value_or(-1)) {
    case 0:
      return PermissionStatus::notDetermined;
    case 1:
      return PermissionStatus::restricted;
    case 2:
    case 5:
      return PermissionStatus::authorized;
    default:
      return PermissionStatus::unknown;
  }
}

// Asks without waiting: the answer is whatever has arrived when the request
// returns, which on a real platform is nearly always "not determined".
PermissionStatus notificationStatus(const Platform& platform) {
  auto cell = std::make_shared<std::atomic<PermissionStatus>>(PermissionStatus::notDetermined);
  platform.requestNotificationAuthorizationStatus([cell](int status) {
    static constexpr PermissionStatus kStatuses[] = {
        PermissionStatus::notDetermined, PermissionStatus::denied, PermissionStatus::authorized,
        PermissionStatus::provisional, PermissionStatus::ephemeral};
    cell->store(status >= 0 && status <= 4 ? kStatuses[status] : PermissionStatus::unknown);
  });
  return cell->load();
}

PermissionStatus declaredStatus(const Platform& platform, const std::string& infoKey,
                                bool locationTexts) {
  std::optional<std::string> text = platform.infoDictionaryString(infoKey);
  if (!text) return PermissionStatus::notAvailable;
  if (text->empty()) return PermissionStatus::notDetermined;
  for (PermissionStatus status :
       {PermissionStatus::authorized, PermissionStatus::denied, PermissionStatus::restricted}) {
    if (*text == rawValue(status)) return status;
  }
  if (locationTexts) {
    for (PermissionStatus status :
         {PermissionStatus::authorizedAlways, PermissionStatus::authorizedWhenInUse}) {
      if (*text == rawValue(status)) return status;
    }
  }
  return PermissionStatus::unknown;
}

ConsentStatus probe(const Platform& platform, const LumariKey& key) {
  switch (key.kind()) {
    case LumariKey::locationWhenInUseUsageDescription:
    case LumariKey::locationAlwaysUsageDescription:
    case LumariKey::locationAlwaysAndWhenInUseUsageDescription:
      return fromLocationStatus(platform.locationAuthorizationStatus());
    case LumariKey::cameraUsageDescription:
    case LumariKey::cameraBroadcastUsageDescription:
      return fromCaptureStatus(platform.cameraAuthorizationStatus());
    case LumariKey::microphoneUsageDescription:
    case LumariKey::microphoneBroadcastUsageDescription:
      return fromCaptureStatus(platform.microphoneAuthorizationStatus());
    case LumariKey::photoLibraryUsageDescription:
      return fromPhotoStatus(platform.photoLibraryAuthorizationStatus());
    case LumariKey::photoLibraryAddUsageDescription:
      return fromPhotoStatus(platform.photoLibraryAddOnlyAuthorizationStatus());
    case LumariKey::siriUsageDescription:
      return fromCaptureStatus(platform.siriAuthorizationStatus());
    case LumariKey::userTrackingUsageDescription:
      return fromCaptureStatus(platform.trackingAuthorizationStatus());
    case LumariKey::healthShareUsageDescription:
    case LumariKey::healthUpdateUsageDescription:
      return toConsentStatus(healthStatus(platform));
    case LumariKey::bluetoothPeripheralUsageDescription:
    case LumariKey::bluetoothAlwaysUsageDescription:
      return toConsentStatus(bluetoothStatus(platform));
    case LumariKey::speechRecognitionUsageDescription:
      return toConsentStatus(speechStatus(platform));
    case LumariKey::homeKitUsageDescription:
      return toConsentStatus(homeKitStatus(platform));
    case LumariKey::userNotificationsUsageDescription:
      return toConsentStatus(notificationStatus(platform));
    case LumariKey::localNetworkUsageDescription:
      return toConsentStatus(declaredStatus(platform, "NSLocalNetworkUsageDescription", true));
    case LumariKey::fileProviderDomainUsageDescription:
      return toConsentStatus(
          declaredStatus(platform, "NSFileProviderDomainUsageDescription", false));
    case LumariKey::systemExtensionUsageDescription:
      // The extension's declaration lives under this key, not the case's own.
      return toConsentStatus(declaredStatus(platform, "NSExtensionUsageDescription", false));
    case LumariKey::contactsUsageDescription:
    case LumariKey::calendarsUsageDescription:
    case LumariKey::remindersUsageDescription:
    case LumariKey::motionUsageDescription:
    case LumariKey::appleMusicUsageDescription:
    case LumariKey::faceIDUsageDescription:
    case LumariKey::nfcReaderUsageDescription:
    case LumariKey::custom:
      break;
  }
  return ConsentStatus::notDetermined;
}

}  // namespace

ConsentStatus PermissionManager::getConsentByPermission(const LumariKey& key) {
  try {
    return probe(*currentPlatform(), key);
  } catch (const std::exception& error) {
    SDKLogger::shared().log(
        std::string("Something went wrong while fetching the permission status: ") + error.what(),
        LogLevel::error, "getConsentByPermission(lumiriKey:)");
  } catch (...) {
    SDKLogger::shared().log(
        "Something went wrong while fetching the permission status: unknown error", LogLevel::error,
        "getConsentByPermission(lumiriKey:)");
  }
  return ConsentStatus::notDetermined;
}

}  // namespace pactivo::detail
