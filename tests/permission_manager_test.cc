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

// The first letter of each answer ("granted": 'g'), so a row of answers is one word.
char letter(ConsentStatus status) { return rawValue(status)[0]; }

class PermissionProbeTest : public ::testing::Test {
 protected:
  char probe(LumariKey key) { return letter(PermissionManager::getConsentByPermission(key)); }
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

TEST_F(PermissionProbeTest, EveryCodeOfEveryQueriedRow) {
  struct Row {
    const char* probe;
    const char* byCode;  // the answer to codes 0..6, then -1, then an absent facility
    std::vector<K::Case> keys;
  } rows[] = {
      {"locationAuthorizationStatus",
       "nddggnnnn",
       {K::locationWhenInUseUsageDescription, K::locationAlwaysUsageDescription,
        K::locationAlwaysAndWhenInUseUsageDescription}},
      {"cameraAuthorizationStatus",
       "nddgnnnnn",
       {K::cameraUsageDescription, K::cameraBroadcastUsageDescription}},
      {"microphoneAuthorizationStatus",
       "nddgnnnnn",
       {K::microphoneUsageDescription, K::microphoneBroadcastUsageDescription}},
      {"photoLibraryAuthorizationStatus", "nddggnnnn", {K::photoLibraryUsageDescription}},
      {"photoLibraryAddOnlyAuthorizationStatus", "nddggnnnn", {K::photoLibraryAddUsageDescription}},
      {"siriAuthorizationStatus", "nddgnnnnn", {K::siriUsageDescription}},
      // Any non-zero availability reads as authorized; zero as unknown.
      {"healthDataAvailability",
       "ngggggggn",
       {K::healthShareUsageDescription, K::healthUpdateUsageDescription}},
      // 1 and 2 are read crosswise (denied, restricted): both decline.
      {"bluetoothAuthorization",
       "nddgnnnnn",
       {K::bluetoothPeripheralUsageDescription, K::bluetoothAlwaysUsageDescription}},
      {"speechRecognitionAuthorizationStatus", "nddgnnnnn", {K::speechRecognitionUsageDescription}},
      {"homeKitAuthorizationStatus", "ndgnngnnn", {K::homeKitUsageDescription}},
      {"tracking", "nddgnnnnn", {K::userTrackingUsageDescription}},
      {"notifications", "ndgggnnnn", {K::userNotificationsUsageDescription}},
  };
  for (const auto& row : rows) {
    for (K::Case key : row.keys) {
      std::string seen;
      for (std::optional<int> code : {0, 1, 2, 3, 4, 5, 6, -1}) {
        answer(row.probe, code);
        seen += probe(key);
      }
      answer(row.probe, std::nullopt);
      seen += probe(key);
      EXPECT_EQ(seen, row.byCode) << row.probe << " " << K(key).rawValue();
    }
  }
  // An answer that comes later is not waited for.
  scoped_.platform().setNotificationStatus(2, false);
  EXPECT_EQ(probe(K::userNotificationsUsageDescription), 'n');
  answer("cameraAuthorizationStatus", 3);
  answer("locationAuthorizationStatus", 3);
  for (LumariKey key : {K(K::contactsUsageDescription), K(K::calendarsUsageDescription),
                        K(K::remindersUsageDescription), K(K::motionUsageDescription),
                        K(K::appleMusicUsageDescription), K(K::faceIDUsageDescription),
                        K(K::nfcReaderUsageDescription), K::makeCustom("NSCameraUsageDescription"),
                        K::fromRawValue("com.example.Custom")}) {
    EXPECT_EQ(probe(key), 'n') << key.rawValue();
  }
  // A probe that throws is logged and reads as not determined.
  scoped_.platform().setProbeFailure("camera service crashed");
  EXPECT_EQ(probe(K::cameraUsageDescription), 'n');
  EXPECT_TRUE(log_.contains("[ERROR] [permission_probe.cc:"));
  EXPECT_TRUE(
      log_.contains("getConsentByPermission(lumiriKey:) - Something went wrong while "
                    "fetching the permission status: camera service crashed"));
}

TEST_F(PermissionProbeTest, DeclaredKeysReadTheInformationDictionary) {
  struct Row {
    K::Case key;
    const char* infoKey;
    const char* byText;  // absent, then each of the texts below
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
      seen += letter(PermissionManager::getConsentByPermission(row.key));
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

using PermissionManagerTest = PermissionProbeTest;

TEST_F(PermissionManagerTest, CheckFollowsThePlatform) {
  struct Case {
    const char* name;
    std::optional<ConsentStatus> stored;
    std::optional<int> camera;
    bool pending;
    bool reported;
    ConsentStatus storedAfter;
  } cases[] = {
      {"first run, authorized", std::nullopt, 3, false, false, G},
      {"first run, pending", std::nullopt, 3, true, true, G},
      {"granted, now denied", G, 2, false, true, W},
      {"withdrawn, still denied", W, 2, false, false, W},
      {"declined, now granted", D, 3, false, true, G},
      {"unchanged, pending again", G, 3, true, true, G},
      {"facility gone", G, std::nullopt, false, true, N},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    UDM::removeAllConsents();
    if (c.stored) UDM::setPermissionConsent(K::cameraUsageDescription, *c.stored);
    if (c.pending) UDM::addPendingPermission(K::cameraUsageDescription);
    answer("cameraAuthorizationStatus", c.camera);
    const std::optional list = std::vector{permission(K::cameraUsageDescription), AppPermission{}};
    PermissionManager manager(list, std::nullopt);
    log_.clear();
    auto result = manager.checkPermissions();
    EXPECT_EQ(result.changed, c.reported);
    EXPECT_EQ(UDM::getPermissionConsent(K::cameraUsageDescription, D), c.storedAfter);
    EXPECT_TRUE(log_.contains("checkPermissions() - Permissions consent checks executed."));
    EXPECT_FALSE(UDM::getBool(keys::kArePermissionsChanged));
    EXPECT_EQ(result.consents, std::vector<PermissionConsent>(
                                   c.reported, PermissionConsent(K::cameraUsageDescription,
                                                                 c.storedAfter, 1700000000)));
    EXPECT_EQ(UDM::getPendingPermissions(),
              std::vector<std::string>(c.reported, "NSCameraUsageDescription"));
    EXPECT_EQ(log_.contains("checkPermissions() - Changed Permissions: [PermissionConsent("
                            "permission: NSCameraUsageDescription, consentStatus: " +
                            std::string(rawValue(c.storedAfter))),
              c.reported);
  }
  // A key no probe answers is reported once something else was stored.
  LumariKey custom = K::fromRawValue("com.example.Scanner");
  const std::optional list = std::vector{permission(custom)};
  PermissionManager manager(list, std::nullopt);
  EXPECT_FALSE(manager.checkPermissions().changed);
  UDM::setPermissionConsent(custom, G);
  EXPECT_TRUE(manager.checkPermissions().changed);
  EXPECT_EQ(UDM::getPermissionConsent(custom, G), N);
}

TEST_F(PermissionManagerTest, UpdateOnlyRecordsWhatThePlatformReports) {
  answer("cameraAuthorizationStatus", 2);
  const std::optional<std::vector<AppPermission>> none;
  PermissionManager manager(none, std::nullopt);
  AppPermission camera = permission(K::cameraUsageDescription);
  EXPECT_FALSE(manager.updatePermissionConsent(camera, G, kConsentExplicit));
  EXPECT_FALSE(manager.updatePermissionConsent(AppPermission{}, D, kConsentExplicit));
  EXPECT_TRUE(UDM::allEntries().empty());
  UDM::setPermissionConsent(K::cameraUsageDescription, G);
  EXPECT_TRUE(manager.updatePermissionConsent(camera, D, kConsentExplicit));
  EXPECT_EQ(UDM::getPermissionConsent(K::cameraUsageDescription, N), W);
  EXPECT_TRUE(UDM::getBool(keys::kArePermissionsChanged));
  EXPECT_EQ(UDM::getInt64(keys::kPermissionsChangeTimestamp, 0), 1700000000);
  EXPECT_EQ(UDM::getString(keys::kConsentGivenType, ""), kConsentExplicit);
  EXPECT_EQ(UDM::getPendingPermissions(), std::vector<std::string>{"NSCameraUsageDescription"});
}

TEST_F(PermissionManagerTest, SettingsPromptFlagsAndOrder) {
  const std::optional all =
      std::vector{permission(K::cameraUsageDescription, "Camera", true),
                  permission(K::microphoneUsageDescription, "camera", true),
                  permission(K::localNetworkUsageDescription, "Audio 10"),
                  permission(K::siriUsageDescription, "audio 9"), AppPermission{}};
  SettingsPrompt prompt;
  prompt.permissions = std::map<std::string, bool>{{"NSCameraUsageDescription", true},
                                                   {"NSLocalNetworkUsageDescription", false}};
  // Equal names (case aside) keep document order; digits compare by value.
  // With a prompt, a key without an entry is off whatever its record says.
  struct Case {
    std::optional<SettingsPrompt> prompt;
    const char* expected;
  } cases[] = {{prompt, "Sir:0 Loc:0 Cam:1 Mic:0 "},
               {SettingsPrompt{}, "Sir:0 Loc:0 Cam:0 Mic:0 "},
               {std::nullopt, "Sir:- Loc:- Cam:1 Mic:1 "}};
  for (const auto& c : cases) {
    std::string seen;
    for (const AppPermission& p : PermissionManager(all, c.prompt).getPermissions()) {
      seen += std::string(p.permissionId->rawValue()).substr(2, 3) + ":" +
              (p.isSettingsPromptEnabled ? (*p.isSettingsPromptEnabled ? "1 " : "0 ") : "- ");
      EXPECT_EQ(p.consentStatus, N);
    }
    EXPECT_EQ(seen, c.expected);
  }
}

}  // namespace
}  // namespace pactivo::detail
