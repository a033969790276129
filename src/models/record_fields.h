// One table per record: each field's JSON key, member and rules. The JSON
// codec and the hashes are written once against these tables.
#ifndef PACTIVO_SRC_MODELS_RECORD_FIELDS_H_
#define PACTIVO_SRC_MODELS_RECORD_FIELDS_H_

#include <map>
#include <optional>
#include <string_view>
#include <tuple>
#include <type_traits>
#include <vector>

#include "pactivo/configuration.h"
#include "pactivo/consent_records.h"

namespace pactivo::detail {

enum FieldRule : unsigned {
  kOptional = 0,
  kRequired = 1,   // decoding fails when the key is missing or null
  kNotInJson = 2,  // neither decoded nor encoded
};

template <typename Record, typename Member>
struct Field {
  std::string_view key;
  Member Record::*member;
  unsigned rules;
};

template <typename Record, typename Member>
constexpr Field<Record, Member> field(std::string_view key, Member Record::*member,
                                      unsigned rules = kOptional) {
  return {key, member, rules};
}

// A member whose value is fixed by the record type: always encoded, never
// decoded (whatever a document holds under the key is ignored).
struct Constant {
  std::string_view key;
  std::string_view value;
};

constexpr Constant constant(std::string_view key, std::string_view value) { return {key, value}; }

template <typename Record>
struct RecordFields;

#define PACTIVO_FIELDS(Record, ...)                                       \
  template <>                                                             \
  struct RecordFields<Record> {                                           \
    static constexpr std::string_view name = #Record;                     \
    static constexpr auto list() { return std::make_tuple(__VA_ARGS__); } \
  }

PACTIVO_FIELDS(SDK, field("sdk_id", &SDK::sdkId), field("namespace_id", &SDK::namespaceId),
               field("sdk_name", &SDK::sdkName), field("sdk_description", &SDK::sdkDescription),
               field("vendor", &SDK::vendor), field("logo_base64", &SDK::logoBase64),
               field("website", &SDK::website), field("matched_by", &SDK::matchedBy),
               field("collecting_data", &SDK::collectingData),
               field("release_date", &SDK::releaseDate), field("license", &SDK::license));

PACTIVO_FIELDS(Purpose, field("purpose_id", &Purpose::purposeId),
               field("purpose_name", &Purpose::purposeName),
               field("purpose_description", &Purpose::purposeDescription),
               field("sdks", &Purpose::sdks), field("consent_status", &Purpose::consentStatus),
               field("disable_opt_out", &Purpose::disableOptOut),
               field("opt_out_text", &Purpose::optOutText),
               field("hide_details", &Purpose::hideDetails),
               field("", &Purpose::isATTMapped, kNotInJson),
               field("", &Purpose::attDescription, kNotInJson));

PACTIVO_FIELDS(AppPermission, field("id", &AppPermission::id), field("name", &AppPermission::name),
               field("permission_id", &AppPermission::permissionId),
               field("description", &AppPermission::description),
               field("group", &AppPermission::group), field("group_id", &AppPermission::groupId),
               field("consent_status", &AppPermission::consentStatus),
               field("nameI18N", &AppPermission::nameMap),
               field("", &AppPermission::isSettingsPromptEnabled, kNotInJson));

PACTIVO_FIELDS(SettingsPrompt, field("prompt_heading", &SettingsPrompt::promptHeading),
               field("prompt_message", &SettingsPrompt::promptMessage),
               field("settings_button_text", &SettingsPrompt::settingsButtonText),
               field("not_now_button_text", &SettingsPrompt::notNowButtonText),
               field("permissions", &SettingsPrompt::permissions));

PACTIVO_FIELDS(ATTConfig, field("show_info_on_pref_center", &ATTConfig::showInfoOnPrefCenter),
               field("purpose_ids", &ATTConfig::purposeIds),
               field("info_text", &ATTConfig::infoText));

PACTIVO_FIELDS(DefaultMapping, field("analytics_storage", &DefaultMapping::analyticsStorage),
               field("ad_storage", &DefaultMapping::adStorage),
               field("ad_user_data", &DefaultMapping::adUserData),
               field("ad_personalization", &DefaultMapping::adPersonalization));

PACTIVO_FIELDS(GcmConfig, field("show_gcm_description", &GcmConfig::showGcmDescription),
               field("gcm_description", &GcmConfig::gcmDescription),
               field("default_mapping", &GcmConfig::defaultMapping),
               field("region_overrides", &GcmConfig::regionOverrides));

PACTIVO_FIELDS(CustomColors, field("button_background", &CustomColors::buttonBackground, kRequired),
               field("button_text", &CustomColors::buttonText, kRequired),
               field("button_border", &CustomColors::buttonBorder, kRequired),
               field("banner_background", &CustomColors::bannerBackground, kRequired),
               field("banner_text", &CustomColors::bannerText, kRequired),
               field("banner_links", &CustomColors::bannerLinks, kRequired),
               field("preference_center_footer_background",
                     &CustomColors::preferenceCenterFooterBackground, kRequired),
               field("preference_center_footer_selector",
                     &CustomColors::preferenceCenterFooterSelector, kRequired),
               field("toggle_primary", &CustomColors::togglePrimarycolor),
               field("toggle_secondary", &CustomColors::toggleSecondarycolor),
               field("purpose_disclaimer_text", &CustomColors::purposeDisclaimerTextColor),
               field("purpose_disclaimer_background",
                     &CustomColors::purposeDisclaimerBackgroundColor));

PACTIVO_FIELDS(BannerConfig, field("hide_close_button", &BannerConfig::hideCloseButton),
               field("hide_accept_toggle", &BannerConfig::hideAcceptButton),
               field("embed_dsr_portal_link", &BannerConfig::embedDSRPortalLink),
               field("record_consent_upon_app_start", &BannerConfig::recordConsentUponAppStart),
               field("hide_toggle_for_essential_categories",
                     &BannerConfig::hideToggleForEssentialCategories),
               field("name", &BannerConfig::name),
               field("dsr_portal_link", &BannerConfig::dsrPortalLink),
               field("compliance_type", &BannerConfig::complianceType),
               field("banner_reappearance_time", &BannerConfig::bannerReappearanceTime),
               field("privacy_notice_link", &BannerConfig::privacyNoticeLink),
               field("accept", &BannerConfig::accept), field("reject", &BannerConfig::reject),
               field("banner_text", &BannerConfig::bannerText),
               field("banner_heading", &BannerConfig::bannerHeading),
               field("sdk_tab_heading", &BannerConfig::sdkTabHeading),
               field("privacy_notice_text", &BannerConfig::privacyNoticeText),
               field("preference_center_link", &BannerConfig::preferenceCenterLink),
               field("permissions_tab_heading", &BannerConfig::permissionsTabHeading),
               field("permissions_tab_guidance", &BannerConfig::permissionsTabGuidance),
               field("preference_center_heading", &BannerConfig::preferenceCenterHeading),
               field("preference_center_guidance", &BannerConfig::preferenceCenterGuidance),
               field("permissions_tab_description", &BannerConfig::permissionsTabDescription),
               field("preference_center_description", &BannerConfig::preferenceCenterDescription),
               field("show_powered_by_tessarin_logo", &BannerConfig::showPoweredByTessarinLogo),
               field("show_description_text_with_preference_center_toggle",
                     &BannerConfig::showDescriptionTextWithPrefCenterToggle),
               field("palette_theme", &BannerConfig::paletteTheme),
               field("banner_position", &BannerConfig::bannerPosition),
               field("button_shape", &BannerConfig::buttonShape),
               field("company_logo", &BannerConfig::companyLogo),
               field("palette", &BannerConfig::customPaletteTheme),
               field("should_show_settings_prompt", &BannerConfig::shouldShowSettingsPrompt),
               field("", &BannerConfig::translations, kNotInJson));

PACTIVO_FIELDS(ConsentBannerConfig,
               field("categories", &ConsentBannerConfig::categories, kRequired),
               field("names_map", &ConsentBannerConfig::namesMap, kRequired),
               field("locations", &ConsentBannerConfig::locations, kRequired));

PACTIVO_FIELDS(MainConfiguration, field("generated_on", &MainConfiguration::generatedOn),
               field("id", &MainConfiguration::id), field("name", &MainConfiguration::name),
               field("description", &MainConfiguration::description),
               field("tenant_id", &MainConfiguration::tenantId),
               field("platform", &MainConfiguration::platform),
               field("status", &MainConfiguration::status),
               field("version", &MainConfiguration::version),
               field("logo_base64", &MainConfiguration::logoBase64),
               field("x-auth-token", &MainConfiguration::token),
               field("sdk_version", &MainConfiguration::sdkVersion),
               field("purposes", &MainConfiguration::purposes),
               field("permissions", &MainConfiguration::permissions),
               field("banner_config", &MainConfiguration::bannerConfig),
               field("i18n", &MainConfiguration::translations),
               field("is_att_enabled", &MainConfiguration::isATTEnabled),
               field("att_or_gad_config", &MainConfiguration::attConfig),
               field("settings_prompt", &MainConfiguration::settingPrompt),
               field("re_consent_enabled", &MainConfiguration::reConsentEnabled),
               field("is_sp_enabled", &MainConfiguration::isSettingsPromptEnabled),
               field("is_gcm_enabled", &MainConfiguration::isGcmEnabled),
               field("gcm_config", &MainConfiguration::gcmConfig));

PACTIVO_FIELDS(PurposeConsent, field("purpose_id", &PurposeConsent::purposeID, kRequired),
               field("consent_status", &PurposeConsent::consentStatus, kRequired),
               field("timestamp", &PurposeConsent::timestamp, kRequired),
               field("is_essential", &PurposeConsent::isEssential, kRequired));

PACTIVO_FIELDS(PermissionConsent, field("permission", &PermissionConsent::permission, kRequired),
               field("consent_status", &PermissionConsent::consentStatus, kRequired),
               field("timestamp", &PermissionConsent::timestamp, kRequired));

PACTIVO_FIELDS(PostConsentsRequest, field("uuid", &PostConsentsRequest::uuid, kRequired),
               field("app_uuid", &PostConsentsRequest::appUUID, kRequired),
               constant("platform", PostConsentsRequest::platform),
               field("device", &PostConsentsRequest::device, kRequired),
               field("implicit_consent", &PostConsentsRequest::implicitConsent, kRequired),
               field("version", &PostConsentsRequest::version, kRequired),
               field("purpose_consents", &PostConsentsRequest::purposeConsents, kRequired),
               field("permissions", &PostConsentsRequest::permissions, kRequired),
               field("is_test_mode", &PostConsentsRequest::testingMode, kRequired),
               field("ad_id", &PostConsentsRequest::adId, kRequired),
               field("banner_info", &PostConsentsRequest::bannerInfo, kRequired),
               field("sdk_version", &PostConsentsRequest::sdkVersion));

PACTIVO_FIELDS(GenericResponse, field("status", &GenericResponse::status, kRequired),
               field("message", &GenericResponse::message, kRequired));

using LocationData = CurrentLocationResponse::Data;
PACTIVO_FIELDS(LocationData, field("City", &LocationData::city, kRequired),
               field("Continent", &LocationData::continent, kRequired),
               field("Country", &LocationData::country, kRequired),
               field("CountryISOCode", &LocationData::countryISOCode, kRequired),
               field("Language", &LocationData::language, kRequired),
               field("Location", &LocationData::location, kRequired),
               field("RegisteredCountry", &LocationData::registeredCountry, kRequired),
               field("State", &LocationData::state, kRequired),
               field("StateISOCode", &LocationData::stateISOCode, kRequired));

PACTIVO_FIELDS(CurrentLocationResponse,
               field("status", &CurrentLocationResponse::status, kRequired),
               field("message", &CurrentLocationResponse::message, kRequired),
               field("data", &CurrentLocationResponse::data));

#undef PACTIVO_FIELDS

// Shapes of member types, for the code written against the tables.
template <typename T>
struct IsOptional : std::false_type {};
template <typename T>
struct IsOptional<std::optional<T>> : std::true_type {};
template <typename T>
struct IsVector : std::false_type {};
template <typename T>
struct IsVector<std::vector<T>> : std::true_type {};
template <typename T>
struct IsMap : std::false_type {};
template <typename K, typename V>
struct IsMap<std::map<K, V>> : std::true_type {};
template <typename T, typename = void>
struct IsRecord : std::false_type {};
template <typename T>
struct IsRecord<T, std::void_t<decltype(RecordFields<T>::list())>> : std::true_type {};

}  // namespace pactivo::detail

#endif  // PACTIVO_SRC_MODELS_RECORD_FIELDS_H_
