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

class PurposeManagerTest : public ::testing::Test {
 protected:
  // A manager over `purposes`, which stay here: the manager reads them in place.
  PurposeManager manager(std::vector<Purpose> purposes, std::optional<bool> enabled = false,
                         std::optional<ATTConfig> config = kNone) {
    list_ = std::move(purposes);
    return PurposeManager(list_, enabled, config);
  }
  std::optional<std::vector<Purpose>> list_;
  testing::ScopedPlatform scoped_;
  testing::LogCapture log_;
};

TEST_F(PurposeManagerTest, ComplianceDefaults) {
  std::string seen;  // none stored reads as notice-only
  for (auto compliance :
       {std::optional<ComplianceType>(), std::optional(ComplianceType::noticeOnly),
        std::optional(ComplianceType::optOut), std::optional(ComplianceType::optIn)}) {
    if (compliance) UDM::setComplianceType(*compliance);
    seen += std::string(rawValue(*manager({purpose(1)}).getPurposes()[0].consentStatus)) + " ";
  }
  EXPECT_EQ(seen, "granted granted granted declined ");
  UDM::setPurposeConsent("1", W);
  EXPECT_EQ(manager({purpose(1)}).getPurposes()[0].consentStatus, W);
}

TEST_F(PurposeManagerTest, UpdateRefusalsAndWithdrawal) {
  const struct {
    Purpose purpose;
    std::optional<ConsentStatus> stored;
    ConsentStatus requested;
    std::string_view type;
    std::optional<ConsentStatus> storedAfter;  // nullopt: refused
    bool changeFlagged;
  } cases[] = {
      {purpose(kNone), kNone, G, kConsentExplicit, kNone, false},    // no id
      {purpose(1, true), kNone, D, kConsentExplicit, kNone, false},  // essential declined
      {purpose(1, true), G, W, kConsentExplicit, kNone, false},      // essential withdrawn
      {purpose(1, true), kNone, G, kConsentExplicit, G, false},      // essential granted
      {purpose(1), kNone, N, kConsentExplicit, kNone, false},
      {purpose(1), G, D, kConsentExplicit, W, true},  // declining a grant withdraws it
      {purpose(1), W, D, kConsentExplicit, W, true},
      {purpose(1), D, D, kConsentImplicit, D, false},
      {purpose(1), D, G, kConsentExplicit, G, true},
      {purpose(1), kNone, D, kConsentExplicit, D, false},  // a first choice is no change
      {purpose(1), kNone, G, kConsentNoAction, G, false},  // no action keeps the type
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(&c - cases);
    UDM::removeAllConsents();
    UDM::setString(keys::kConsentGivenType, "before");
    if (c.stored) UDM::setPurposeConsent("1", *c.stored);
    const bool accepted = c.storedAfter.has_value();
    EXPECT_EQ(manager({c.purpose}).updatePurposeConsent(c.purpose, c.requested, c.type), accepted);
    EXPECT_EQ(std::tuple(UDM::getStoredConsent("1"), UDM::getBool(keys::kArePurposesChanged),
                         UDM::getInt64(keys::kPurposesChangeTimestamp, 0),
                         UDM::getPendingPurposes(), UDM::getString(keys::kConsentGivenType, "")),
              std::tuple(accepted ? c.storedAfter : c.stored, c.changeFlagged,
                         c.changeFlagged ? 1700000000 : 0, Ids(accepted, 1),
                         accepted && c.type != kConsentNoAction ? c.type : "before"));
  }
}

// A purpose mapped to tracking follows the platform's authorization.
TEST_F(PurposeManagerTest, TrackingMapping) {
  const struct {
    std::optional<ComplianceType> compliance;
    std::optional<ConsentStatus> stored;
    int tracking;
    ConsentStatus evaluated;
    std::optional<ConsentStatus> storedAfterCheck;
  } cases[] = {
      {kNone, G, 2, W, W},
      {kNone, W, kAuthorized, G, G},
      {ComplianceType::optIn, D, kAuthorized, G, G},
      {ComplianceType::optIn, kNone, 0, D, kNone},
      {ComplianceType::optOut, kNone, 0, D, D},
      {ComplianceType::optOut, kNone, kAuthorized, G, kNone},
      {kNone, G, kAuthorized, G, G},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(&c - cases);
    UDM::removeAllConsents();
    log_.clear();
    if (c.compliance) UDM::setComplianceType(*c.compliance);
    if (c.stored) UDM::setPurposeConsent("7", *c.stored);
    scoped_.platform().setTrackingAuthorizationStatus(c.tracking);
    auto m = manager({purpose(8, kNone, LocalizedText{{"en", "A"}}),
                      purpose(7, kNone, LocalizedText{{"en", "B"}})},
                     true, att({7}));
    auto p = m.getPurposes();  // the tracking group before the rest
    EXPECT_EQ(std::tuple(p[0].purposeId, p[0].isATTMapped, p[1].isATTMapped, p[0].consentStatus),
              std::tuple(7, true, std::nullopt, c.evaluated));
    EXPECT_EQ(p[0].attDescription, (LocalizedText{{"en", "tracking text"}}));
    auto result = m.checkPurposes();
    const bool changed = c.storedAfterCheck && c.stored != c.storedAfterCheck;
    EXPECT_EQ(result.consents,
              std::vector(changed, PurposeConsent(7, c.evaluated, 1700000000, false)));
    EXPECT_EQ(
        std::tuple(result.changed, UDM::getStoredConsent("7"),
                   UDM::getString(keys::kConsentGivenType, "-"),
                   log_.count("checkPurposes() - Changed Purposes: [PurposeConsent(purposeID: 7")),
        std::tuple(changed, c.storedAfterCheck, changed ? kConsentExplicit : "-",
                   changed ? 1u : 0u));
  }
  // Without the switch, a tracking configuration naming the purpose, or the
  // flag to show it, nothing is mapped.
  for (const auto& [enabled, config] :
       {std::pair<std::optional<bool>, std::optional<ATTConfig>>{kNone, att({7})},
        {false, att({7})},
        {true, kNone},
        {true, ATTConfig{true, kNone, kNone}},
        {true, att({2})}}) {
    EXPECT_FALSE(manager({purpose(7)}, enabled, config).getPurposes()[0].isATTMapped);
  }
  EXPECT_FALSE(manager({purpose(7)}, true, att({7}, false)).getPurposes()[0].attDescription);
}

TEST_F(PurposeManagerTest, CheckReportsPendingPurposes) {
  UDM::setComplianceType(ComplianceType::optIn);
  UDM::setPurposeConsent("2", G);
  UDM::setInt64(keys::kPurposesChangeTimestamp, 1704067200);
  UDM::setBool(keys::kArePurposesChanged, true);  // the suite's flag is not the one read
  auto m = manager({purpose(1), purpose(2, true), purpose(3), purpose(kNone)});
  // Without a host store of its own, a change is pending purposes.
  EXPECT_FALSE(m.checkPurposes().changed);
  UDM::addPendingPurpose(3);
  UDM::addPendingPurpose(2);
  EXPECT_TRUE(m.checkPurposes().changed);
  EXPECT_TRUE(
      log_.contains("Changed Purposes: [PurposeConsent(purposeID: 2, consentStatus: granted"));
  // A host that keeps its own standard store decides what a change is.
  log_.clear();
  scoped_.platform().setStandardPreference("ARE_PURPOSES_CHANGED", false);
  auto result = m.checkPurposes();
  EXPECT_FALSE(result.changed);
  EXPECT_EQ(result.consents, (std::vector{PurposeConsent(2, G, 1704067200, true),
                                          PurposeConsent(3, D, 1704067200, false)}));
  EXPECT_TRUE(log_.contains("checkPurposes() - Purposes consent checks executed"));
  EXPECT_FALSE(log_.contains("Changed Purposes"));
  UDM::clearPendingPurposes();
  scoped_.platform().setStandardPreference("ARE_PURPOSES_CHANGED", true);
  EXPECT_TRUE(m.checkPurposes().changed);
  EXPECT_TRUE(manager({}).checkPurposes().consents.empty());
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
    Ids ids;
    for (const Purpose& p : manager.getPurposes()) ids.push_back(*p.purposeId);
    return ids;
  };
  EXPECT_EQ(order(manager(purposes)), (Ids{7, 6, 8, 5, 10, 4, 3, 2, 1, 9}));
  // An essential purpose mapped to tracking stays with the essential ones.
  EXPECT_EQ(order(manager(purposes, true, att({6, 3}))), (Ids{7, 6, 3, 8, 5, 10, 4, 2, 1, 9}));
}

TEST_F(PurposeManagerTest, ACheckReportsEachChangeOnce) {
  // Pending, and withdrawn by the tracking rule in the same second (no change
  // time stored reads as now): one record, not two.
  UDM::setPurposeConsent("3", G);
  UDM::addPendingPurpose(3);
  auto result = manager({purpose(3)}, true, att({3})).checkPurposes();
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
