#include <gtest/gtest.h>

#include "pactivo/locale_utils.h"
#include "pactivo/user_default_manager.h"
#include "purposes/purpose_manager.h"
#include "support/test_support.h"

namespace pactivo::detail {
namespace {

using testing::LogCapture;
using testing::ScopedPlatform;

Purpose purpose(std::optional<std::int64_t> id, std::string name = "",
                std::optional<bool> essential = std::nullopt) {
  Purpose p;
  p.purposeId = id;
  if (!name.empty()) p.purposeName = LocalizedText{{"en", name}};
  p.disableOptOut = essential;
  return p;
}

ATTConfig att(std::vector<std::int64_t> ids, bool showInfo = true) {
  return ATTConfig{showInfo, ids, LocalizedText{{"en", "tracking text"}}};
}

// Managers read the document's list in place; this one owns its list.
struct PurposeList {
  std::optional<std::vector<Purpose>> list;
};
class OwnedPurposeManager : private PurposeList, public PurposeManager {
 public:
  OwnedPurposeManager(std::optional<std::vector<Purpose>> purposes, std::optional<bool> enabled,
                      std::optional<ATTConfig> config)
      : PurposeList{std::move(purposes)}, PurposeManager(list, enabled, config) {}
};

constexpr int kAuthorized = 3;
constexpr int kDenied = 2;

class PurposeManagerTest : public ::testing::Test {
 protected:
  ScopedPlatform scoped_;
  LogCapture log_;
};

TEST_F(PurposeManagerTest, ComplianceDefaults) {
  struct Case {
    std::optional<ComplianceType> compliance;
    ConsentStatus expected;
  } cases[] = {{std::nullopt, ConsentStatus::granted},
               {ComplianceType::noticeOnly, ConsentStatus::granted},
               {ComplianceType::optOut, ConsentStatus::granted},
               {ComplianceType::optIn, ConsentStatus::declined}};
  for (const auto& c : cases) {
    if (c.compliance) UserDefaultManager::setComplianceType(*c.compliance);
    OwnedPurposeManager manager(std::vector{purpose(1, "a"), purpose(2, "b")}, false, std::nullopt);
    for (const Purpose& p : manager.getPurposes()) {
      EXPECT_EQ(p.consentStatus, c.expected) << (c.compliance ? rawValue(*c.compliance) : "none");
    }
  }
  UserDefaultManager::setPurposeConsent("2", ConsentStatus::withDrawn);
  OwnedPurposeManager manager(std::vector{purpose(2, "b")}, false, std::nullopt);
  EXPECT_EQ(manager.getPurposes()[0].consentStatus, ConsentStatus::withDrawn);
}

TEST_F(PurposeManagerTest, UpdateRefusalsAndWithdrawal) {
  struct Case {
    const char* name;
    Purpose purpose;
    std::optional<ConsentStatus> stored;
    ConsentStatus requested;
    bool accepted;
    std::optional<ConsentStatus> storedAfter;
    bool changeFlagged;
  } cases[] = {
      {"no id", purpose(std::nullopt), std::nullopt, ConsentStatus::granted, false, std::nullopt,
       false},
      {"essential declined", purpose(1, "", true), std::nullopt, ConsentStatus::declined, false,
       std::nullopt, false},
      {"essential granted", purpose(1, "", true), std::nullopt, ConsentStatus::granted, true,
       ConsentStatus::granted, false},
      {"not determined", purpose(1), std::nullopt, ConsentStatus::notDetermined, false,
       std::nullopt, false},
      {"granted then declined", purpose(1), ConsentStatus::granted, ConsentStatus::declined, true,
       ConsentStatus::withDrawn, true},
      {"withdrawn then declined", purpose(1), ConsentStatus::withDrawn, ConsentStatus::declined,
       true, ConsentStatus::withDrawn, true},
      {"declined again", purpose(1), ConsentStatus::declined, ConsentStatus::declined, true,
       ConsentStatus::declined, false},
      {"declined then granted", purpose(1), ConsentStatus::declined, ConsentStatus::granted, true,
       ConsentStatus::granted, true},
      {"first choice", purpose(1), std::nullopt, ConsentStatus::declined, true,
       ConsentStatus::declined, false},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    UserDefaultManager::removeAllConsents();
    if (c.stored) UserDefaultManager::setPurposeConsent("1", *c.stored);
    OwnedPurposeManager manager(std::vector{c.purpose}, false, std::nullopt);
    EXPECT_EQ(manager.updatePurposeConsent(c.purpose, c.requested, kConsentExplicit), c.accepted);
    EXPECT_EQ(UserDefaultManager::getStoredConsent("1"), c.storedAfter);
    EXPECT_EQ(UserDefaultManager::getBool(keys::kArePurposesChanged), c.changeFlagged);
    EXPECT_EQ(UserDefaultManager::getInt64(keys::kPurposesChangeTimestamp, 0),
              c.changeFlagged ? 1700000000 : 0);
    EXPECT_EQ(UserDefaultManager::getPendingPurposes(),
              c.accepted ? std::vector<std::int64_t>{1} : std::vector<std::int64_t>{});
    EXPECT_EQ(UserDefaultManager::getString(keys::kConsentGivenType, "none"),
              c.accepted ? kConsentExplicit : "none");
  }
}

TEST_F(PurposeManagerTest, NoActionTypeIsNotStored) {
  OwnedPurposeManager manager(std::vector{purpose(1)}, false, std::nullopt);
  UserDefaultManager::setString(keys::kConsentGivenType, kConsentImplicit);
  EXPECT_TRUE(manager.updatePurposeConsent(purpose(1), ConsentStatus::granted, kConsentNoAction));
  EXPECT_EQ(UserDefaultManager::getString(keys::kConsentGivenType, ""), kConsentImplicit);
}

TEST_F(PurposeManagerTest, TrackingMapping) {
  struct Case {
    const char* name;
    std::optional<ComplianceType> compliance;
    std::optional<ConsentStatus> stored;
    int tracking;
    ConsentStatus evaluated;
    bool checkReportsChange;
    std::optional<ConsentStatus> storedAfterCheck;
  } cases[] = {
      {"stored granted, not authorized", std::nullopt, ConsentStatus::granted, kDenied,
       ConsentStatus::withDrawn, true, ConsentStatus::withDrawn},
      {"stored withdrawn, authorized", std::nullopt, ConsentStatus::withDrawn, kAuthorized,
       ConsentStatus::granted, true, ConsentStatus::granted},
      {"stored declined, authorized", ComplianceType::optIn, ConsentStatus::declined, kAuthorized,
       ConsentStatus::granted, true, ConsentStatus::granted},
      {"nothing stored, opt-in, not authorized", ComplianceType::optIn, std::nullopt, 0,
       ConsentStatus::declined, false, std::nullopt},
      {"nothing stored, opt-out, not authorized", ComplianceType::optOut, std::nullopt, 0,
       ConsentStatus::declined, true, ConsentStatus::declined},
      {"nothing stored, authorized", ComplianceType::optOut, std::nullopt, kAuthorized,
       ConsentStatus::granted, false, std::nullopt},
      {"stored granted, authorized", std::nullopt, ConsentStatus::granted, kAuthorized,
       ConsentStatus::granted, false, ConsentStatus::granted},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    UserDefaultManager::removeAllConsents();
    if (c.compliance) UserDefaultManager::setComplianceType(*c.compliance);
    if (c.stored) UserDefaultManager::setPurposeConsent("7", *c.stored);
    scoped_.platform().setTrackingAuthorizationStatus(c.tracking);
    OwnedPurposeManager manager(std::vector{purpose(7, "Ads"), purpose(8, "Other")}, true,
                                att({7}));
    auto purposes = manager.getPurposes();
    ASSERT_EQ(purposes.size(), 2u);
    EXPECT_EQ(purposes[0].purposeId, 7);  // the tracking group comes before the rest
    EXPECT_EQ(purposes[0].isATTMapped, true);
    EXPECT_EQ(*purposes[0].attDescription->find("en"), "tracking text");
    EXPECT_EQ(purposes[0].consentStatus, c.evaluated);
    EXPECT_FALSE(purposes[1].isATTMapped);

    auto result = manager.checkPurposes();
    EXPECT_EQ(result.changed, c.checkReportsChange);
    EXPECT_EQ(UserDefaultManager::getStoredConsent("7"), c.storedAfterCheck);
    if (c.checkReportsChange) {
      ASSERT_EQ(result.consents.size(), 1u);
      EXPECT_EQ(result.consents[0], PurposeConsent(7, *c.storedAfterCheck, 1700000000, false));
      EXPECT_EQ(UserDefaultManager::getString(keys::kConsentGivenType, ""), kConsentExplicit);
      EXPECT_TRUE(
          log_.contains("checkPurposes() - Changed Purposes: [PurposeConsent(purposeID: 7"));
    }
  }
}

TEST_F(PurposeManagerTest, TrackingMappingNeedsEverySwitch) {
  scoped_.platform().setTrackingAuthorizationStatus(kAuthorized);
  struct Case {
    std::optional<bool> enabled;
    std::optional<ATTConfig> config;
  } cases[] = {{std::nullopt, att({1})},
               {false, att({1})},
               {true, std::nullopt},
               {true, ATTConfig{true, std::nullopt, std::nullopt}},
               {true, att({2})}};
  for (const auto& c : cases) {
    OwnedPurposeManager manager(std::vector{purpose(1)}, c.enabled, c.config);
    EXPECT_FALSE(manager.getPurposes()[0].isATTMapped);
  }
  OwnedPurposeManager hidden(std::vector{purpose(1)}, true, att({1}, false));
  EXPECT_FALSE(hidden.getPurposes()[0].attDescription);
}

TEST_F(PurposeManagerTest, CheckReportsPendingPurposes) {
  UserDefaultManager::setComplianceType(ComplianceType::optIn);
  UserDefaultManager::setPurposeConsent("2", ConsentStatus::granted);
  UserDefaultManager::addPendingPurpose(2);
  UserDefaultManager::addPendingPurpose(3);
  UserDefaultManager::setInt64(keys::kPurposesChangeTimestamp, 1704067200);
  // A host that keeps its own standard store decides what a change is.
  scoped_.platform().setStandardPreference("ARE_PURPOSES_CHANGED", false);
  OwnedPurposeManager manager(
      std::vector{purpose(1), purpose(2, "", true), purpose(3), purpose(std::nullopt)}, false,
      std::nullopt);
  auto result = manager.checkPurposes();
  EXPECT_FALSE(result.changed);  // pending alone is not a change
  EXPECT_EQ(result.consents,
            (std::vector{PurposeConsent(2, ConsentStatus::granted, 1704067200, true),
                         PurposeConsent(3, ConsentStatus::declined, 1704067200, false)}));
  EXPECT_TRUE(log_.contains("checkPurposes() - Purposes consent checks executed"));
  EXPECT_FALSE(log_.contains("Changed Purposes"));

  // The change flag comes from the host's standard store, not the suite.
  UserDefaultManager::setBool(keys::kArePurposesChanged, true);
  EXPECT_FALSE(manager.checkPurposes().changed);
  scoped_.platform().setStandardPreference("ARE_PURPOSES_CHANGED", true);
  auto flagged = manager.checkPurposes();
  EXPECT_TRUE(flagged.changed);
  EXPECT_TRUE(
      log_.contains("Changed Purposes: [PurposeConsent(purposeID: 2, consentStatus: granted"));

  OwnedPurposeManager empty(std::nullopt, false, std::nullopt);
  EXPECT_TRUE(empty.checkPurposes().consents.empty());
}

TEST_F(PurposeManagerTest, DisplayOrder) {
  LocaleUtils::setCurrentLanguageCode("fr");
  auto named = [](std::int64_t id, std::string fr, bool essential = false) {
    Purpose p = purpose(id, "", essential);
    p.purposeName = LocalizedText{{"fr", std::move(fr)}, {"_", "fallback"}};
    return p;
  };
  Purpose noName = purpose(9);
  Purpose underscoreOnly = purpose(10);
  underscoreOnly.purposeName = LocalizedText{{"_", "Zebra"}, {"de", "Aal"}};
  OwnedPurposeManager manager(
      std::vector{named(1, "Purpose 10"), named(2, "purpose 9"), named(3, "fax"), named(4, "émail"),
                  named(5, "email"), named(6, "Zéro", true), named(7, "Alpha", true), noName,
                  underscoreOnly, named(11, "email")},
      false, std::nullopt);
  std::vector<std::int64_t> ids;
  for (const Purpose& p : manager.getPurposes()) ids.push_back(p.purposeId.value_or(-1));
  EXPECT_EQ(ids, (std::vector<std::int64_t>{7, 6, 9, 5, 11, 4, 3, 2, 1, 10}));
}

}  // namespace
}  // namespace pactivo::detail
