#include <gtest/gtest.h>
#include <rapidjson/document.h>
#include <rapidjson/writer.h>

#include <fstream>
#include <sstream>
#include <variant>

#include "pactivo/json.h"
#include "pactivo/options.h"
#include "support/test_support.h"

namespace pactivo {
namespace {

using testing::exampleDocument;

LocalizedText texts(const std::string& stem) {
  return LocalizedText{{"en", stem + " en"}, {"fr", stem + " fr é"}, {"_", stem}};
}

// A document in which every field of every record holds a value.
MainConfiguration fullConfiguration() {
  SDK sdk{7,        "ns",         texts("sdk"), texts("sdk description"),
          "vendor", "bG9nbw==",   "https://w",  std::vector<std::string>{"a", "b"},
          true,     "2024-01-01", "MIT"};
  Purpose purpose;
  purpose.purposeId = 12;
  purpose.purposeName = texts("name");
  purpose.purposeDescription = texts("description");
  purpose.sdks = std::vector<SDK>{sdk, sdk};
  purpose.consentStatus = ConsentStatus::withDrawn;
  purpose.disableOptOut = false;
  purpose.optOutText = texts("opt out");
  purpose.hideDetails = true;

  AppPermission permission;
  permission.id = 1;
  permission.name = "Camera";
  permission.permissionId = LumariKey::cameraUsageDescription;
  permission.description = texts("camera");
  permission.group = "Device";
  permission.groupId = 3;
  permission.consentStatus = ConsentStatus::notDetermined;
  permission.nameMap = texts("camera name");
  AppPermission custom = permission;
  custom.permissionId = LumariKey::fromRawValue("com.example.Custom");

  CustomColors colors{"1", "2", "3", "4", "5", "6", "7", "8", "9", "10", "11", "12"};
  BannerConfig banner{true,
                      false,
                      true,
                      true,
                      false,
                      "GDPR",
                      "https://dsr",
                      ComplianceType::optIn,
                      "6 month",
                      "https://p",
                      texts("a"),
                      texts("r"),
                      texts("bt"),
                      texts("bh"),
                      texts("st"),
                      texts("pnt"),
                      texts("pcl"),
                      texts("pth"),
                      texts("ptg"),
                      texts("pch"),
                      texts("pcg"),
                      texts("ptd"),
                      texts("pcd"),
                      true,
                      false,
                      4,
                      BannerPosition::center,
                      ButtonShape::outlined,
                      "logo",
                      colors,
                      true,
                      std::nullopt};
  BannerConfig minimal;
  minimal.complianceType = ComplianceType::noticeOnly;

  DefaultMapping mapping{std::vector<std::int64_t>{1}, std::vector<std::int64_t>{},
                         std::vector<std::int64_t>{2, 3}, std::vector<std::int64_t>{-4}};
  MainConfiguration config;
  config.generatedOn = 1731974400;
  config.id = "id";
  config.name = "name";
  config.description = "description";
  config.tenantId = "tenant";
  config.platform = "linux";
  config.status = "published";
  config.version = 9;
  config.logoBase64 = "iVBOR";
  config.token = "token";
  config.sdkVersion = "2.0";
  config.purposes = std::vector<Purpose>{purpose, Purpose{}};
  config.permissions = std::vector<AppPermission>{permission, custom};
  config.bannerConfig = ConsentBannerConfig{{{"gdpr", banner}, {"min", minimal}},
                                            {{"gdpr", "Europe"}},
                                            {{"DE", "gdpr"}, {"default", "min"}}};
  config.translations =
      Translations{{"en", std::map<std::string, std::string>{{"k", "v"}}}, {"xx", std::nullopt}};
  config.isATTEnabled = true;
  config.attConfig = ATTConfig{true, std::vector<std::int64_t>{12}, texts("att")};
  config.settingPrompt =
      SettingsPrompt{texts("h"), texts("m"), texts("s"), texts("n"),
                     std::map<std::string, bool>{{"NSCameraUsageDescription", true}}};
  config.reConsentEnabled = false;
  config.isSettingsPromptEnabled = true;
  config.isGcmEnabled = true;
  config.gcmConfig = GcmConfig{true, texts("gcm"), mapping,
                               std::map<std::string, DefaultMapping>{{"US, CA", mapping}}};
  return config;
}

TEST(JsonCodec, FullDocumentRoundTrips) {
  MainConfiguration config = fullConfiguration();
  std::string json = encode(config);
  auto decoded = decode<MainConfiguration>(json);
  ASSERT_TRUE(decoded.ok()) << decoded.error;
  EXPECT_EQ(*decoded.value, config);
  EXPECT_EQ(encode(*decoded.value), json);
}

// tests/data/every_key.json holds every key of the configuration document and
// of the upload, spelled as the servers spell them: each decodes into the
// record built by hand and encodes back to the same JSON.
TEST(JsonCodec, EveryKeyAsTheServersSpellIt) {
  std::ifstream in(PACTIVO_TEST_DATA_DIR "/every_key.json");
  std::stringstream text;
  text << in.rdbuf();
  rapidjson::Document golden;
  ASSERT_FALSE(golden.Parse(text.str().c_str()).HasParseError());
  auto part = [&](const char* name) {
    rapidjson::StringBuffer buffer;
    rapidjson::Writer<rapidjson::StringBuffer> writer(buffer);
    golden[name].Accept(writer);
    return std::string(buffer.GetString(), buffer.GetSize());
  };
  auto sameJson = [](const std::string& a, const std::string& b) {
    rapidjson::Document x, y;  // objects compare member by member, in any order
    return !x.Parse(a.c_str()).HasParseError() && !y.Parse(b.c_str()).HasParseError() && x == y;
  };
  auto configuration = decode<MainConfiguration>(part("configuration"));
  ASSERT_TRUE(configuration.ok()) << configuration.error;
  EXPECT_EQ(*configuration.value, fullConfiguration());
  EXPECT_TRUE(sameJson(encode(fullConfiguration()), part("configuration")));

  PostConsentsRequest upload(
      "SUBJ", "app", "Living room TV", true, 3,
      {PurposeConsent(12, ConsentStatus::withDrawn, 1704067200, false)},
      {PermissionConsent(LumariKey::cameraUsageDescription, ConsentStatus::granted, 1704067201)},
      false, "AD", "opt-in");
  upload.sdkVersion = "1.2.3";
  auto decodedUpload = decode<PostConsentsRequest>(part("upload"));
  ASSERT_TRUE(decodedUpload.ok()) << decodedUpload.error;
  EXPECT_EQ(*decodedUpload.value, upload);
  EXPECT_TRUE(sameJson(encode(upload), part("upload"))) << encode(upload);
}

TEST(JsonCodec, ExampleDocumentDecodesAndRoundTrips) {
  auto decoded = decode<MainConfiguration>(exampleDocument());
  ASSERT_TRUE(decoded.ok()) << decoded.error;
  const MainConfiguration& config = *decoded.value;
  EXPECT_EQ(config.version, 3);
  EXPECT_EQ(config.token, "demo-upload-token-5d1e");
  ASSERT_TRUE(config.purposes);
  EXPECT_EQ(config.purposes->size(), 5u);
  EXPECT_EQ(config.bannerConfig->categories.size(), 3u);
  EXPECT_EQ(config.bannerConfig->locations.at("default"), "notice");
  EXPECT_EQ(*(*config.purposes)[0].purposeName->find("fr"), "Strictement nécessaire");
  auto again = decode<MainConfiguration>(encode(config));
  ASSERT_TRUE(again.ok()) << again.error;
  EXPECT_EQ(*again.value, config);
}

TEST(JsonCodec, EmptyObjectHasNoFields) {
  auto decoded = decode<MainConfiguration>("{}");
  ASSERT_TRUE(decoded.ok());
  EXPECT_EQ(*decoded.value, MainConfiguration{});
  EXPECT_EQ(encode(*decoded.value), "{}");
  auto purpose = decode<Purpose>(R"({"purpose_id": 4, "unknown": [1, {"x": null}]})");
  ASSERT_TRUE(purpose.ok());
  EXPECT_EQ(encode(*purpose.value), R"({"purpose_id":4})");
}

TEST(JsonCodec, OddKeysAreTheOnlyOnesRead) {
  struct Case {
    const char* json;
    std::function<bool(const MainConfiguration&)> check;
  } cases[] = {
      {R"({"x-auth-token": "t"})", [](const auto& c) { return c.token == "t"; }},
      {R"({"token": "t"})", [](const auto& c) { return !c.token; }},
      {R"({"is_sp_enabled": true})",
       [](const auto& c) { return c.isSettingsPromptEnabled == true; }},
      {R"({"is_settings_prompt_enabled": true})",
       [](const auto& c) { return !c.isSettingsPromptEnabled; }},
      {R"({"att_or_gad_config": {"purpose_ids": [1]}})",
       [](const auto& c) { return c.attConfig && c.attConfig->purposeIds->size() == 1; }},
      {R"({"att_config": {}})", [](const auto& c) { return !c.attConfig; }},
      {R"({"settings_prompt": {}})", [](const auto& c) { return c.settingPrompt.has_value(); }},
      {R"({"i18n": {"en": {"a": "b"}, "de": null}})",
       [](const auto& c) {
         return c.translations->at("en")->at("a") == "b" && !c.translations->at("de");
       }},
      {R"({"permissions": [{"nameI18N": {"en": "x"}}]})",
       [](const auto& c) { return (*c.permissions)[0].nameMap.has_value(); }},
      {R"({"permissions": [{"name_i18n": {"en": "x"}, "namei18n": {"en": "x"}}]})",
       [](const auto& c) { return !(*c.permissions)[0].nameMap; }},
      {R"({"permissions": [{"isSettingsPromptEnabled": true, "is_settings_prompt_enabled": true}]})",
       [](const auto& c) { return !(*c.permissions)[0].isSettingsPromptEnabled; }},
      {R"({"purposes": [{"isATTMapped": true, "is_att_mapped": true, "attDescription": {}}]})",
       [](const auto& c) {
         return !(*c.purposes)[0].isATTMapped && !(*c.purposes)[0].attDescription;
       }},
      {R"({"purposes": [{"sdk": [], "SDKs": []}]})",
       [](const auto& c) { return !(*c.purposes)[0].sdks; }},
      {R"({"banner_config": {"categories": {"c": {"hide_accept_toggle": true, "hide_accept_button": false}}, "names_map": {}, "locations": {}}})",
       [](const auto& c) { return c.bannerConfig->categories.at("c").hideAcceptButton == true; }},
      {R"({"banner_config": {"categories": {"c": {"hide_accept_button": true}}, "names_map": {}, "locations": {}}})",
       [](const auto& c) { return !c.bannerConfig->categories.at("c").hideAcceptButton; }},
      {R"({"banner_config": {"categories": {"c": {"show_description_text_with_preference_center_toggle": true, "palette": {"button_background": "1", "button_text": "2", "button_border": "3", "banner_background": "4", "banner_text": "5", "banner_links": "6", "preference_center_footer_background": "7", "preference_center_footer_selector": "8"}, "translations": {}}}, "names_map": {}, "locations": {}}})",
       [](const auto& c) {
         const auto& b = c.bannerConfig->categories.at("c");
         return b.showDescriptionTextWithPrefCenterToggle == true && b.customPaletteTheme &&
                !b.customPaletteTheme->togglePrimarycolor && !b.translations;
       }},
      {R"({"version": null, "purposes": null})",
       [](const auto& c) { return !c.version && !c.purposes; }},
      {R"({"version": 2.0})", [](const auto& c) { return c.version == 2; }},
      {R"({"version": -9223372036854775808})",
       [](const auto& c) { return c.version == INT64_MIN; }},
      {R"({"version": 1, "version": 5})", [](const auto& c) { return c.version == 5; }},
      {R"({"banner_config": {"categories": {"eu": {"name": "A", "compliance_type": "opt-in"}, "eu": {"name": "B"}}, "names_map": {}, "locations": {}}})",
       [](const auto& c) {
         const auto& eu = c.bannerConfig->categories.at("eu");
         return eu.name == "B" && !eu.complianceType;
       }},
      {R"({"gcm_config": {"region_overrides": {"US": {"ad_storage": [1]}, "US": {"ad_user_data": [2]}}}})",
       [](const auto& c) {
         const auto& us = c.gcmConfig->regionOverrides->at("US");
         return us.adUserData->size() == 1 && !us.adStorage;
       }},
  };
  for (const auto& c : cases) {
    auto decoded = decode<MainConfiguration>(c.json);
    ASSERT_TRUE(decoded.ok()) << c.json << ": " << decoded.error;
    EXPECT_TRUE(c.check(*decoded.value)) << c.json;
  }
}

TEST(JsonCodec, BannerTranslationsAreNeverEncoded) {
  BannerConfig banner;
  banner.name = "n";
  banner.translations = Translations{{"en", std::nullopt}};
  EXPECT_EQ(encode(banner), R"({"name":"n"})");
}

TEST(JsonCodec, BadDocumentsFailWithThePath) {
  const std::string palette7 =
      R"("palette": {"button_background": "1", "button_text": "2", "button_border": "3", "banner_background": "4", "banner_text": "5", "preference_center_footer_background": "7", "preference_center_footer_selector": "8"})";
  struct Case {
    std::string json;
    std::string error;
  } cases[] = {
      {R"({"purposes": [{}, {}, {}, {"consent_status": "opt_in"}]})",
       R"(purposes[3].consent_status: unknown value "opt_in")"},
      {R"({"purposes": [{"consent_status": "withDrawn"}]})",
       R"(purposes[0].consent_status: unknown value "withDrawn")"},
      {R"({"version": "3"})", "version: expected integer, found string"},
      {R"({"version": 1.5})", "version: expected integer, found a fraction"},
      {R"({"version": 9223372036854775808})",
       "version: integer 9223372036854775808 does not fit in 64 bits"},
      {R"({"version": 1e300})", "version: integer does not fit in 64 bits"},
      {R"({"is_gcm_enabled": 1})", "is_gcm_enabled: expected boolean, found integer"},
      {R"({"purposes": {}})", "purposes: expected array, found object"},
      {R"({"purposes": [{"purpose_name": {"en": 3}}]})",
       "purposes[0].purpose_name.en: expected string, found integer"},
      {R"({"purposes": [{"sdks": [{"matched_by": ["a", null]}]}]})",
       "purposes[0].sdks[0].matched_by[1]: expected string, found null"},
      {R"({"permissions": [{"permission_id": 5}]})",
       "permissions[0].permission_id: expected string, found integer"},
      {R"({"banner_config": {"categories": {}, "locations": {}}})",
       R"(banner_config: missing required key "names_map")"},
      {R"({"banner_config": {"categories": {}, "locations": {}, "names_map": null}})",
       R"(banner_config: missing required key "names_map")"},
      {R"({"banner_config": {"categories": {"eu": {)" + palette7 +
           R"(}}, "names_map": {}, "locations": {}}})",
       R"(banner_config.categories.eu.palette: missing required key "banner_links")"},
      {R"({"banner_config": {"categories": {"eu": {"compliance_type": "opt_in"}}, "names_map": {}, "locations": {}}})",
       R"(banner_config.categories.eu.compliance_type: unknown value "opt_in")"},
      {R"({"banner_config": {"categories": {"eu": {"button_shape": "Round"}}, "names_map": {}, "locations": {}}})",
       R"(banner_config.categories.eu.button_shape: unknown value "Round")"},
      {R"({"banner_config": {"categories": {"eu": {"banner_position": "top"}}, "names_map": {}, "locations": {}}})",
       R"(banner_config.categories.eu.banner_position: unknown value "top")"},
      {R"({"gcm_config": {"region_overrides": {"US": {"ad_storage": [1.5]}}}})",
       "gcm_config.region_overrides.US.ad_storage[0]: expected integer, found a fraction"},
      {R"({"i18n": {"en": {"a": 1}}})", "i18n.en.a: expected string, found integer"},
      {R"({"settings_prompt": {"permissions": {"x": "yes"}}})",
       "settings_prompt.permissions.x: expected boolean, found string"},
      {"[]", "expected object, found array"},
      {"\"text\"", "expected object, found string"},
      {"null", "expected object, found null"},
  };
  for (const auto& c : cases) {
    auto decoded = decode<MainConfiguration>(c.json);
    EXPECT_FALSE(decoded.ok()) << c.json;
    EXPECT_EQ(decoded.error, c.error) << c.json;
  }
}

TEST(JsonCodec, HostileInputFailsCleanly) {
  std::string deep = std::string(100000, '[') + std::string(100000, ']');
  std::string deepObjects;
  for (int i = 0; i < 5000; ++i) deepObjects += "{\"i18n\":";
  deepObjects += "{}";
  deepObjects += std::string(5000, '}');
  std::string hostile[] = {
      "",
      "{",
      "{\"version\": 1",
      "{\"version\": NaN}",
      "{\"version\": Infinity}",
      "{\"version\": -Infinity}",
      "\xEF\xBB\xBF{}",
      "{} trailing",
      "{}{}",
      std::string("{\"name\": \"\xC3\x28\"}"),
      std::string("{\"name\": \"\xFF\"}"),
      std::string("{\"a\": 1}\0", 9),
      "{'name': 'single quotes'}",
      "{\"name\": \"unterminated}",
      "{\"version\": 00012}",
      deep,
      deepObjects,
      std::string(1 << 20, ' '),
  };
  for (const auto& json : hostile) {
    auto decoded = decode<MainConfiguration>(json);
    EXPECT_FALSE(decoded.ok()) << json.substr(0, 40);
    EXPECT_FALSE(decoded.error.empty());
  }
  auto bom = decode<MainConfiguration>("\xEF\xBB\xBF{}");
  EXPECT_EQ(bom.error, "invalid JSON: the document starts with a byte-order mark");
}

TEST(JsonCodec, UploadRecordEncoding) {
  testing::ScopedPlatform scoped;
  scoped.platform().setLibraryVersion(std::nullopt);
  PostConsentsRequest request(
      "SUBJ", "app", "Living room TV", true, 3,
      {PurposeConsent(12, ConsentStatus::withDrawn, 1704067200, false)},
      {PermissionConsent(LumariKey::makeCustom("x.y"), ConsentStatus::granted, 1704067201)}, false,
      "", "opt-in");
  EXPECT_EQ(encode(request),
            R"({"uuid":"SUBJ","app_uuid":"app","platform":"ios","device":"Living room TV",)"
            R"("implicit_consent":true,"version":3,"purpose_consents":[{"purpose_id":12,)"
            R"("consent_status":"withdrawn","timestamp":1704067200,"is_essential":false}],)"
            R"("permissions":[{"permission":"x.y","consent_status":"granted",)"
            R"("timestamp":1704067201}],"is_test_mode":false,"ad_id":"","banner_info":"opt-in"})");

  scoped.platform().setLibraryVersion("1.2.3");
  PostConsentsRequest versioned("u", "a", "d", false, 1, {}, {}, true, "AD", "notice-only");
  EXPECT_EQ(versioned.sdkVersion, "1.2.3");
  std::string json = encode(versioned);
  EXPECT_NE(json.find(R"("sdk_version":"1.2.3")"), std::string::npos);
  auto decoded = decode<PostConsentsRequest>(json);
  ASSERT_TRUE(decoded.ok()) << decoded.error;
  EXPECT_EQ(*decoded.value, versioned);

  auto noPlatform = decode<PostConsentsRequest>(
      R"({"uuid":"u","app_uuid":"a","platform":"android","device":"d","implicit_consent":false,)"
      R"("version":1,"purpose_consents":[],"permissions":[],"is_test_mode":true,"ad_id":"",)"
      R"("banner_info":"x"})");
  ASSERT_TRUE(noPlatform.ok()) << noPlatform.error;
  EXPECT_EQ(noPlatform.value->platform, "ios");
  static_assert(std::is_const_v<decltype(PostConsentsRequest::platform)>);
  EXPECT_EQ(noPlatform.value->sdkVersion, std::nullopt);

  auto missing = decode<PostConsentsRequest>(R"({"uuid":"u"})");
  EXPECT_EQ(missing.error, R"(missing required key "app_uuid")");
  auto consent =
      decode<PurposeConsent>(R"({"purpose_id":1,"consent_status":"granted","timestamp":2})");
  EXPECT_EQ(consent.error, R"(missing required key "is_essential")");
}

TEST(JsonCodec, ServerReplies) {
  auto generic = decode<GenericResponse>(R"({"status": 0, "message": "ok"})");
  ASSERT_TRUE(generic.ok());
  EXPECT_EQ(generic.value->message, "ok");
  EXPECT_EQ(decode<GenericResponse>(R"({"status": 0})").error, R"(missing required key "message")");

  auto noData = decode<CurrentLocationResponse>(R"({"status": 0, "message": "m"})");
  ASSERT_TRUE(noData.ok());
  EXPECT_FALSE(noData.value->data);
  auto nullData = decode<CurrentLocationResponse>(R"({"status": 0, "message": "m", "data": null})");
  ASSERT_TRUE(nullData.ok());
  EXPECT_FALSE(nullData.value->data);

  std::string data = R"({"City": {}, "Continent": {}, "Country": {"en": "Germany"},)"
                     R"( "CountryISOCode": {"code": "DE"}, "Language": {}, "Location": {},)"
                     R"( "RegisteredCountry": {}, "State": {})";
  auto partial =
      decode<CurrentLocationResponse>(R"({"status": 0, "message": "m", "data": )" + data + "}}");
  EXPECT_EQ(partial.error, R"(data: missing required key "StateISOCode")");
  auto full = decode<CurrentLocationResponse>(R"({"status": 0, "message": "m", "data": )" + data +
                                              R"(, "StateISOCode": {}}})");
  ASSERT_TRUE(full.ok()) << full.error;
  EXPECT_EQ(full.value->data->countryISOCode.at("code"), "DE");
}

TEST(JsonCodec, ToJsonStringKeepsUtf8AndRejectsInvalidBytes) {
  GenericResponse reply{0, "Grüße, 世界"};
  EXPECT_EQ(toJSONString(reply), R"({"status":0,"message":"Grüße, 世界"})");
  reply.message = "\xFF";
  EXPECT_EQ(toJSONString(reply, DateEncodingStrategy::iso8601), std::nullopt);
  EXPECT_EQ(typeName<MainConfiguration>(), "MainConfiguration");
  EXPECT_EQ(typeName<GenericResponse>(), "GenericResponse");
}

// The value with case index `index` of an enumeration or of LumariKey.
template <typename T>
T valueAt(std::size_t index) {
  if constexpr (std::is_enum_v<T>) {
    return static_cast<T>(index);
  } else {
    return LumariKey(static_cast<LumariKey::Case>(index));
  }
}

TEST(JsonCodec, RawValueTypesCodeAsTheirRawValueStrings) {
  using Value = std::variant<ConsentStatus, PurposeStatus, PermissionStatus, ComplianceType,
                             BannerPosition, ButtonShape, GoogleConsentType, LumariKey>;
  struct Case {
    Value first;  // the type, by its first value
    std::string_view name;
    std::size_t count;
    std::string_view raws;  // every raw value in case order, comma-separated
  } cases[] = {
      {ConsentStatus{}, "ConsentStatus", 4, "granted,declined,not_determined,withdrawn"},
      {PurposeStatus{}, "PurposeStatus", 3, "Authorized,Denied,Not Determined"},
      {PermissionStatus{}, "PermissionStatus", 13,
       "Authorized,Always Authorized,Authorized When In Use,Denied,Restricted,Not Determined,"
       "Unknown,Provisional,Limited,Not Available,Full Access,Write Only,Ephemeral"},
      {ComplianceType{}, "ComplianceType", 3, "notice-only,opt-in,opt-out"},
      {BannerPosition{}, "BannerPosition", 2, "bottom,center"},
      {ButtonShape{}, "ButtonShape", 5, "rounded,square,pill,outlined,edgeless"},
      {GoogleConsentType{}, "GoogleConsentType", 4,
       "analytics_storage,ad_storage,ad_user_data,ad_personalization"},
      {LumariKey::locationWhenInUseUsageDescription, "LumariKey", 28,
       "NSLocationWhenInUseUsageDescription,NSLocationAlwaysUsageDescription,"
       "NSLocationAlwaysAndWhenInUseUsageDescription,NSCameraUsageDescription,"
       "NSMicrophoneUsageDescription,NSPhotoLibraryUsageDescription,"
       "NSPhotoLibraryAddUsageDescription,NSContactsUsageDescription,"
       "NSCalendarsUsageDescription,NSRemindersUsageDescription,"
       "NSMotionUsageDescription,NSHealthShareUsageDescription,"
       "NSHealthUpdateUsageDescription,NSBluetoothPeripheralUsageDescription,"
       "NSBluetoothAlwaysUsageDescription,NSSiriUsageDescription,"
       "NSSpeechRecognitionUsageDescription,NSHomeKitUsageDescription,"
       "NSUserTrackingUsageDescription,NSAppleMusicUsageDescription,"
       "NSFaceIDUsageDescription,NSCameraBroadcastUsageDescription,"
       "NSMicrophoneBroadcastUsageDescription,NSUserNotificationsUsageDescription,"
       "NSLocalNetworkUsageDescription,NSFileProviderDomainUsageDescription,"
       "NSSystemExtensionUsageDescription,NFCReaderUsageDescription"},
  };
  for (const auto& c : cases) {
    std::visit(
        [&](const auto& first) {
          using T = std::decay_t<decltype(first)>;
          EXPECT_EQ(typeName<T>(), c.name);
          std::size_t index = 0;
          for (std::string_view rest = c.raws; !rest.empty(); ++index) {
            std::string raw(rest.substr(0, rest.find(',')));
            rest.remove_prefix(std::min(rest.size(), raw.size() + 1));
            std::string json = "\"" + raw + "\"";
            EXPECT_EQ(encode(valueAt<T>(index)), json);
            EXPECT_EQ(decode<T>(json).value, valueAt<T>(index)) << json;
          }
          EXPECT_EQ(index, c.count) << c.name;
          EXPECT_EQ(decode<T>("1").error, "expected string, found integer") << c.name;
        },
        c.first);
  }
  EXPECT_EQ(decode<LumariKey>(R"("com.example.Custom")").value,
            LumariKey::makeCustom("com.example.Custom"));
  EXPECT_EQ(encode(LumariKey::makeCustom("com.example.Custom")), R"("com.example.Custom")");
  EXPECT_EQ(decode<ConsentStatus>(R"("withDrawn")").error, R"(unknown value "withDrawn")");
  EXPECT_EQ(decode<ButtonShape>(R"("Pill")").error, R"(unknown value "Pill")");
}

TEST(JsonCodec, LocalizedTextEqualityIgnoresOrder) {
  LocalizedText a{{"en", "x"}, {"de", "y"}};
  LocalizedText b{{"de", "y"}, {"en", "x"}};
  EXPECT_EQ(a, b);
  b.set("en", "z");
  EXPECT_NE(a, b);
  EXPECT_NE(a, (LocalizedText{{"en", "x"}}));
}

TEST(JsonCodec, RecordEqualityCoversFieldsOutsideJson) {
  AppPermission a;
  a.id = 1;
  AppPermission b = a;
  b.isSettingsPromptEnabled = false;
  EXPECT_NE(a, b);
  Purpose p;
  Purpose q;
  q.isATTMapped = true;
  EXPECT_NE(p, q);
}

}  // namespace
}  // namespace pactivo

namespace pactivo {
namespace {

TEST(RecordHash, EqualRecordsHashEquallyAndFieldsOutsideJsonCount) {
  auto decoded = decode<MainConfiguration>(exampleDocument());
  ASSERT_TRUE(decoded.ok());
  MainConfiguration copy = *decoded.value;
  std::hash<MainConfiguration> hash;
  EXPECT_EQ(hash(copy), hash(*decoded.value));
  (*copy.purposes)[0].isATTMapped = true;
  EXPECT_NE(hash(copy), hash(*decoded.value));
  EXPECT_EQ(std::hash<LocalizedText>{}(LocalizedText{{"en", "x"}, {"de", "y"}}),
            std::hash<LocalizedText>{}(LocalizedText{{"de", "y"}, {"en", "x"}}));
  AppPermission a;
  AppPermission b;
  b.isSettingsPromptEnabled = false;
  EXPECT_NE(std::hash<AppPermission>{}(a), std::hash<AppPermission>{}(b));
  std::hash<WebViewConfig> web;
  EXPECT_EQ(web(WebViewConfig({"a.example"}, "<p>")), web(WebViewConfig({"a.example"}, "<p>")));
  EXPECT_NE(web(WebViewConfig({"a"}, std::nullopt)), web(WebViewConfig({"a"}, "")));
  EXPECT_NE(web(WebViewConfig({"a", "b"}, "")), web(WebViewConfig({"ab"}, "")));
}

}  // namespace
}  // namespace pactivo
