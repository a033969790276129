// The small enumerations shared by every part of Pactivo, and the raw-value
// conversions that give each its persisted and JSON text.
//
//   pactivo::rawValue(pactivo::ConsentStatus::withDrawn)          -> "withdrawn"
//   pactivo::fromRawValue<pactivo::ConsentStatus>("not_determined") -> notDetermined
//   pactivo::fromRawValue<pactivo::ConsentStatus>("withDrawn")      -> std::nullopt
//
// Conversions are exact and case-sensitive. All functions here are pure and
// may be called from any thread.
#ifndef PACTIVO_ENUMS_H_
#define PACTIVO_ENUMS_H_

#include <optional>
#include <string_view>

#include "pactivo/export.h"

namespace pactivo {

// The consent of one purpose or permission; also its persisted form.
enum class ConsentStatus { granted, declined, notDetermined, withDrawn };

// The compliance regime of a banner category.
enum class ComplianceType { noticeOnly, optIn, optOut };

// The four Google Consent Mode signals.
enum class GoogleConsentType { analyticsStorage, adStorage, adUserData, adPersonalization };

// Log severity, lowest first.
enum class LogLevel { debug, info, warning, error };

// Which configuration document is served: the published one or the draft.
enum class Mode { draft, live };

// Readiness of the library. The integer values are part of the interface.
enum class SDKStatus : int { available = 0, unavailable = 1, fetching = 2 };

// Where the companion UI places the banner.
enum class BannerPosition { bottom, center };

// Button style of the companion UI.
enum class ButtonShape { rounded, square, pill, outlined, edgeless };

// Display texts of a purpose's tracking authorization.
enum class PurposeStatus { authorized, denied, notDetermined };

// Platform authorization states of a device permission.
enum class PermissionStatus {
  authorized,
  authorizedAlways,
  authorizedWhenInUse,
  denied,
  restricted,
  notDetermined,
  unknown,
  provisional,
  limited,
  notAvailable,
  fullAccess,
  writeOnly,
  ephemeral,
};

// HTTP methods of the library's requests. The lower-case texts of the last
// three are what goes on the wire.
enum class HttpMethod { get, post, put, delete_, patch, head };

// The raw text of a string-backed enumeration value.
PACTIVO_EXPORT std::string_view rawValue(ConsentStatus value);
PACTIVO_EXPORT std::string_view rawValue(ComplianceType value);
PACTIVO_EXPORT std::string_view rawValue(GoogleConsentType value);
PACTIVO_EXPORT std::string_view rawValue(LogLevel value);
PACTIVO_EXPORT std::string_view rawValue(Mode value);
PACTIVO_EXPORT std::string_view rawValue(BannerPosition value);
PACTIVO_EXPORT std::string_view rawValue(ButtonShape value);
PACTIVO_EXPORT std::string_view rawValue(PurposeStatus value);
PACTIVO_EXPORT std::string_view rawValue(PermissionStatus value);
PACTIVO_EXPORT std::string_view rawValue(HttpMethod value);

// The value whose raw text is exactly `text`, or nullopt.
template <typename E>
std::optional<E> fromRawValue(std::string_view text);

template <>
PACTIVO_EXPORT std::optional<ConsentStatus> fromRawValue<ConsentStatus>(std::string_view);
template <>
PACTIVO_EXPORT std::optional<ComplianceType> fromRawValue<ComplianceType>(std::string_view);
template <>
PACTIVO_EXPORT std::optional<GoogleConsentType> fromRawValue<GoogleConsentType>(std::string_view);
template <>
PACTIVO_EXPORT std::optional<LogLevel> fromRawValue<LogLevel>(std::string_view);
template <>
PACTIVO_EXPORT std::optional<Mode> fromRawValue<Mode>(std::string_view);
template <>
PACTIVO_EXPORT std::optional<BannerPosition> fromRawValue<BannerPosition>(std::string_view);
template <>
PACTIVO_EXPORT std::optional<ButtonShape> fromRawValue<ButtonShape>(std::string_view);
template <>
PACTIVO_EXPORT std::optional<PurposeStatus> fromRawValue<PurposeStatus>(std::string_view);
template <>
PACTIVO_EXPORT std::optional<PermissionStatus> fromRawValue<PermissionStatus>(std::string_view);
template <>
PACTIVO_EXPORT std::optional<HttpMethod> fromRawValue<HttpMethod>(std::string_view);

// The readiness status for a raw integer; only 0, 1 and 2 are statuses.
PACTIVO_EXPORT std::optional<SDKStatus> sdkStatusFromRawValue(int value);

// The human text of a readiness status ("SDK CDN is ready to use!", ...).
PACTIVO_EXPORT std::string_view status(SDKStatus value);

// The fixed reduction of a platform authorization state to a consent.
PACTIVO_EXPORT ConsentStatus toConsentStatus(PermissionStatus value);

// Every Google consent type in declaration order.
inline constexpr GoogleConsentType kAllGoogleConsentTypes[] = {
    GoogleConsentType::analyticsStorage, GoogleConsentType::adStorage,
    GoogleConsentType::adUserData, GoogleConsentType::adPersonalization};

}  // namespace pactivo

#endif  // PACTIVO_ENUMS_H_
