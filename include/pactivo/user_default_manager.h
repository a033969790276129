// UserDefaultManager: the preference suite "tessarin-cmp-sdk", where all
// consent state lives between runs.
//
// The suite is one SQLite database ("tessarin-cmp-sdk.sqlite") in the
// platform's application-support directory. Values keep their type (string,
// bool, integer, date, array of integers or strings); typed reads fall back to
// their default when a key is absent or holds another type. Every write is
// committed before the call returns, so it survives the process being killed
// right after.
//
// Threading: every operation may be called from any thread, and two
// processes of the same host may use one suite at once. There is no ordering
// between operations beyond that: the last writer wins, and a pending-list
// add racing another add may lose one entry.
//
// A suite that cannot be created or opened (a read-only or missing data
// directory) is logged once at error as "Could not create or access
// UserDefaults suite: tessarin-cmp-sdk"; the library then runs with nothing
// stored: reads give their defaults, writes do nothing, ConsentSDK stays
// unavailable. A file that is not a usable database is moved aside and
// replaced by a new suite. Another process holding the file for a moment is
// waited out (up to five seconds), not taken for a failure.
#ifndef PACTIVO_USER_DEFAULT_MANAGER_H_
#define PACTIVO_USER_DEFAULT_MANAGER_H_

#include <array>
#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

#include "pactivo/enums.h"
#include "pactivo/export.h"
#include "pactivo/lumari_key.h"

namespace pactivo {

// The persisted keys. Their texts are the persisted format.
namespace keys {
inline constexpr std::string_view kSubjectId = "SUBJECT_ID";
inline constexpr std::string_view kConsentGivenType = "CONSENT_GIVEN_TYPE";
inline constexpr std::string_view kArePurposesChanged = "ARE_PURPOSES_CHANGED";
inline constexpr std::string_view kPurposesChangeTimestamp = "PURPOSES_CHANGE_TIMESTAMP";
inline constexpr std::string_view kArePermissionsChanged = "ARE_PERMISSIONS_CHANGED";
inline constexpr std::string_view kPermissionsChangeTimestamp = "PERMISSIONS_CHANGE_TIMESTAMP";
inline constexpr std::string_view kPendingPurposesList = "PENDING_PURPOSES_LIST";
inline constexpr std::string_view kPendingPermissionsList = "PENDING_PERMISSIONS_LIST";
inline constexpr std::string_view kUploadConsentRequestPending = "UPLOAD_CONSENT_REQUEST_PENDING";
inline constexpr std::string_view kCurrentComplianceType = "CURRENT_COMPLIANCE_TYPE";
inline constexpr std::string_view kBannerInterval = "BANNER_INTERVAL";
inline constexpr std::string_view kIsBannerPresent = "IS_BANNER_PRESENT";
inline constexpr std::string_view kLastModeUsed = "LAST_MODE_USED";
inline constexpr std::string_view kLanguageCode = "LANGUAGECODE";
inline constexpr std::string_view kCdnCachedTimestamp = "CDN_CACHED_TIMESTAMP";
inline constexpr std::string_view kCdnFileLocation = "CDN_FILE_LOCATION";
inline constexpr std::string_view kEtag = "Etag";
inline constexpr std::string_view kXAuthToken = "X_AUTH_TOKEN";
inline constexpr std::string_view kSdkVersion = "SDK_VERSION";
inline constexpr std::string_view kIsAttEnabled = "IS_ATT_ENABLED";
inline constexpr std::string_view kIsSettingsPromptEnabled = "IS_SETTINGS_PROMPT_ENABLED";
inline constexpr std::string_view kCurrentLocation = "curr_location";
inline constexpr std::string_view kCurrentCountryCode = "curr_countryCode";
inline constexpr std::string_view kCurrentLocationTimestamp = "curr_location_timestamp";

// Every key above. A stored text under any other key is a consent: a purpose
// id or a permission's raw value.
inline constexpr std::array kLibraryKeys = {
    kSubjectId,
    kConsentGivenType,
    kArePurposesChanged,
    kPurposesChangeTimestamp,
    kArePermissionsChanged,
    kPermissionsChangeTimestamp,
    kPendingPurposesList,
    kPendingPermissionsList,
    kUploadConsentRequestPending,
    kCurrentComplianceType,
    kBannerInterval,
    kIsBannerPresent,
    kLastModeUsed,
    kLanguageCode,
    kCdnCachedTimestamp,
    kCdnFileLocation,
    kEtag,
    kXAuthToken,
    kSdkVersion,
    kIsAttEnabled,
    kIsSettingsPromptEnabled,
    kCurrentLocation,
    kCurrentCountryCode,
    kCurrentLocationTimestamp,
};
}  // namespace keys

// The values of "CONSENT_GIVEN_TYPE".
inline constexpr std::string_view kConsentNoAction = "CONSENT_NO_ACTION";
inline constexpr std::string_view kConsentExplicit = "CONSENT_EXPLICIT";
inline constexpr std::string_view kConsentImplicit = "CONSENT_IMPLICIT";

// The name of the suite.
inline constexpr std::string_view kPreferenceSuiteName = "tessarin-cmp-sdk";

// A stored value with its type, as `allEntries()` reports it.
using PreferenceArrayElement = std::variant<std::int64_t, std::string>;
using PreferenceValue =
    std::variant<std::string, bool, std::int64_t, std::chrono::system_clock::time_point,
                 std::vector<PreferenceArrayElement>>;

struct PreferenceEntry {
  std::string key;
  PreferenceValue value;
};

class PACTIVO_EXPORT UserDefaultManager {
 public:
  UserDefaultManager() = delete;

  // Whether the suite is open (opening it now if it was not). False for the
  // life of the process once opening failed.
  static bool isAvailable();

  // Generic typed access.
  static std::string getString(std::string_view key, std::string_view defaultValue);
  static void setString(std::string_view key, std::string_view value);
  static bool getBool(std::string_view key);  // false when absent
  static void setBool(std::string_view key, bool value);
  static std::int64_t getInt(std::string_view key);  // 0 when absent
  static void setInt(std::string_view key, std::int64_t value);
  static std::int64_t getInt64(std::string_view key, std::int64_t defaultValue);
  static void setInt64(std::string_view key, std::int64_t value);

  // Consent of a purpose, under the decimal text of its id.
  static void setPurposeConsent(std::string_view key, ConsentStatus status);
  static ConsentStatus getPurposeConsent(std::string_view key, ConsentStatus defaultStatus);
  // nullopt when nothing, or an unknown text, is stored.
  static std::optional<ConsentStatus> getStoredConsent(std::string_view key);

  // Consent of a permission, under the key's raw value.
  static void setPermissionConsent(const LumariKey& key, ConsentStatus status);
  static ConsentStatus getPermissionConsent(const LumariKey& key, ConsentStatus defaultStatus);

  // Consents that changed and wait for upload. A list holding an element of
  // another type reads as empty.
  static std::vector<std::int64_t> getPendingPurposes();
  static void addPendingPurpose(std::int64_t purposeId);
  static void clearPendingPurposes();
  static std::vector<std::string> getPendingPermissions();
  static void addPendingPermission(const LumariKey& key);
  static void clearPendingPermissions();

  // "SUBJECT_ID", created as a new upper-case UUID when absent or empty.
  static std::string getSubjectId();

  static void setComplianceType(ComplianceType type);
  static ComplianceType getComplianceType();  // noticeOnly unless "opt-in"/"opt-out"

  static void setStoredLocation(std::string_view location);
  static std::optional<std::string> getStoredLocation();
  static void setStoredCountryCode(std::string_view countryCode);
  static std::optional<std::string> getStoredCountryCode();
  static void setLocationTimestamp(std::chrono::system_clock::time_point when);
  static std::optional<std::chrono::system_clock::time_point> getLocationTimestamp();

  static std::optional<std::string> getETag();
  static void setETag(std::string_view etag);
  static void clearETag();

  // Removes every key of the suite, identity and cache bookkeeping included.
  static void removeAllConsents();

  // Every stored key with its typed value, ordered by key; for inspection.
  static std::vector<PreferenceEntry> allEntries();
};

}  // namespace pactivo

#endif  // PACTIVO_USER_DEFAULT_MANAGER_H_
