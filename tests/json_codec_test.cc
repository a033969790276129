// The JSON codec against documents kept in tests/data: every key as the
// servers spell it, the keys that are read and how, the errors with their
// paths, and input no parser may accept.
#include <gtest/gtest.h>
#include <rapidjson/document.h>
#include <rapidjson/writer.h>

#include <fstream>
#include <map>
#include <sstream>

#include "pactivo/json.h"
#include "pactivo/options.h"
#include "support/test_support.h"

namespace pactivo {
namespace {

std::string readData(const std::string& name) {
  std::ifstream in(PACTIVO_TEST_DATA_DIR "/" + name);
  std::stringstream text;
  text << in.rdbuf();
  return text.str();
}

// The lines of a data file that are neither blank nor a comment.
std::vector<std::string> dataLines(const std::string& name) {
  std::vector<std::string> lines;
  std::istringstream in(readData(name));
  for (std::string line; std::getline(in, line);) {
    if (!line.empty() && line[0] != '#') lines.push_back(line);
  }
  EXPECT_FALSE(lines.empty()) << name;
  return lines;
}

// Member `name` of tests/data/every_key.json, written compactly in file order.
std::string everyKey(const char* name) {
  rapidjson::Document golden;
  EXPECT_FALSE(golden.Parse(readData("every_key.json").c_str()).HasParseError());
  rapidjson::StringBuffer buffer;
  rapidjson::Writer<rapidjson::StringBuffer> writer(buffer);
  golden[name].Accept(writer);
  return std::string(buffer.GetString(), buffer.GetSize());
}

// "=> " and the value encoded again, or "=! " and the decoding error.
template <typename T>
std::string decodeThenEncode(std::string_view json) {
  auto decoded = decode<T>(json);
  return decoded.ok() ? "=> " + encode(*decoded.value) : "=! " + decoded.error;
}

// decodeThenEncode() for the type called `type`.
template <typename... Types>
std::string decodeAs(std::string_view type, std::string_view json) {
  std::string out = "no such type";
  ((typeName<Types>() == type ? void(out = decodeThenEncode<Types>(json)) : void()), ...);
  return out;
}

// Every key of the configuration document and of the upload: decoding and
// encoding again gives back the same members with the same values.
TEST(JsonCodec, EveryKeyAsTheServersSpellIt) {
  const std::string configuration = everyKey("configuration");
  auto decoded = decode<MainConfiguration>(configuration);
  ASSERT_TRUE(decoded.ok()) << decoded.error;
  EXPECT_EQ(encode(*decoded.value), configuration);  // exact: the members in table order
  EXPECT_EQ(decode<MainConfiguration>(encode(*decoded.value)).value, decoded.value);

  auto example = decode<MainConfiguration>(testing::exampleDocument());
  ASSERT_TRUE(example.ok()) << example.error;
  EXPECT_EQ(decode<MainConfiguration>(encode(*example.value)).value, example.value);
}

TEST(JsonCodec, UploadAsTheLibraryBuildsIt) {
  testing::ScopedPlatform scoped;
  scoped.platform().setLibraryVersion("1.2.3");
  const PostConsentsRequest upload(
      "SUBJ", "app", "Living room TV", true, 3,
      {PurposeConsent(12, ConsentStatus::withDrawn, 1704067200, false)},
      {PermissionConsent(LumariKey::cameraUsageDescription, ConsentStatus::granted, 1704067201)},
      false, "AD", "opt-in");
  const std::string golden = everyKey("upload");
  EXPECT_EQ(encode(upload), golden);  // exact: the members in the order sent
  EXPECT_EQ(decode<PostConsentsRequest>(golden).value, upload);
  scoped.platform().setLibraryVersion(std::nullopt);
  EXPECT_EQ(PostConsentsRequest("u", "a", "d", false, 1, {}, {}, true, "", "x").sdkVersion,
            std::nullopt);
}

// tests/data/decode_cases.txt: which keys are read, repeated keys, numbers,
// required keys and the error paths.
TEST(JsonCodec, DecodeCases) {
  for (const std::string& line : dataLines("decode_cases.txt")) {
    SCOPED_TRACE(line);
    const std::size_t space = line.find(' ');
    const std::size_t arrow = std::min(line.find(" => "), line.find(" =! "));
    ASSERT_NE(arrow, std::string::npos);
    EXPECT_EQ((decodeAs<MainConfiguration, PostConsentsRequest, PurposeConsent, GenericResponse,
                        CurrentLocationResponse, ConsentStatus, PurposeStatus, PermissionStatus,
                        ComplianceType, BannerPosition, ButtonShape, GoogleConsentType, LumariKey>(
                  line.substr(0, space), line.substr(space + 1, arrow - space - 1))),
              line.substr(arrow + 1));
  }
}

TEST(JsonCodec, HostileInputFailsCleanly) {
  std::string deep = std::string(100000, '[') + std::string(100000, ']');
  std::string deepObjects;
  for (int i = 0; i < 5000; ++i) deepObjects += "{\"i18n\":";
  deepObjects += "{}" + std::string(5000, '}');
  std::string hostile[] = {"",
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
                           std::string(1 << 20, ' ')};
  for (const auto& json : hostile) {
    auto decoded = decode<MainConfiguration>(json);
    EXPECT_FALSE(decoded.ok()) << json.substr(0, 40);
    EXPECT_FALSE(decoded.error.empty());
  }
  EXPECT_EQ(decode<MainConfiguration>("\xEF\xBB\xBF{}").error,
            "invalid JSON: the document starts with a byte-order mark");
}

TEST(JsonCodec, ToJsonStringKeepsUtf8AndRejectsInvalidBytes) {
  GenericResponse reply{0, "Grüße, 世界"};
  EXPECT_EQ(toJSONString(reply), R"({"status":0,"message":"Grüße, 世界"})");
  reply.message = "\xFF";
  EXPECT_EQ(toJSONString(reply, DateEncodingStrategy::iso8601), std::nullopt);
  BannerConfig banner;  // translations arrive with the document, never in it
  banner.name = "n";
  banner.translations = Translations{{"en", std::nullopt}};
  EXPECT_EQ(encode(banner), R"({"name":"n"})");
}

// The case at `index` of an enumeration or of LumariKey.
template <typename T>
T caseAt(std::size_t index) {
  return static_cast<T>(index);
}
template <>
LumariKey caseAt<LumariKey>(std::size_t index) {
  return LumariKey(static_cast<LumariKey::Case>(index));
}

// Each case of each of Types codes as its raw value, listed in case order in
// tests/data/raw_values.txt.
template <typename... Types>
void expectRawValues() {
  std::map<std::string, std::string> raws;
  for (const std::string& line : dataLines("raw_values.txt")) {
    raws[line.substr(0, line.find(": "))] = line.substr(line.find(": ") + 2) + ",";
  }
  auto expect = [&](auto first) {
    using T = decltype(first);
    const std::string& list = raws[std::string(typeName<T>())];
    ASSERT_FALSE(list.empty()) << typeName<T>();
    for (std::size_t index = 0, start = 0; start < list.size(); ++index) {
      const std::string json = "\"" + list.substr(start, list.find(',', start) - start) + "\"";
      start = list.find(',', start) + 1;
      EXPECT_EQ(encode(caseAt<T>(index)), json) << typeName<T>();
      EXPECT_EQ(decode<T>(json).value, caseAt<T>(index)) << json;
    }
  };
  (expect(caseAt<Types>(0)), ...);
}

TEST(JsonCodec, RawValueTypesCodeAsTheirRawValueStrings) {
  expectRawValues<ConsentStatus, PurposeStatus, PermissionStatus, ComplianceType, BannerPosition,
                  ButtonShape, GoogleConsentType, LumariKey>();
}

// Records compare and hash every field, those kept out of JSON included;
// localised texts compare and hash regardless of order.
TEST(JsonCodec, EqualityAndHashes) {
  LocalizedText a{{"en", "x"}, {"de", "y"}};
  LocalizedText b{{"de", "y"}, {"en", "x"}};
  EXPECT_EQ(a, b);
  EXPECT_EQ(std::hash<LocalizedText>{}(a), std::hash<LocalizedText>{}(b));
  b.set("en", "z");
  EXPECT_NE(a, b);
  EXPECT_NE(a, (LocalizedText{{"en", "x"}}));

  auto example = decode<MainConfiguration>(testing::exampleDocument());
  ASSERT_TRUE(example.ok());
  MainConfiguration copy = *example.value;
  std::hash<MainConfiguration> hash;
  EXPECT_EQ(hash(copy), hash(*example.value));
  (*copy.purposes)[0].isATTMapped = true;
  EXPECT_NE(copy, *example.value);
  EXPECT_NE(hash(copy), hash(*example.value));
  AppPermission p, q;
  q.isSettingsPromptEnabled = false;
  EXPECT_NE(p, q);
  EXPECT_NE(std::hash<AppPermission>{}(p), std::hash<AppPermission>{}(q));
  std::hash<WebViewConfig> web;
  EXPECT_EQ(web(WebViewConfig({"a.example"}, "<p>")), web(WebViewConfig({"a.example"}, "<p>")));
  EXPECT_NE(web(WebViewConfig({"a"}, std::nullopt)), web(WebViewConfig({"a"}, "")));
  EXPECT_NE(web(WebViewConfig({"a", "b"}, "")), web(WebViewConfig({"ab"}, "")));
}

}  // namespace
}  // namespace pactivo
