#include "c_api/c_platform.h"

#include <cstring>
#include <map>

#include "pactivo/logger.h"

namespace pactivo::detail {
namespace {

std::string text(const char* value) { return value ? value : ""; }

LinuxPlatform::Settings settingsOf(const pactivo_platform& platform) {
  LinuxPlatform::Settings settings;
  settings.applicationName = text(platform.application_name);
  settings.dataDirectory = text(platform.data_directory);
  settings.network = NetworkSettings{text(platform.ca_file), text(platform.ca_directory),
                                     text(platform.client_certificate), text(platform.client_key),
                                     text(platform.proxy)};
  if (platform.info_dictionary) {
    for (std::size_t i = 0; i < platform.info_dictionary_count; ++i) {
      settings.infoDictionary.emplace_back(text(platform.info_dictionary[2 * i]),
                                           text(platform.info_dictionary[2 * i + 1]));
    }
  }
  if (pactivo_consent_mode_callback callback = platform.consent_mode) {
    void* userData = platform.user_data;
    settings.consentModeHandler = [callback,
                                   userData](const std::map<std::string, std::string>& s) {
      std::string json = "{";
      for (const auto& [key, value] : s) {
        if (json.size() > 1) json += ',';
        json += jsonQuote(key) + ':' + jsonQuote(value);
      }
      json += '}';
      callHost("consent mode callback", [&] { callback(json.c_str(), userData); });
    };
  }
  return settings;
}

}  // namespace

std::string jsonQuote(std::string_view value) {
  std::string out = "\"";
  for (unsigned char c : value) {
    if (c == '"' || c == '\\') {
      out += '\\';
      out += static_cast<char>(c);
    } else if (c < 0x20) {
      char escaped[8];
      std::snprintf(escaped, sizeof escaped, "\\u%04x", c);
      out += escaped;
    } else {
      out += static_cast<char>(c);
    }
  }
  return out + '"';
}

std::optional<pactivo_platform> readPlatformStruct(const pactivo_platform& given) {
  // The first release's members end with user_data; a host compiled against
  // it passes at least that much.
  constexpr std::size_t kFirstSize = offsetof(pactivo_platform, user_data) + sizeof(void*);
  if (given.size < kFirstSize) return std::nullopt;
  pactivo_platform copy;
  std::memset(&copy, 0, sizeof copy);
  std::memcpy(&copy, &given, std::min(given.size, sizeof copy));
  return copy;
}

CPlatform::CPlatform(const pactivo_platform& platform)
    : LinuxPlatform(settingsOf(platform)),
      advertisingIdentifier_(text(platform.advertising_identifier)),
      trackingStatus_(platform.tracking_status),
      permissionStatus_(platform.permission_status),
      userData_(platform.user_data) {
  if (platform.preferred_languages) {
    for (std::size_t i = 0; i < platform.preferred_language_count; ++i) {
      if (platform.preferred_languages[i]) languages_.emplace_back(platform.preferred_languages[i]);
    }
  }
  if (platform.device_name) deviceName_ = platform.device_name;
}

std::vector<std::string> CPlatform::preferredLanguages() const {
  return languages_.empty() ? LinuxPlatform::preferredLanguages() : languages_;
}

std::string CPlatform::deviceName() const {
  return deviceName_ ? *deviceName_ : LinuxPlatform::deviceName();
}

std::string CPlatform::advertisingIdentifier() const { return advertisingIdentifier_; }

int CPlatform::trackingAuthorizationStatus() const { return trackingStatus_; }

std::optional<int> CPlatform::probe(pactivo_facility facility) const {
  if (!permissionStatus_) return std::nullopt;
  int status = -1;
  callHost("permission callback", [&] { status = permissionStatus_(facility, userData_); });
  if (status < 0) return std::nullopt;
  return status;
}

std::optional<int> CPlatform::locationAuthorizationStatus() const {
  return probe(PACTIVO_FACILITY_LOCATION);
}
std::optional<int> CPlatform::cameraAuthorizationStatus() const {
  return probe(PACTIVO_FACILITY_CAMERA);
}
std::optional<int> CPlatform::microphoneAuthorizationStatus() const {
  return probe(PACTIVO_FACILITY_MICROPHONE);
}
std::optional<int> CPlatform::photoLibraryAuthorizationStatus() const {
  return probe(PACTIVO_FACILITY_PHOTO_LIBRARY);
}
std::optional<int> CPlatform::photoLibraryAddOnlyAuthorizationStatus() const {
  return probe(PACTIVO_FACILITY_PHOTO_LIBRARY_ADD);
}
std::optional<int> CPlatform::siriAuthorizationStatus() const {
  return probe(PACTIVO_FACILITY_SIRI);
}
std::optional<int> CPlatform::healthDataAvailability() const {
  return probe(PACTIVO_FACILITY_HEALTH);
}
std::optional<int> CPlatform::bluetoothAuthorization() const {
  return probe(PACTIVO_FACILITY_BLUETOOTH);
}
std::optional<int> CPlatform::speechRecognitionAuthorizationStatus() const {
  return probe(PACTIVO_FACILITY_SPEECH_RECOGNITION);
}
std::optional<int> CPlatform::homeKitAuthorizationStatus() const {
  return probe(PACTIVO_FACILITY_HOME_KIT);
}
void CPlatform::requestNotificationAuthorizationStatus(std::function<void(int)> completion) const {
  if (std::optional<int> status = probe(PACTIVO_FACILITY_NOTIFICATIONS)) completion(*status);
}

}  // namespace pactivo::detail
