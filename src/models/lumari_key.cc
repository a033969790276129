#include "pactivo/lumari_key.h"

#include <array>

namespace pactivo {
namespace {

constexpr std::array<std::string_view, LumariKey::kFixedCaseCount> kRawValues = {
    "NSLocationWhenInUseUsageDescription",
    "NSLocationAlwaysUsageDescription",
    "NSLocationAlwaysAndWhenInUseUsageDescription",
    "NSCameraUsageDescription",
    "NSMicrophoneUsageDescription",
    "NSPhotoLibraryUsageDescription",
    "NSPhotoLibraryAddUsageDescription",
    "NSContactsUsageDescription",
    "NSCalendarsUsageDescription",
    "NSRemindersUsageDescription",
    "NSMotionUsageDescription",
    "NSHealthShareUsageDescription",
    "NSHealthUpdateUsageDescription",
    "NSBluetoothPeripheralUsageDescription",
    "NSBluetoothAlwaysUsageDescription",
    "NSSiriUsageDescription",
    "NSSpeechRecognitionUsageDescription",
    "NSHomeKitUsageDescription",
    "NSUserTrackingUsageDescription",
    "NSAppleMusicUsageDescription",
    "NSFaceIDUsageDescription",
    "NSCameraBroadcastUsageDescription",
    "NSMicrophoneBroadcastUsageDescription",
    "NSUserNotificationsUsageDescription",
    "NSLocalNetworkUsageDescription",
    "NSFileProviderDomainUsageDescription",
    "NSSystemExtensionUsageDescription",
    "NFCReaderUsageDescription",
};

}  // namespace

LumariKey::LumariKey(Case fixedCase) : case_(fixedCase) {}

LumariKey LumariKey::fromRawValue(std::string_view rawValue) {
  for (int i = 0; i < kFixedCaseCount; ++i) {
    if (kRawValues[i] == rawValue) return LumariKey(static_cast<Case>(i));
  }
  return LumariKey(custom, std::string(rawValue));
}

LumariKey LumariKey::makeCustom(std::string text) { return LumariKey(custom, std::move(text)); }

std::string_view LumariKey::rawValue() const {
  return case_ == custom ? std::string_view(custom_) : kRawValues[case_];
}

}  // namespace pactivo
