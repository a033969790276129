// LumariKey: a tracked device permission, named by the usage-description key
// a host declares for it ("NSCameraUsageDescription"). 28 fixed keys plus
// `custom` for any other text. A value type; safe to share between threads.
#ifndef PACTIVO_LUMARI_KEY_H_
#define PACTIVO_LUMARI_KEY_H_

#include <cstddef>
#include <functional>
#include <string>
#include <string_view>

#include "pactivo/export.h"

namespace pactivo {

class PACTIVO_EXPORT LumariKey {
 public:
  // The fixed keys, in their fixed order (the order is the case index).
  enum Case : int {
    locationWhenInUseUsageDescription,
    locationAlwaysUsageDescription,
    locationAlwaysAndWhenInUseUsageDescription,
    cameraUsageDescription,
    microphoneUsageDescription,
    photoLibraryUsageDescription,
    photoLibraryAddUsageDescription,
    contactsUsageDescription,
    calendarsUsageDescription,
    remindersUsageDescription,
    motionUsageDescription,
    healthShareUsageDescription,
    healthUpdateUsageDescription,
    bluetoothPeripheralUsageDescription,
    bluetoothAlwaysUsageDescription,
    siriUsageDescription,
    speechRecognitionUsageDescription,
    homeKitUsageDescription,
    userTrackingUsageDescription,
    appleMusicUsageDescription,
    faceIDUsageDescription,
    cameraBroadcastUsageDescription,
    microphoneBroadcastUsageDescription,
    userNotificationsUsageDescription,
    localNetworkUsageDescription,
    fileProviderDomainUsageDescription,
    systemExtensionUsageDescription,
    nfcReaderUsageDescription,
    custom,
  };
  static constexpr int kFixedCaseCount = 28;

  // A fixed key.
  LumariKey(Case fixedCase);  // NOLINT(google-explicit-constructor): reads like the enum
  // The key for a raw text: the fixed key whose raw value matches exactly,
  // else `custom` carrying the text. Never fails.
  static LumariKey fromRawValue(std::string_view rawValue);
  // A custom key carrying `text`, even when it spells a fixed key.
  static LumariKey makeCustom(std::string text);

  Case kind() const { return case_; }
  // The case index: 0 to 27 for the fixed keys, 28 for custom.
  int caseIndex() const { return static_cast<int>(case_); }
  // The usage-description key, or the carried text of a custom key.
  std::string_view rawValue() const;
  const std::string& customText() const { return custom_; }

  bool operator==(const LumariKey& other) const {
    return case_ == other.case_ && (case_ != custom || custom_ == other.custom_);
  }

 private:
  LumariKey(Case fixedCase, std::string text) : case_(fixedCase), custom_(std::move(text)) {}

  Case case_;
  std::string custom_;  // only for `custom`
};

}  // namespace pactivo

template <>
struct std::hash<pactivo::LumariKey> {
  std::size_t operator()(const pactivo::LumariKey& key) const noexcept {
    std::size_t state = std::hash<int>{}(key.caseIndex());
    if (key.kind() == pactivo::LumariKey::custom) {
      state ^= std::hash<std::string>{}(key.customText()) + 0x9e3779b97f4a7c15ULL + (state << 6) +
               (state >> 2);
    }
    return state;
  }
};

#endif  // PACTIVO_LUMARI_KEY_H_
