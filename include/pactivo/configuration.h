// The configuration document: MainConfiguration and the records it holds.
//
// Plain value records with public fields. Every field that the document may
// omit is a std::optional; fields marked "not in JSON" are never decoded or
// encoded and are filled in memory by the code that evaluates consent.
// Decoding and encoding live in json.h.
//
// Threading: values; a record may be read from several threads at once and
// must not be written while it is read.
#ifndef PACTIVO_CONFIGURATION_H_
#define PACTIVO_CONFIGURATION_H_

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "pactivo/consent_records.h"
#include "pactivo/enums.h"
#include "pactivo/export.h"
#include "pactivo/localized_text.h"
#include "pactivo/lumari_key.h"

namespace pactivo {

// Translation tables of the document ("i18n"): interpreted only by the UI.
using Translations = std::map<std::string, std::optional<std::map<std::string, std::string>>>;

// One software kit tracked under a purpose.
struct PACTIVO_EXPORT SDK {
  std::optional<std::int64_t> sdkId;                  // "sdk_id"
  std::optional<std::string> namespaceId;             // "namespace_id"
  std::optional<LocalizedText> sdkName;               // "sdk_name"
  std::optional<LocalizedText> sdkDescription;        // "sdk_description"
  std::optional<std::string> vendor;                  // "vendor"
  std::optional<std::string> logoBase64;              // "logo_base64", passed through
  std::optional<std::string> website;                 // "website"
  std::optional<std::vector<std::string>> matchedBy;  // "matched_by"
  std::optional<bool> collectingData;                 // "collecting_data"
  std::optional<std::string> releaseDate;             // "release_date", passed through
  std::optional<std::string> license;                 // "license"

  bool operator==(const SDK&) const = default;
};

// One processing purpose. A purpose whose disableOptOut is true is essential.
struct PACTIVO_EXPORT Purpose {
  std::optional<std::int64_t> purposeId;            // "purpose_id"
  std::optional<LocalizedText> purposeName;         // "purpose_name"
  std::optional<LocalizedText> purposeDescription;  // "purpose_description"
  std::optional<std::vector<SDK>> sdks;             // "sdks"
  std::optional<ConsentStatus> consentStatus;       // "consent_status"
  std::optional<bool> disableOptOut;                // "disable_opt_out"
  std::optional<LocalizedText> optOutText;          // "opt_out_text"
  std::optional<bool> hideDetails;                  // "hide_details"
  std::optional<bool> isATTMapped;                  // not in JSON
  std::optional<LocalizedText> attDescription;      // not in JSON

  bool operator==(const Purpose&) const = default;
};

// One device permission the application declares.
struct PACTIVO_EXPORT AppPermission {
  std::optional<std::int64_t> id;               // "id"
  std::optional<std::string> name;              // "name"
  std::optional<LumariKey> permissionId;        // "permission_id"
  std::optional<LocalizedText> description;     // "description"
  std::optional<std::string> group;             // "group"
  std::optional<std::int64_t> groupId;          // "group_id"
  std::optional<ConsentStatus> consentStatus;   // "consent_status"
  std::optional<LocalizedText> nameMap;         // "nameI18N"
  std::optional<bool> isSettingsPromptEnabled;  // not in JSON

  bool operator==(const AppPermission&) const = default;
};

// Texts of the prompt that sends the user to the system settings, and which
// permissions offer it (keyed by LumariKey raw value).
struct PACTIVO_EXPORT SettingsPrompt {
  std::optional<LocalizedText> promptHeading;              // "prompt_heading"
  std::optional<LocalizedText> promptMessage;              // "prompt_message"
  std::optional<LocalizedText> settingsButtonText;         // "settings_button_text"
  std::optional<LocalizedText> notNowButtonText;           // "not_now_button_text"
  std::optional<std::map<std::string, bool>> permissions;  // "permissions"

  bool operator==(const SettingsPrompt&) const = default;
};

// App Tracking Transparency settings.
struct PACTIVO_EXPORT ATTConfig {
  std::optional<bool> showInfoOnPrefCenter;             // "show_info_on_pref_center"
  std::optional<std::vector<std::int64_t>> purposeIds;  // "purpose_ids"
  std::optional<LocalizedText> infoText;                // "info_text"

  bool operator==(const ATTConfig&) const = default;
};

// Which purposes feed each Google consent type.
struct PACTIVO_EXPORT DefaultMapping {
  std::optional<std::vector<std::int64_t>> analyticsStorage;   // "analytics_storage"
  std::optional<std::vector<std::int64_t>> adStorage;          // "ad_storage"
  std::optional<std::vector<std::int64_t>> adUserData;         // "ad_user_data"
  std::optional<std::vector<std::int64_t>> adPersonalization;  // "ad_personalization"

  bool operator==(const DefaultMapping&) const = default;
};

// Google Consent Mode settings.
struct PACTIVO_EXPORT GcmConfig {
  std::optional<bool> showGcmDescription;        // "show_gcm_description"
  std::optional<LocalizedText> gcmDescription;   // "gcm_description"
  std::optional<DefaultMapping> defaultMapping;  // "default_mapping"
  // Keyed by location code; a key may list several codes separated by ",".
  std::optional<std::map<std::string, DefaultMapping>> regionOverrides;  // "region_overrides"

  bool operator==(const GcmConfig&) const = default;
};

// A custom palette; the first eight colours are required.
struct PACTIVO_EXPORT CustomColors {
  std::string buttonBackground;                           // "button_background"
  std::string buttonText;                                 // "button_text"
  std::string buttonBorder;                               // "button_border"
  std::string bannerBackground;                           // "banner_background"
  std::string bannerText;                                 // "banner_text"
  std::string bannerLinks;                                // "banner_links"
  std::string preferenceCenterFooterBackground;           // "preference_center_footer_background"
  std::string preferenceCenterFooterSelector;             // "preference_center_footer_selector"
  std::optional<std::string> togglePrimarycolor;          // "toggle_primary"
  std::optional<std::string> toggleSecondarycolor;        // "toggle_secondary"
  std::optional<std::string> purposeDisclaimerTextColor;  // "purpose_disclaimer_text"
  std::optional<std::string> purposeDisclaimerBackgroundColor;  // "purpose_disclaimer_background"

  bool operator==(const CustomColors&) const = default;
};

// One banner category.
struct PACTIVO_EXPORT BannerConfig {
  std::optional<bool> hideCloseButton;                     // "hide_close_button"
  std::optional<bool> hideAcceptButton;                    // "hide_accept_toggle"
  std::optional<bool> embedDSRPortalLink;                  // "embed_dsr_portal_link"
  std::optional<bool> recordConsentUponAppStart;           // "record_consent_upon_app_start"
  std::optional<bool> hideToggleForEssentialCategories;    // "hide_toggle_for_essential_categories"
  std::optional<std::string> name;                         // "name"
  std::optional<std::string> dsrPortalLink;                // "dsr_portal_link"
  std::optional<ComplianceType> complianceType;            // "compliance_type"
  std::optional<std::string> bannerReappearanceTime;       // "banner_reappearance_time"
  std::optional<std::string> privacyNoticeLink;            // "privacy_notice_link"
  std::optional<LocalizedText> accept;                     // "accept"
  std::optional<LocalizedText> reject;                     // "reject"
  std::optional<LocalizedText> bannerText;                 // "banner_text"
  std::optional<LocalizedText> bannerHeading;              // "banner_heading"
  std::optional<LocalizedText> sdkTabHeading;              // "sdk_tab_heading"
  std::optional<LocalizedText> privacyNoticeText;          // "privacy_notice_text"
  std::optional<LocalizedText> preferenceCenterLink;       // "preference_center_link"
  std::optional<LocalizedText> permissionsTabHeading;      // "permissions_tab_heading"
  std::optional<LocalizedText> permissionsTabGuidance;     // "permissions_tab_guidance"
  std::optional<LocalizedText> preferenceCenterHeading;    // "preference_center_heading"
  std::optional<LocalizedText> preferenceCenterGuidance;   // "preference_center_guidance"
  std::optional<LocalizedText> permissionsTabDescription;  // "permissions_tab_description"
  std::optional<LocalizedText> preferenceCenterDescription;  // "preference_center_description"
  std::optional<bool> showPoweredByTessarinLogo;             // "show_powered_by_tessarin_logo"
  // "show_description_text_with_preference_center_toggle"
  std::optional<bool> showDescriptionTextWithPrefCenterToggle;
  std::optional<std::int64_t> paletteTheme;        // "palette_theme"
  std::optional<BannerPosition> bannerPosition;    // "banner_position"
  std::optional<ButtonShape> buttonShape;          // "button_shape"
  std::optional<std::string> companyLogo;          // "company_logo"
  std::optional<CustomColors> customPaletteTheme;  // "palette"
  std::optional<bool> shouldShowSettingsPrompt;    // "should_show_settings_prompt"
  // Not in JSON: the document's "i18n", set when the category is selected.
  std::optional<Translations> translations;

  bool operator==(const BannerConfig&) const = default;
};

// The banner categories and where each applies; all three are required.
struct PACTIVO_EXPORT ConsentBannerConfig {
  std::map<std::string, BannerConfig> categories;  // "categories"
  std::map<std::string, std::string> namesMap;     // "names_map"
  std::map<std::string, std::string> locations;    // "locations": location code -> category

  bool operator==(const ConsentBannerConfig&) const = default;
};

// The whole configuration document.
struct PACTIVO_EXPORT MainConfiguration {
  std::optional<std::int64_t> generatedOn;                // "generated_on"
  std::optional<std::string> id;                          // "id"
  std::optional<std::string> name;                        // "name"
  std::optional<std::string> description;                 // "description"
  std::optional<std::string> tenantId;                    // "tenant_id"
  std::optional<std::string> platform;                    // "platform"
  std::optional<std::string> status;                      // "status"
  std::optional<std::int64_t> version;                    // "version"
  std::optional<std::string> logoBase64;                  // "logo_base64"
  std::optional<std::string> token;                       // "x-auth-token"
  std::optional<std::string> sdkVersion;                  // "sdk_version"
  std::optional<std::vector<Purpose>> purposes;           // "purposes"
  std::optional<std::vector<AppPermission>> permissions;  // "permissions"
  std::optional<ConsentBannerConfig> bannerConfig;        // "banner_config"
  std::optional<Translations> translations;               // "i18n"
  std::optional<bool> isATTEnabled;                       // "is_att_enabled"
  std::optional<ATTConfig> attConfig;                     // "att_or_gad_config"
  std::optional<SettingsPrompt> settingPrompt;            // "settings_prompt"
  std::optional<bool> reConsentEnabled;                   // "re_consent_enabled"
  std::optional<bool> isSettingsPromptEnabled;            // "is_sp_enabled"
  std::optional<bool> isGcmEnabled;                       // "is_gcm_enabled"
  std::optional<GcmConfig> gcmConfig;                     // "gcm_config"

  bool operator==(const MainConfiguration&) const = default;
};

}  // namespace pactivo

// Hashes over every stored field, consistent with operator==.
#define PACTIVO_DECLARE_HASH(Type)                                     \
  template <>                                                          \
  struct PACTIVO_EXPORT std::hash<pactivo::Type> {                     \
    std::size_t operator()(const pactivo::Type& value) const noexcept; \
  };
PACTIVO_DECLARE_HASH(LocalizedText)
PACTIVO_DECLARE_HASH(SDK)
PACTIVO_DECLARE_HASH(Purpose)
PACTIVO_DECLARE_HASH(AppPermission)
PACTIVO_DECLARE_HASH(SettingsPrompt)
PACTIVO_DECLARE_HASH(ATTConfig)
PACTIVO_DECLARE_HASH(DefaultMapping)
PACTIVO_DECLARE_HASH(GcmConfig)
PACTIVO_DECLARE_HASH(CustomColors)
PACTIVO_DECLARE_HASH(BannerConfig)
PACTIVO_DECLARE_HASH(ConsentBannerConfig)
PACTIVO_DECLARE_HASH(MainConfiguration)
PACTIVO_DECLARE_HASH(PurposeConsent)
PACTIVO_DECLARE_HASH(PermissionConsent)
PACTIVO_DECLARE_HASH(PostConsentsRequest)
#undef PACTIVO_DECLARE_HASH

#endif  // PACTIVO_CONFIGURATION_H_
