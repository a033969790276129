#include <array>
#include <utility>

#include "pactivo/consent_changes.h"
#include "pactivo/enums.h"

namespace pactivo {
namespace {

template <typename E, std::size_t N>
using Table = std::array<std::pair<E, std::string_view>, N>;

constexpr Table<ConsentStatus, 4> kConsentStatus{{
    {ConsentStatus::granted, "granted"},
    {ConsentStatus::declined, "declined"},
    {ConsentStatus::notDetermined, "not_determined"},
    {ConsentStatus::withDrawn, "withdrawn"},
}};
constexpr Table<ConsentChangeCause, 6> kConsentChangeCause{{
    {ConsentChangeCause::currentState, "current_state"},
    {ConsentChangeCause::host, "host"},
    {ConsentChangeCause::checkCycle, "check_cycle"},
    {ConsentChangeCause::configuration, "configuration"},
    {ConsentChangeCause::removal, "removal"},
    {ConsentChangeCause::otherProcess, "other_process"},
}};
constexpr Table<ComplianceType, 3> kComplianceType{{
    {ComplianceType::noticeOnly, "notice-only"},
    {ComplianceType::optIn, "opt-in"},
    {ComplianceType::optOut, "opt-out"},
}};
constexpr Table<GoogleConsentType, 4> kGoogleConsentType{{
    {GoogleConsentType::analyticsStorage, "analytics_storage"},
    {GoogleConsentType::adStorage, "ad_storage"},
    {GoogleConsentType::adUserData, "ad_user_data"},
    {GoogleConsentType::adPersonalization, "ad_personalization"},
}};
constexpr Table<LogLevel, 4> kLogLevel{{
    {LogLevel::debug, "DEBUG"},
    {LogLevel::info, "INFO"},
    {LogLevel::warning, "WARNING"},
    {LogLevel::error, "ERROR"},
}};
constexpr Table<Mode, 2> kMode{{{Mode::draft, "draft"}, {Mode::live, "live"}}};
constexpr Table<BannerPosition, 2> kBannerPosition{{
    {BannerPosition::bottom, "bottom"},
    {BannerPosition::center, "center"},
}};
constexpr Table<ButtonShape, 5> kButtonShape{{
    {ButtonShape::rounded, "rounded"},
    {ButtonShape::square, "square"},
    {ButtonShape::pill, "pill"},
    {ButtonShape::outlined, "outlined"},
    {ButtonShape::edgeless, "edgeless"},
}};
constexpr Table<PurposeStatus, 3> kPurposeStatus{{
    {PurposeStatus::authorized, "Authorized"},
    {PurposeStatus::denied, "Denied"},
    {PurposeStatus::notDetermined, "Not Determined"},
}};
constexpr Table<PermissionStatus, 13> kPermissionStatus{{
    {PermissionStatus::authorized, "Authorized"},
    {PermissionStatus::authorizedAlways, "Always Authorized"},
    {PermissionStatus::authorizedWhenInUse, "Authorized When In Use"},
    {PermissionStatus::denied, "Denied"},
    {PermissionStatus::restricted, "Restricted"},
    {PermissionStatus::notDetermined, "Not Determined"},
    {PermissionStatus::unknown, "Unknown"},
    {PermissionStatus::provisional, "Provisional"},
    {PermissionStatus::limited, "Limited"},
    {PermissionStatus::notAvailable, "Not Available"},
    {PermissionStatus::fullAccess, "Full Access"},
    {PermissionStatus::writeOnly, "Write Only"},
    {PermissionStatus::ephemeral, "Ephemeral"},
}};
constexpr Table<HttpMethod, 6> kHttpMethod{{
    {HttpMethod::get, "GET"},
    {HttpMethod::post, "POST"},
    {HttpMethod::put, "PUT"},
    {HttpMethod::delete_, "delete"},
    {HttpMethod::patch, "patch"},
    {HttpMethod::head, "head"},
}};

template <typename E, std::size_t N>
std::string_view lookupText(const Table<E, N>& table, E value) {
  for (const auto& [candidate, text] : table) {
    if (candidate == value) return text;
  }
  return {};
}

template <typename E, std::size_t N>
std::optional<E> lookupValue(const Table<E, N>& table, std::string_view text) {
  for (const auto& [value, candidate] : table) {
    if (candidate == text) return value;
  }
  return std::nullopt;
}

}  // namespace

#define PACTIVO_RAW_VALUE(Type, table)                                       \
  std::string_view rawValue(Type value) { return lookupText(table, value); } \
  template <>                                                                \
  std::optional<Type> fromRawValue<Type>(std::string_view text) {            \
    return lookupValue(table, text);                                         \
  }

PACTIVO_RAW_VALUE(ConsentStatus, kConsentStatus)
PACTIVO_RAW_VALUE(ComplianceType, kComplianceType)
PACTIVO_RAW_VALUE(GoogleConsentType, kGoogleConsentType)
PACTIVO_RAW_VALUE(LogLevel, kLogLevel)
PACTIVO_RAW_VALUE(Mode, kMode)
PACTIVO_RAW_VALUE(BannerPosition, kBannerPosition)
PACTIVO_RAW_VALUE(ButtonShape, kButtonShape)
PACTIVO_RAW_VALUE(PurposeStatus, kPurposeStatus)
PACTIVO_RAW_VALUE(PermissionStatus, kPermissionStatus)
PACTIVO_RAW_VALUE(HttpMethod, kHttpMethod)

#undef PACTIVO_RAW_VALUE

std::string_view rawValue(ConsentChangeCause value) {
  return lookupText(kConsentChangeCause, value);
}

std::optional<SDKStatus> sdkStatusFromRawValue(int value) {
  if (value < 0 || value > 2) return std::nullopt;
  return static_cast<SDKStatus>(value);
}

std::string_view status(SDKStatus value) {
  switch (value) {
    case SDKStatus::available:
      return "SDK CDN is ready to use!";
    case SDKStatus::unavailable:
      return "SDK CDN is not available!";
    case SDKStatus::fetching:
      return "fetching SDK CDN...";
  }
  return "unexpected SDKStatus value";
}

ConsentStatus toConsentStatus(PermissionStatus value) {
  switch (value) {
    case PermissionStatus::authorized:
    case PermissionStatus::authorizedAlways:
    case PermissionStatus::authorizedWhenInUse:
    case PermissionStatus::provisional:
    case PermissionStatus::limited:
    case PermissionStatus::fullAccess:
    case PermissionStatus::writeOnly:
    case PermissionStatus::ephemeral:
      return ConsentStatus::granted;
    case PermissionStatus::denied:
    case PermissionStatus::restricted:
      return ConsentStatus::declined;
    case PermissionStatus::notDetermined:
    case PermissionStatus::unknown:
    case PermissionStatus::notAvailable:
      return ConsentStatus::notDetermined;
  }
  return ConsentStatus::notDetermined;
}

}  // namespace pactivo
