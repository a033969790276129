#include <gtest/gtest.h>

#include "pactivo/locale_utils.h"
#include "pactivo/user_default_manager.h"
#include "permissions/permission_manager.h"
#include "support/test_support.h"

namespace pactivo::detail {
namespace {

using testing::LogCapture;
using testing::ScopedPlatform;

constexpr auto G = ConsentStatus::granted;
constexpr auto D = ConsentStatus::declined;
constexpr auto N = ConsentStatus::notDetermined;

class PermissionProbeTest : public ::testing::Test {
 protected:
  ConsentStatus probe(LumariKey key) { return PermissionManager::getConsentByPermission(key); }
  ScopedPlatform scoped_;
  LogCapture log_;
};

TEST_F(PermissionProbeTest, EveryCodeOfEveryQueriedRow) {
  struct Row {
    const char* probe;
    std::vector<LumariKey::Case> keys;
    // The consent for codes 0..6, then for an absent facility.
    std::vector<ConsentStatus> byCode;
    ConsentStatus absent;
  } rows[] = {
      {"locationAuthorizationStatus",
       {LumariKey::locationWhenInUseUsageDescription, LumariKey::locationAlwaysUsageDescription,
        LumariKey::locationAlwaysAndWhenInUseUsageDescription},
       {N, D, D, G, G, N, N},
       N},
      {"cameraAuthorizationStatus",
       {LumariKey::cameraUsageDescription, LumariKey::cameraBroadcastUsageDescription},
       {N, D, D, G, N, N, N},
       N},
      {"microphoneAuthorizationStatus",
       {LumariKey::microphoneUsageDescription, LumariKey::microphoneBroadcastUsageDescription},
       {N, D, D, G, N, N, N},
       N},
      {"photoLibraryAuthorizationStatus",
       {LumariKey::photoLibraryUsageDescription},
       {N, D, D, G, G, N, N},
       N},
      {"photoLibraryAddOnlyAuthorizationStatus",
       {LumariKey::photoLibraryAddUsageDescription},
       {N, D, D, G, G, N, N},
       N},
      {"siriAuthorizationStatus", {LumariKey::siriUsageDescription}, {N, D, D, G, N, N, N}, N},
      // Any non-zero availability reads as authorized; zero as unknown.
      {"healthDataAvailability",
       {LumariKey::healthShareUsageDescription, LumariKey::healthUpdateUsageDescription},
       {N, G, G, G, G, G, G},
       N},
      // 1 and 2 are read crosswise (denied, restricted): both decline.
      {"bluetoothAuthorization",
       {LumariKey::bluetoothPeripheralUsageDescription, LumariKey::bluetoothAlwaysUsageDescription},
       {N, D, D, G, N, N, N},
       N},
      {"speechRecognitionAuthorizationStatus",
       {LumariKey::speechRecognitionUsageDescription},
       {N, D, D, G, N, N, N},
       N},
      {"homeKitAuthorizationStatus",
       {LumariKey::homeKitUsageDescription},
       {N, D, G, N, N, G, N},
       N},
  };
  for (const auto& row : rows) {
    for (LumariKey::Case key : row.keys) {
      for (int code = 0; code < static_cast<int>(row.byCode.size()); ++code) {
        scoped_.platform().setProbe(row.probe, code);
        EXPECT_EQ(probe(key), row.byCode[code]) << row.probe << " code " << code;
      }
      scoped_.platform().setProbe(row.probe, -1);
      const bool anyNonZeroGrants = std::string(row.probe) == "healthDataAvailability";
      EXPECT_EQ(probe(key), anyNonZeroGrants ? G : N) << row.probe << " code -1";
      scoped_.platform().setProbe(row.probe, std::nullopt);
      EXPECT_EQ(probe(key), row.absent) << row.probe << " absent";
    }
  }
}

TEST_F(PermissionProbeTest, TrackingUsesTheTrackingStatus) {
  for (auto [code, expected] : {std::pair{0, N}, {1, D}, {2, D}, {3, G}, {4, N}}) {
    scoped_.platform().setTrackingAuthorizationStatus(code);
    EXPECT_EQ(probe(LumariKey::userTrackingUsageDescription), expected) << code;
  }
}

TEST_F(PermissionProbeTest, UnqueriedKeysAreNotDetermined) {
  for (const char* name : {"cameraAuthorizationStatus", "locationAuthorizationStatus"}) {
    scoped_.platform().setProbe(name, 3);
  }
  for (LumariKey key : {LumariKey(LumariKey::contactsUsageDescription),
                        LumariKey(LumariKey::calendarsUsageDescription),
                        LumariKey(LumariKey::remindersUsageDescription),
                        LumariKey(LumariKey::motionUsageDescription),
                        LumariKey(LumariKey::appleMusicUsageDescription),
                        LumariKey(LumariKey::faceIDUsageDescription),
                        LumariKey(LumariKey::nfcReaderUsageDescription),
                        LumariKey::makeCustom("NSCameraUsageDescription"),
                        LumariKey::fromRawValue("com.example.Custom")}) {
    EXPECT_EQ(probe(key), N) << key.rawValue();
  }
}

TEST_F(PermissionProbeTest, NotificationProbeNeverWaits) {
  // The answer arrives later: the probe has already returned.
  scoped_.platform().setNotificationStatus(2, false);
  EXPECT_EQ(probe(LumariKey::userNotificationsUsageDescription), N);
  // A platform that answers before the request returns is read as it is.
  struct Case {
    int status;
    ConsentStatus expected;
  } cases[] = {{0, N}, {1, D}, {2, G}, {3, G}, {4, G}, {5, N}};
  for (const auto& c : cases) {
    scoped_.platform().setNotificationStatus(c.status, true);
    EXPECT_EQ(probe(LumariKey::userNotificationsUsageDescription), c.expected) << c.status;
  }
}

TEST_F(PermissionProbeTest, DeclaredKeysReadTheInformationDictionary) {
  struct Case {
    LumariKey::Case key;
    std::string infoKey;
    std::optional<std::string> value;
    ConsentStatus expected;
  } cases[] = {
      {LumariKey::localNetworkUsageDescription, "NSLocalNetworkUsageDescription", std::nullopt, N},
      {LumariKey::localNetworkUsageDescription, "NSLocalNetworkUsageDescription", "", N},
      {LumariKey::localNetworkUsageDescription, "NSLocalNetworkUsageDescription", "Denied", D},
      {LumariKey::localNetworkUsageDescription, "NSLocalNetworkUsageDescription", "Restricted", D},
      {LumariKey::localNetworkUsageDescription, "NSLocalNetworkUsageDescription", "Authorized", G},
      {LumariKey::localNetworkUsageDescription, "NSLocalNetworkUsageDescription",
       "Always Authorized", G},
      {LumariKey::localNetworkUsageDescription, "NSLocalNetworkUsageDescription",
       "Authorized When In Use", G},
      {LumariKey::localNetworkUsageDescription, "NSLocalNetworkUsageDescription", "authorized", N},
      {LumariKey::fileProviderDomainUsageDescription, "NSFileProviderDomainUsageDescription",
       "Authorized", G},
      {LumariKey::fileProviderDomainUsageDescription, "NSFileProviderDomainUsageDescription",
       "Always Authorized", N},
      {LumariKey::systemExtensionUsageDescription, "NSExtensionUsageDescription", "Authorized", G},
      {LumariKey::systemExtensionUsageDescription, "NSSystemExtensionUsageDescription",
       "Authorized", N},
  };
  for (const auto& c : cases) {
    testing::ScopedPlatform fresh;
    if (c.value) fresh.platform().setInfo(c.infoKey, *c.value);
    EXPECT_EQ(probe(c.key), c.expected) << c.infoKey << "=" << c.value.value_or("(absent)");
  }
}

TEST_F(PermissionProbeTest, FailingProbeIsLoggedAndNotDetermined) {
  scoped_.platform().setProbe("cameraAuthorizationStatus", 3);
  scoped_.platform().setProbeFailure("camera service crashed");
  EXPECT_EQ(probe(LumariKey::cameraUsageDescription), N);
  EXPECT_TRUE(log_.contains("[ERROR] [permission_probe.cc:"));
  EXPECT_TRUE(
      log_.contains("getConsentByPermission(lumiriKey:) - Something went wrong while "
                    "fetching the permission status: camera service crashed"));
}

AppPermission permission(LumariKey key, std::string name = "") {
  AppPermission p;
  p.permissionId = key;
  if (!name.empty()) p.nameMap = LocalizedText{{"en", std::move(name)}};
  return p;
}

class PermissionManagerTest : public PermissionProbeTest {};

// Managers read the document's list in place; this one owns its list.
struct PermissionList {
  std::optional<std::vector<AppPermission>> list;
};
class OwnedPermissionManager : private PermissionList, public PermissionManager {
 public:
  OwnedPermissionManager(std::optional<std::vector<AppPermission>> permissions,
                         const std::optional<SettingsPrompt>& prompt)
      : PermissionList{std::move(permissions)}, PermissionManager(list, prompt) {}
};

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
      {"granted, now denied", G, 2, false, true, ConsentStatus::withDrawn},
      {"withdrawn, still denied", ConsentStatus::withDrawn, 2, false, false,
       ConsentStatus::withDrawn},
      {"declined, now granted", D, 3, false, true, G},
      {"unchanged, pending again", G, 3, true, true, G},
      {"facility gone", G, std::nullopt, false, true, N},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    UserDefaultManager::removeAllConsents();
    if (c.stored)
      UserDefaultManager::setPermissionConsent(LumariKey::cameraUsageDescription, *c.stored);
    if (c.pending) UserDefaultManager::addPendingPermission(LumariKey::cameraUsageDescription);
    scoped_.platform().setProbe("cameraAuthorizationStatus", c.camera);
    OwnedPermissionManager manager(
        std::vector{permission(LumariKey::cameraUsageDescription), AppPermission{}}, std::nullopt);
    log_.clear();
    auto result = manager.checkPermissions();
    EXPECT_EQ(result.changed, c.reported);
    EXPECT_EQ(result.consents.size(), c.reported ? 1u : 0u);
    if (c.reported) {
      EXPECT_EQ(result.consents[0],
                PermissionConsent(LumariKey::cameraUsageDescription, c.storedAfter, 1700000000));
      EXPECT_EQ(UserDefaultManager::getPendingPermissions(),
                std::vector<std::string>{"NSCameraUsageDescription"});
      EXPECT_TRUE(log_.contains("[INFO]"));
      EXPECT_TRUE(
          log_.contains("checkPermissions() - Changed Permissions: [PermissionConsent("
                        "permission: NSCameraUsageDescription, consentStatus: " +
                        std::string(rawValue(c.storedAfter))));
    }
    EXPECT_EQ(UserDefaultManager::getPermissionConsent(LumariKey::cameraUsageDescription, D),
              c.storedAfter);
    EXPECT_TRUE(log_.contains("checkPermissions() - Permissions consent checks executed."));
    EXPECT_FALSE(UserDefaultManager::getBool(keys::kArePermissionsChanged));
  }
}

TEST_F(PermissionManagerTest, CustomKeyIsReportedOnlyWhenPendingOrDifferent) {
  LumariKey custom = LumariKey::fromRawValue("com.example.Scanner");
  OwnedPermissionManager manager(std::vector{permission(custom)}, std::nullopt);
  EXPECT_FALSE(manager.checkPermissions().changed);
  UserDefaultManager::setPermissionConsent(custom, G);
  EXPECT_TRUE(manager.checkPermissions().changed);
  EXPECT_EQ(UserDefaultManager::getPermissionConsent(custom, G), N);
}

TEST_F(PermissionManagerTest, UpdateOnlyRecordsWhatThePlatformReports) {
  scoped_.platform().setProbe("cameraAuthorizationStatus", 2);
  OwnedPermissionManager manager(std::nullopt, std::nullopt);
  AppPermission camera = permission(LumariKey::cameraUsageDescription);
  EXPECT_FALSE(manager.updatePermissionConsent(camera, G, kConsentExplicit));
  EXPECT_TRUE(UserDefaultManager::allEntries().empty());
  EXPECT_FALSE(manager.updatePermissionConsent(AppPermission{}, D, kConsentExplicit));

  UserDefaultManager::setPermissionConsent(LumariKey::cameraUsageDescription, G);
  EXPECT_TRUE(manager.updatePermissionConsent(camera, D, kConsentExplicit));
  EXPECT_EQ(UserDefaultManager::getPermissionConsent(LumariKey::cameraUsageDescription, N),
            ConsentStatus::withDrawn);
  EXPECT_TRUE(UserDefaultManager::getBool(keys::kArePermissionsChanged));
  EXPECT_EQ(UserDefaultManager::getInt64(keys::kPermissionsChangeTimestamp, 0), 1700000000);
  EXPECT_EQ(UserDefaultManager::getString(keys::kConsentGivenType, ""), kConsentExplicit);
  EXPECT_EQ(UserDefaultManager::getPendingPermissions(),
            std::vector<std::string>{"NSCameraUsageDescription"});
}

TEST_F(PermissionManagerTest, SettingsPromptFlagsAndOrder) {
  AppPermission camera = permission(LumariKey::cameraUsageDescription, "Camera");
  camera.isSettingsPromptEnabled = true;
  AppPermission mic = permission(LumariKey::microphoneUsageDescription, "camera");
  mic.isSettingsPromptEnabled = true;
  AppPermission local = permission(LumariKey::localNetworkUsageDescription, "Audio 10");
  AppPermission audio9 = permission(LumariKey::siriUsageDescription, "audio 9");
  std::vector<AppPermission> all{camera, mic, local, audio9, AppPermission{}};

  SettingsPrompt prompt;
  prompt.permissions = std::map<std::string, bool>{{"NSCameraUsageDescription", true},
                                                   {"NSLocalNetworkUsageDescription", false}};
  auto withPrompt = OwnedPermissionManager(all, prompt).getPermissions();
  ASSERT_EQ(withPrompt.size(), 4u);
  // Equal names (case aside) keep document order; digits compare by value.
  EXPECT_EQ(withPrompt[0].permissionId, LumariKey(LumariKey::siriUsageDescription));
  EXPECT_EQ(withPrompt[1].permissionId, LumariKey(LumariKey::localNetworkUsageDescription));
  EXPECT_EQ(withPrompt[2].permissionId, LumariKey(LumariKey::cameraUsageDescription));
  EXPECT_EQ(withPrompt[3].permissionId, LumariKey(LumariKey::microphoneUsageDescription));
  EXPECT_EQ(withPrompt[2].isSettingsPromptEnabled, true);
  EXPECT_EQ(withPrompt[3].isSettingsPromptEnabled,
            false);  // no entry: false, whatever the record says
  EXPECT_EQ(withPrompt[1].isSettingsPromptEnabled, false);
  EXPECT_EQ(withPrompt[1].consentStatus, N);

  auto emptyMap = OwnedPermissionManager(all, SettingsPrompt{}).getPermissions();
  EXPECT_EQ(emptyMap[2].isSettingsPromptEnabled, false);
  auto noPrompt = OwnedPermissionManager(all, std::nullopt).getPermissions();
  EXPECT_EQ(noPrompt[2].isSettingsPromptEnabled, true);  // the record's own flag
  EXPECT_EQ(noPrompt[0].isSettingsPromptEnabled, std::nullopt);
}

}  // namespace
}  // namespace pactivo::detail
