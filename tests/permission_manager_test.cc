#include <gtest/gtest.h>

#include "pactivo/user_default_manager.h"
#include "permissions/permission_manager.h"
#include "support/test_support.h"

namespace pactivo::detail {
namespace {

using UDM = UserDefaultManager;
using K = LumariKey;
constexpr auto G = ConsentStatus::granted, D = ConsentStatus::declined,
               W = ConsentStatus::withDrawn, N = ConsentStatus::notDetermined;
const K kCamera(K::cameraUsageDescription);
using Strings = std::vector<std::string>;

// The first letter of each answer ("granted": 'g'), so a row of answers is one word.
char probe(LumariKey key) { return rawValue(PermissionManager::getConsentByPermission(key))[0]; }

class PermissionManagerTest : public ::testing::Test {
 protected:
  // Tracking and notifications have setters of their own; notifications
  // answer before the request returns.
  void answer(const std::string& probe, std::optional<int> code) {
    if (probe == "tracking")
      return scoped_.platform().setTrackingAuthorizationStatus(code.value_or(0));
    if (probe == "notifications") return scoped_.platform().setNotificationStatus(code, true);
    scoped_.platform().setProbe(probe, code);
  }
  testing::ScopedPlatform scoped_;
  testing::LogCapture log_;
};

TEST_F(PermissionManagerTest, EveryCodeOfEveryQueriedKey) {
  // The answer to codes 0..6, then -1, then an absent facility. Health: any
  // non-zero availability reads as authorized. Bluetooth reads 1 and 2
  // crosswise (denied, restricted): both decline.
  const struct {
    const char *probe, *byCode;
    K::Case key;
  } rows[] = {
      {"locationAuthorizationStatus", "nddggnnnn", K::locationWhenInUseUsageDescription},
      {"locationAuthorizationStatus", "nddggnnnn", K::locationAlwaysUsageDescription},
      {"locationAuthorizationStatus", "nddggnnnn", K::locationAlwaysAndWhenInUseUsageDescription},
      {"cameraAuthorizationStatus", "nddgnnnnn", K::cameraUsageDescription},
      {"cameraAuthorizationStatus", "nddgnnnnn", K::cameraBroadcastUsageDescription},
      {"microphoneAuthorizationStatus", "nddgnnnnn", K::microphoneUsageDescription},
      {"microphoneAuthorizationStatus", "nddgnnnnn", K::microphoneBroadcastUsageDescription},
      {"photoLibraryAuthorizationStatus", "nddggnnnn", K::photoLibraryUsageDescription},
      {"photoLibraryAddOnlyAuthorizationStatus", "nddggnnnn", K::photoLibraryAddUsageDescription},
      {"siriAuthorizationStatus", "nddgnnnnn", K::siriUsageDescription},
      {"healthDataAvailability", "ngggggggn", K::healthShareUsageDescription},
      {"healthDataAvailability", "ngggggggn", K::healthUpdateUsageDescription},
      {"bluetoothAuthorization", "nddgnnnnn", K::bluetoothPeripheralUsageDescription},
      {"bluetoothAuthorization", "nddgnnnnn", K::bluetoothAlwaysUsageDescription},
      {"speechRecognitionAuthorizationStatus", "nddgnnnnn", K::speechRecognitionUsageDescription},
      {"homeKitAuthorizationStatus", "ndgnngnnn", K::homeKitUsageDescription},
      {"tracking", "nddgnnnnn", K::userTrackingUsageDescription},
      {"notifications", "ndgggnnnn", K::userNotificationsUsageDescription},
  };
  const std::optional<int> codes[] = {0, 1, 2, 3, 4, 5, 6, -1, std::nullopt};
  for (const auto& row : rows) {
    std::string seen;
    for (std::optional<int> code : codes) {
      answer(row.probe, code);
      seen += probe(row.key);
    }
    EXPECT_EQ(seen, row.byCode) << K(row.key).rawValue();
  }
  // An answer that comes later is not waited for; keys no probe answers
  // read as not determined.
  scoped_.platform().setNotificationStatus(2, false);
  answer("cameraAuthorizationStatus", 3);
  answer("locationAuthorizationStatus", 3);
  std::string unanswered;
  for (LumariKey key : {K(K::userNotificationsUsageDescription), K(K::contactsUsageDescription),
                        K(K::calendarsUsageDescription), K(K::remindersUsageDescription),
                        K(K::motionUsageDescription), K(K::appleMusicUsageDescription),
                        K(K::faceIDUsageDescription), K(K::nfcReaderUsageDescription),
                        K::makeCustom("NSCameraUsageDescription"), K::fromRawValue("com.x.Y")}) {
    unanswered += probe(key);
  }
  EXPECT_EQ(unanswered, "nnnnnnnnnn");
  // A probe that throws is logged and reads as not determined.
  scoped_.platform().setProbeFailure("camera service crashed");
  EXPECT_EQ(probe(kCamera), 'n');
  EXPECT_TRUE(log_.contains("[ERROR] [permission_probe.cc:"));
  EXPECT_TRUE(
      log_.contains("getConsentByPermission(lumiriKey:) - Something went wrong while "
                    "fetching the permission status: camera service crashed"));
}

TEST(PermissionProbeTest, DeclaredKeysReadTheInformationDictionary) {
  const struct {
    K::Case key;
    const char *infoKey, *byText;  // absent, then each of the texts below
  } rows[] = {
      {K::localNetworkUsageDescription, "NSLocalNetworkUsageDescription", "nnddgggn"},
      {K::fileProviderDomainUsageDescription, "NSFileProviderDomainUsageDescription", "nnddgnnn"},
      {K::systemExtensionUsageDescription, "NSExtensionUsageDescription", "nnddgnnn"},
  };
  for (const auto& row : rows) {
    std::string seen;
    for (const char* text : {"absent", "", "Denied", "Restricted", "Authorized",
                             "Always Authorized", "Authorized When In Use", "authorized"}) {
      testing::ScopedPlatform fresh;
      if (std::string_view(text) != "absent") fresh.platform().setInfo(row.infoKey, text);
      seen += probe(row.key);
    }
    EXPECT_EQ(seen, row.byText) << row.infoKey;
  }
}

AppPermission permission(LumariKey key, std::string name = "", std::optional<bool> prompt = {}) {
  AppPermission p;
  p.permissionId = key;
  if (!name.empty()) p.nameMap = LocalizedText{{"en", std::move(name)}};
  p.isSettingsPromptEnabled = prompt;
  return p;
}

// A key no probe answers ("com.x.Scanner") reads as not determined.
TEST_F(PermissionManagerTest, CheckFollowsThePlatform) {
  const K scanner = K::fromRawValue("com.x.Scanner");
  const struct {
    K key;
    std::optional<ConsentStatus> stored;
    std::optional<int> camera;
    bool pending, reported;
    ConsentStatus storedAfter;
  } cases[] = {
      {kCamera, std::nullopt, 3, false, false, G},  // first run, authorized
      {kCamera, std::nullopt, 3, true, true, G},    // first run, pending
      {kCamera, G, 2, false, true, W},              // granted, now denied
      {kCamera, W, 2, false, false, W},             // withdrawn, still denied
      {kCamera, D, 3, false, true, G},              // declined, now granted
      {kCamera, G, 3, true, true, G},               // unchanged, pending again
      {kCamera, G, std::nullopt, false, true, N},   // facility gone
      {scanner, std::nullopt, 3, false, false, N},
      {scanner, G, 3, false, true, N},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(&c - cases);
    UDM::removeAllConsents();
    if (c.stored) UDM::setPermissionConsent(c.key, *c.stored);
    if (c.pending) UDM::addPendingPermission(c.key);
    answer("cameraAuthorizationStatus", c.camera);
    log_.clear();
    const std::optional list = std::vector{permission(c.key), AppPermission{}};
    auto result = PermissionManager(list, std::nullopt).checkPermissions();
    const std::string raw(c.key.rawValue());
    EXPECT_EQ(result.consents,
              std::vector(c.reported, PermissionConsent(c.key, c.storedAfter, 1700000000)));
    EXPECT_EQ(std::tuple(result.changed, UDM::getPermissionConsent(c.key, D),
                         UDM::getBool(keys::kArePermissionsChanged), UDM::getPendingPermissions()),
              std::tuple(c.reported, c.storedAfter, false, Strings(c.reported, raw)));
    EXPECT_TRUE(log_.contains("checkPermissions() - Permissions consent checks executed."));
    EXPECT_EQ(
        log_.count("checkPermissions() - Changed Permissions: [PermissionConsent(permission: " +
                   raw + ", consentStatus: " + std::string(rawValue(c.storedAfter))),
        c.reported);
  }
}

TEST_F(PermissionManagerTest, UpdateOnlyRecordsWhatThePlatformReports) {
  answer("cameraAuthorizationStatus", 2);
  const std::optional<std::vector<AppPermission>> none;
  PermissionManager manager(none, std::nullopt);
  EXPECT_FALSE(manager.updatePermissionConsent(permission(kCamera), G, kConsentExplicit));
  EXPECT_FALSE(manager.updatePermissionConsent(AppPermission{}, D, kConsentExplicit));
  EXPECT_TRUE(UDM::allEntries().empty());
  UDM::setPermissionConsent(kCamera, G);
  EXPECT_TRUE(manager.updatePermissionConsent(permission(kCamera), D, kConsentExplicit));
  EXPECT_EQ(
      std::tuple(UDM::getPermissionConsent(kCamera, N), UDM::getBool(keys::kArePermissionsChanged),
                 UDM::getInt64(keys::kPermissionsChangeTimestamp, 0),
                 UDM::getString(keys::kConsentGivenType, ""), UDM::getPendingPermissions()),
      std::tuple(W, true, 1700000000, kConsentExplicit, Strings{"NSCameraUsageDescription"}));
}

TEST_F(PermissionManagerTest, SettingsPromptFlagsAndOrder) {
  const std::optional all =
      std::vector{permission(kCamera, "Camera", true),
                  permission(K::microphoneUsageDescription, "camera", true),
                  permission(K::localNetworkUsageDescription, "Audio 10"),
                  permission(K::siriUsageDescription, "audio 9"), AppPermission{}};
  SettingsPrompt prompt;
  prompt.permissions = std::map<std::string, bool>{{"NSCameraUsageDescription", true},
                                                   {"NSLocalNetworkUsageDescription", false}};
  // Equal names (case aside) keep document order; digits compare by value.
  // With a prompt, a key without an entry is off whatever its record says.
  const std::pair<std::optional<SettingsPrompt>, const char*> cases[] = {
      {prompt, "Sir:0 Loc:0 Cam:1 Mic:0 "},
      {SettingsPrompt{}, "Sir:0 Loc:0 Cam:0 Mic:0 "},
      {std::nullopt, "Sir:- Loc:- Cam:1 Mic:1 "}};
  for (const auto& [settings, expected] : cases) {
    std::string seen;
    for (const AppPermission& p : PermissionManager(all, settings).getPermissions()) {
      seen += std::string(p.permissionId->rawValue()).substr(2, 3) + ":" +
              (p.isSettingsPromptEnabled ? (*p.isSettingsPromptEnabled ? "1" : "0") : "-") +
              (p.consentStatus == N ? " " : "? ");
    }
    EXPECT_EQ(seen, expected);
  }
}

}  // namespace
}  // namespace pactivo::detail
