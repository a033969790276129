// The consent upload and the application server's replies.
//
// Threading: values; safe to read from several threads at once.
#ifndef PACTIVO_CONSENT_RECORDS_H_
#define PACTIVO_CONSENT_RECORDS_H_

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "pactivo/enums.h"
#include "pactivo/export.h"
#include "pactivo/lumari_key.h"

namespace pactivo {

// One purpose's consent as uploaded. Times are whole seconds since 1970 UTC.
struct PACTIVO_EXPORT PurposeConsent {
  PurposeConsent() = default;
  PurposeConsent(std::int64_t purposeID, ConsentStatus consentStatus, std::int64_t timestamp,
                 bool isEssential)
      : purposeID(purposeID),
        consentStatus(consentStatus),
        timestamp(timestamp),
        isEssential(isEssential) {}

  std::int64_t purposeID = 0;                                  // "purpose_id"
  ConsentStatus consentStatus = ConsentStatus::notDetermined;  // "consent_status"
  std::int64_t timestamp = 0;                                  // "timestamp"
  bool isEssential = false;                                    // "is_essential"

  bool operator==(const PurposeConsent&) const = default;
};

// One permission's consent as uploaded.
struct PACTIVO_EXPORT PermissionConsent {
  PermissionConsent() = default;
  PermissionConsent(LumariKey permission, ConsentStatus consentStatus, std::int64_t timestamp)
      : permission(std::move(permission)), consentStatus(consentStatus), timestamp(timestamp) {}

  LumariKey permission = LumariKey::makeCustom("");            // "permission"
  ConsentStatus consentStatus = ConsentStatus::notDetermined;  // "consent_status"
  std::int64_t timestamp = 0;                                  // "timestamp"

  bool operator==(const PermissionConsent&) const = default;
};

// The body of a consent upload. Every field but sdkVersion is always encoded;
// "platform" is always "ios", the value the application server expects.
struct PACTIVO_EXPORT PostConsentsRequest {
  PostConsentsRequest() = default;
  // Sets sdkVersion to the library's version as the platform reports it.
  PostConsentsRequest(std::string uuid, std::string appUUID, std::string device,
                      bool implicitConsent, std::int64_t version,
                      std::vector<PurposeConsent> purposeConsents,
                      std::vector<PermissionConsent> permissions, bool testingMode,
                      std::string adId, std::string bannerInfo);

  // "platform": a constant of the type, always encoded, never decoded.
  static constexpr std::string_view platform = "ios";

  std::string uuid;                             // "uuid"
  std::string appUUID;                          // "app_uuid"
  std::string device;                           // "device"
  bool implicitConsent = false;                 // "implicit_consent"
  std::int64_t version = 0;                     // "version"
  std::vector<PurposeConsent> purposeConsents;  // "purpose_consents"
  std::vector<PermissionConsent> permissions;   // "permissions"
  bool testingMode = false;                     // "is_test_mode"
  std::string adId;                             // "ad_id"
  std::string bannerInfo;                       // "banner_info"
  std::optional<std::string> sdkVersion;        // "sdk_version", only when set

  bool operator==(const PostConsentsRequest&) const = default;
};

// The application server's plain reply.
struct PACTIVO_EXPORT GenericResponse {
  std::int64_t status = 0;  // "status": 0 success, 1 failure
  std::string message;      // "message"

  bool operator==(const GenericResponse&) const = default;
};

// The reply of the geo-location lookup.
struct PACTIVO_EXPORT CurrentLocationResponse {
  // Each map gives the value per language or per name; keys are capitalised.
  struct Data {
    std::map<std::string, std::string> city;               // "City"
    std::map<std::string, std::string> continent;          // "Continent"
    std::map<std::string, std::string> country;            // "Country"
    std::map<std::string, std::string> countryISOCode;     // "CountryISOCode"
    std::map<std::string, std::string> language;           // "Language"
    std::map<std::string, std::string> location;           // "Location"
    std::map<std::string, std::string> registeredCountry;  // "RegisteredCountry"
    std::map<std::string, std::string> state;              // "State"
    std::map<std::string, std::string> stateISOCode;       // "StateISOCode"

    bool operator==(const Data&) const = default;
  };

  std::int64_t status = 0;   // "status"
  std::string message;       // "message"
  std::optional<Data> data;  // "data"

  bool operator==(const CurrentLocationResponse&) const = default;
};

// The library's general error, carrying a message.
struct PACTIVO_EXPORT CustomError {
  static CustomError unexpected(std::string error) { return CustomError{std::move(error)}; }
  // The host's translation of the message, or the message itself.
  std::string localizedDescription() const;

  std::string error;
};

}  // namespace pactivo

#endif  // PACTIVO_CONSENT_RECORDS_H_
