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
  std::stringstream text;
  text << std::ifstream(PACTIVO_TEST_DATA_DIR "/" + name).rdbuf();
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

// For the type called `type`: "=> " and the value decoded and encoded again,
// or "=! " and the decoding error.
template <typename... Types>
std::string decodeAs(std::string_view type, std::string_view json) {
  std::string out = "no such type";
  auto attempt = [&]<typename T>(T*) {
    auto decoded = decode<T>(json);
    out = decoded.ok() ? "=> " + encode(*decoded.value) : "=! " + decoded.error;
  };
  ((typeName<Types>() == type ? attempt(static_cast<Types*>(nullptr)) : void()), ...);
  return out;
}

// Every key of the configuration document and of the upload: decoding and
// encoding again gives back the same members with the same values.
TEST(JsonCodec, EveryKeyAsTheServersSpellIt) {
  const std::string configuration = everyKey("configuration");
  auto decoded = decode<MainConfiguration>(configuration);
  ASSERT_TRUE(decoded.ok()) << decoded.error;
  EXPECT_EQ(encode(*decoded.value), configuration);  // exact: the members in table order

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
  std::string deepObjects;
  for (int i = 0; i < 5000; ++i) deepObjects += "{\"i18n\":";
  deepObjects += "{}" + std::string(5000, '}');
  for (const std::string& json :
       {std::string(), std::string("{"), std::string("{\"version\": 1"),
        std::string("{\"version\": NaN}"), std::string("{\"version\": Infinity}"),
        std::string("{\"version\": -Infinity}"), std::string("{} trailing"), std::string("{}{}"),
        std::string("{\"name\": \"\xC3\x28\"}"), std::string("{\"name\": \"\xFF\"}"),
        std::string("{\"a\": 1}\0", 9), std::string("{'name': 'single quotes'}"),
        std::string("{\"name\": \"unterminated}"), std::string("{\"version\": 00012}"),
        std::string(100000, '[') + std::string(100000, ']'), deepObjects,
        std::string(1 << 20, ' ')}) {
    auto decoded = decode<MainConfiguration>(json);
    EXPECT_FALSE(decoded.ok() || decoded.error.empty()) << json.substr(0, 40);
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

// Each case of each of Types codes as its raw value, listed in case order in
// tests/data/raw_values.txt.
template <typename... Types>
void expectRawValues() {
  std::map<std::string, std::string> raws;
  for (const std::string& line : dataLines("raw_values.txt")) {
    raws[line.substr(0, line.find(": "))] = line.substr(line.find(": ") + 2);
  }
  auto expect = [&]<typename T>(T*) {
    std::istringstream list(raws[std::string(typeName<T>())]);
    std::size_t index = 0;
    for (std::string raw; std::getline(list, raw, ','); ++index) {
      using Case = std::conditional_t<std::is_enum_v<T>, T, LumariKey::Case>;
      const T value(static_cast<Case>(index));
      EXPECT_EQ(encode(value), "\"" + raw + "\"") << typeName<T>();
      EXPECT_EQ(decode<T>("\"" + raw + "\"").value, value) << raw;
    }
    EXPECT_GT(index, 1u) << typeName<T>();
  };
  (expect(static_cast<Types*>(nullptr)), ...);
}

TEST(JsonCodec, RawValueTypesCodeAsTheirRawValueStrings) {
  expectRawValues<ConsentStatus, PurposeStatus, PermissionStatus, ComplianceType, BannerPosition,
                  ButtonShape, GoogleConsentType, LumariKey>();
}

// Records compare and hash every field, those kept out of JSON included;
// localised texts compare and hash regardless of order.
TEST(JsonCodec, EqualityAndHashes) {
  auto same = [](const auto& a, const auto& b) {
    using T = std::decay_t<decltype(a)>;
    return std::to_string(a == b) + std::to_string(std::hash<T>{}(a) == std::hash<T>{}(b));
  };
  LocalizedText a{{"en", "x"}, {"de", "y"}};
  LocalizedText b{{"de", "y"}, {"en", "x"}};
  auto example = decode<MainConfiguration>(testing::exampleDocument());
  ASSERT_TRUE(example.ok());
  MainConfiguration copy = *example.value;
  std::string seen = same(a, b) + same(copy, *example.value) + " ";
  b.set("en", "z");
  (*copy.purposes)[0].isATTMapped = true;
  AppPermission p, q;
  q.isSettingsPromptEnabled = false;
  using Web = WebViewConfig;
  seen += same(a, b) + same(a, LocalizedText{{"en", "x"}}) + same(copy, *example.value) +
          same(p, q) + same(Web({"a"}, std::nullopt), Web({"a"}, "")) +
          same(Web({"a", "b"}, ""), Web({"ab"}, "")) + " " +
          same(Web({"a.example"}, "<p>"), Web({"a.example"}, "<p>"));
  EXPECT_EQ(seen, "1111 000000000000 11");
}

}  // namespace
}  // namespace pactivo
