#include <gtest/gtest.h>

#include "pactivo/locale_utils.h"
#include "pactivo/user_default_manager.h"
#include "purposes/purpose_manager.h"
#include "support/test_support.h"

namespace pactivo::detail {
namespace {

using UDM = UserDefaultManager;
constexpr auto G = ConsentStatus::granted, D = ConsentStatus::declined,
               W = ConsentStatus::withDrawn, N = ConsentStatus::notDetermined;
constexpr std::nullopt_t kNone = std::nullopt;
constexpr int kAuthorized = 3;
using Ids = std::vector<std::int64_t>;

// The list is read in place: a temporary one once dangled.
static_assert(!std::is_constructible_v<PurposeManager, std::optional<std::vector<Purpose>>&&,
                                       std::optional<bool>, std::optional<ATTConfig>>);

Purpose purpose(std::optional<std::int64_t> id, std::optional<bool> essential = kNone,
                std::optional<LocalizedText> name = kNone) {
  Purpose p;
  p.purposeId = id;
  p.purposeName = std::move(name);
  p.disableOptOut = essential;
  return p;
}

ATTConfig att(std::vector<std::int64_t> ids, bool showInfo = true) {
  return ATTConfig{showInfo, ids, LocalizedText{{"en", "tracking text"}}};
}

struct PurposeList {
  std::optional<std::vector<Purpose>> list;
};
class OwnedPurposeManager : private PurposeList, public PurposeManager {
 public:
  OwnedPurposeManager(std::vector<Purpose> purposes, std::optional<bool> enabled = false,
                      std::optional<ATTConfig> config = kNone)
      : PurposeList{std::move(purposes)}, PurposeManager(list, enabled, config) {}
};

class PurposeManagerTest : public ::testing::Test {
 protected:
  testing::ScopedPlatform scoped_;
  testing::LogCapture log_;
};

TEST_F(PurposeManagerTest, ComplianceDefaults) {
  std::string seen;  // none stored reads as notice-only
  for (auto compliance :
       {std::optional<ComplianceType>(), std::optional(ComplianceType::noticeOnly),
        std::optional(ComplianceType::optOut), std::optional(ComplianceType::optIn)}) {
    if (compliance) UDM::setComplianceType(*compliance);
    seen += rawValue(*OwnedPurposeManager({purpose(1)}).getPurposes()[0].consentStatus);
    seen += " ";
  }
  EXPECT_EQ(seen, "granted granted granted declined ");
  UDM::setPurposeConsent("1", W);
  EXPECT_EQ(OwnedPurposeManager({purpose(1)}).getPurposes()[0].consentStatus, W);
}

TEST_F(PurposeManagerTest, UpdateRefusalsAndWithdrawal) {
  struct Case {
    const char* name;
    Purpose purpose;
    std::optional<ConsentStatus> stored;
    ConsentStatus requested;
    std::string_view type;
    std::optional<ConsentStatus> storedAfter;  // nullopt: refused
    bool changeFlagged;
  } cases[] = {
      {"no id", purpose(kNone), kNone, G, kConsentExplicit, kNone, false},
      {"essential declined", purpose(1, true), kNone, D, kConsentExplicit, kNone, false},
      {"essential withdrawn", purpose(1, true), G, W, kConsentExplicit, kNone, false},
      {"essential granted", purpose(1, true), kNone, G, kConsentExplicit, G, false},
      {"not determined", purpose(1), kNone, N, kConsentExplicit, kNone, false},
      {"granted then declined", purpose(1), G, D, kConsentExplicit, W, true},
      {"withdrawn then declined", purpose(1), W, D, kConsentExplicit, W, true},
      {"declined again", purpose(1), D, D, kConsentImplicit, D, false},
      {"declined then granted", purpose(1), D, G, kConsentExplicit, G, true},
      {"first choice", purpose(1), kNone, D, kConsentExplicit, D, false},
      {"no action keeps the type", purpose(1), kNone, G, kConsentNoAction, G, false},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    UDM::removeAllConsents();
    UDM::setString(keys::kConsentGivenType, "before");
    if (c.stored) UDM::setPurposeConsent("1", *c.stored);
    OwnedPurposeManager manager({c.purpose});
    const bool accepted = c.storedAfter.has_value();
    EXPECT_EQ(manager.updatePurposeConsent(c.purpose, c.requested, c.type), accepted);
    EXPECT_EQ(UDM::getStoredConsent("1"), accepted ? c.storedAfter : c.stored);
    EXPECT_EQ(UDM::getBool(keys::kArePurposesChanged), c.changeFlagged);
    EXPECT_EQ(UDM::getInt64(keys::kPurposesChangeTimestamp, 0), c.changeFlagged ? 1700000000 : 0);
    EXPECT_EQ(UDM::getPendingPurposes(), std::vector<std::int64_t>(accepted, 1));
    EXPECT_EQ(UDM::getString(keys::kConsentGivenType, ""),
              accepted && c.type != kConsentNoAction ? c.type : "before");
  }
}

// A purpose mapped to tracking follows the platform's authorization.
TEST_F(PurposeManagerTest, TrackingMapping) {
  const struct {
    std::optional<ComplianceType> compliance;
    std::optional<ConsentStatus> stored;
    int tracking;
    ConsentStatus evaluated;
    std::optional<ConsentStatus> storedAfterCheck;  // nullopt: nothing stored, no change
  } cases[] = {
      {kNone, G, 2, W, W},            // granted, not authorized
      {kNone, W, kAuthorized, G, G},  // withdrawn, authorized
      {ComplianceType::optIn, D, kAuthorized, G, G},
      {ComplianceType::optIn, kNone, 0, D, kNone},
      {ComplianceType::optOut, kNone, 0, D, D},
      {ComplianceType::optOut, kNone, kAuthorized, G, kNone},
      {kNone, G, kAuthorized, G, G},  // no change
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(&c - cases);
    UDM::removeAllConsents();
    if (c.compliance) UDM::setComplianceType(*c.compliance);
    if (c.stored) UDM::setPurposeConsent("7", *c.stored);
    scoped_.platform().setTrackingAuthorizationStatus(c.tracking);
    OwnedPurposeManager manager({purpose(8, kNone, LocalizedText{{"en", "A"}}),
                                 purpose(7, kNone, LocalizedText{{"en", "B"}})},
                                true, att({7}));
    auto purposes = manager.getPurposes();  // the tracking group before the rest
    EXPECT_EQ(purposes[0].attDescription, (LocalizedText{{"en", "tracking text"}}));
    EXPECT_EQ(purposes[0].isATTMapped.value_or(false) + purposes[1].isATTMapped.value_or(true), 2);
    EXPECT_EQ(purposes[0].consentStatus, c.evaluated);
    auto result = manager.checkPurposes();
    EXPECT_EQ(UDM::getStoredConsent("7"), c.storedAfterCheck);
    const bool changed = c.storedAfterCheck && c.stored != c.storedAfterCheck;
    EXPECT_EQ(
        result.consents,
        std::vector(changed, PurposeConsent(7, c.storedAfterCheck.value_or(N), 1700000000, false)));
    EXPECT_EQ(result.changed, changed);
    EXPECT_EQ(UDM::getString(keys::kConsentGivenType, "-"), changed ? kConsentExplicit : "-");
    EXPECT_EQ(log_.count("checkPurposes() - Changed Purposes: [PurposeConsent(purposeID: 7"),
              changed ? 1u : 0u);
    log_.clear();
  }
}

TEST_F(PurposeManagerTest, TrackingMappingNeedsEverySwitch) {
  scoped_.platform().setTrackingAuthorizationStatus(kAuthorized);
  const std::pair<std::optional<bool>, std::optional<ATTConfig>> cases[] = {
      {kNone, att({1})},
      {false, att({1})},
      {true, kNone},
      {true, ATTConfig{true, kNone, kNone}},
      {true, att({2})}};
  for (const auto& [enabled, config] : cases) {
    EXPECT_FALSE(OwnedPurposeManager({purpose(1)}, enabled, config).getPurposes()[0].isATTMapped);
  }
  EXPECT_FALSE(
      OwnedPurposeManager({purpose(1)}, true, att({1}, false)).getPurposes()[0].attDescription);
}

TEST_F(PurposeManagerTest, CheckReportsPendingPurposes) {
  UDM::setComplianceType(ComplianceType::optIn);
  UDM::setPurposeConsent("2", G);
  UDM::setInt64(keys::kPurposesChangeTimestamp, 1704067200);
  UDM::setBool(keys::kArePurposesChanged, true);  // the suite's flag is not the one read
  OwnedPurposeManager manager({purpose(1), purpose(2, true), purpose(3), purpose(kNone)});
  // Without a host store of its own, a change is pending purposes.
  EXPECT_FALSE(manager.checkPurposes().changed);
  UDM::addPendingPurpose(3);
  UDM::addPendingPurpose(2);
  EXPECT_TRUE(manager.checkPurposes().changed);
  EXPECT_TRUE(
      log_.contains("Changed Purposes: [PurposeConsent(purposeID: 2, consentStatus: granted"));

  // A host that keeps its own standard store decides what a change is.
  log_.clear();
  scoped_.platform().setStandardPreference("ARE_PURPOSES_CHANGED", false);
  auto result = manager.checkPurposes();
  EXPECT_FALSE(result.changed);
  EXPECT_EQ(result.consents, (std::vector{PurposeConsent(2, G, 1704067200, true),
                                          PurposeConsent(3, D, 1704067200, false)}));
  EXPECT_TRUE(log_.contains("checkPurposes() - Purposes consent checks executed"));
  EXPECT_FALSE(log_.contains("Changed Purposes"));
  UDM::clearPendingPurposes();
  scoped_.platform().setStandardPreference("ARE_PURPOSES_CHANGED", true);
  EXPECT_TRUE(manager.checkPurposes().changed);
  std::optional<std::vector<Purpose>> none;
  EXPECT_TRUE(PurposeManager(none, false, kNone).checkPurposes().consents.empty());
}

TEST_F(PurposeManagerTest, DisplayOrder) {
  LocaleUtils::setCurrentLanguageCode("fr");
  std::vector<Purpose> purposes;  // a leading '*' marks an essential purpose
  for (std::string name :
       {"Purpose 10", "purpose 9", "fax", "émail", "email", "*Zéro", "*Alpha", "", "", "email"}) {
    const bool essential = name.starts_with("*");
    purposes.push_back(purpose(static_cast<std::int64_t>(purposes.size() + 1), essential,
                               LocalizedText{{"fr", name.substr(essential)}, {"_", "fallback"}}));
  }
  purposes[7].purposeName.reset();
  purposes[8].purposeName = LocalizedText{{"_", "Zebra"}, {"de", "Aal"}};
  auto order = [](PurposeManager&& manager) {
    std::vector<std::int64_t> ids;
    for (const Purpose& p : manager.getPurposes()) ids.push_back(*p.purposeId);
    return ids;
  };
  EXPECT_EQ(order(OwnedPurposeManager(purposes)), (Ids{7, 6, 8, 5, 10, 4, 3, 2, 1, 9}));
  // An essential purpose mapped to tracking stays with the essential ones.
  EXPECT_EQ(order(OwnedPurposeManager(purposes, true, att({6, 3}))),
            (Ids{7, 6, 3, 8, 5, 10, 4, 2, 1, 9}));
}

TEST_F(PurposeManagerTest, ACheckReportsEachChangeOnce) {
  // Pending, and withdrawn by the tracking rule in the same second (no change
  // time stored reads as now): one record, not two.
  UDM::setPurposeConsent("3", G);
  UDM::addPendingPurpose(3);
  auto result = OwnedPurposeManager({purpose(3)}, true, att({3})).checkPurposes();
  EXPECT_TRUE(result.changed);
  EXPECT_EQ(result.consents, (std::vector{PurposeConsent(3, W, 1700000000, false)}));
}

TEST(PersistedKeysTest, TextsAreTheStoredFormat) {
  using namespace keys;
  auto joined = [](auto... texts) { return ((std::string(texts) + " ") + ...); };
  EXPECT_EQ(joined(kSubjectId, kConsentGivenType, kArePurposesChanged, kPurposesChangeTimestamp,
                   kArePermissionsChanged, kPermissionsChangeTimestamp, kPendingPurposesList,
                   kPendingPermissionsList, kUploadConsentRequestPending, kCurrentComplianceType,
                   kBannerInterval, kIsBannerPresent, kLastModeUsed, kLanguageCode,
                   kCdnCachedTimestamp, kCdnFileLocation, kEtag, kXAuthToken, kSdkVersion,
                   kIsAttEnabled, kIsSettingsPromptEnabled, kCurrentLocation, kCurrentCountryCode,
                   kCurrentLocationTimestamp, kConsentNoAction, kConsentExplicit, kConsentImplicit,
                   kPreferenceSuiteName),
            "SUBJECT_ID CONSENT_GIVEN_TYPE ARE_PURPOSES_CHANGED PURPOSES_CHANGE_TIMESTAMP "
            "ARE_PERMISSIONS_CHANGED PERMISSIONS_CHANGE_TIMESTAMP PENDING_PURPOSES_LIST "
            "PENDING_PERMISSIONS_LIST UPLOAD_CONSENT_REQUEST_PENDING CURRENT_COMPLIANCE_TYPE "
            "BANNER_INTERVAL IS_BANNER_PRESENT LAST_MODE_USED LANGUAGECODE CDN_CACHED_TIMESTAMP "
            "CDN_FILE_LOCATION Etag X_AUTH_TOKEN SDK_VERSION IS_ATT_ENABLED "
            "IS_SETTINGS_PROMPT_ENABLED curr_location curr_countryCode curr_location_timestamp "
            "CONSENT_NO_ACTION CONSENT_EXPLICIT CONSENT_IMPLICIT tessarin-cmp-sdk ");
}

}  // namespace
}  // namespace pactivo::detail
