#include "support/sdk_fixture.h"

#include "sdk/default_urls.h"

namespace pactivo::testing {

std::string reply(int status, const std::string& message) {
  return "{\"status\": " + std::to_string(status) + ", \"message\": \"" + message + "\"}";
}

MainConfiguration exampleConfiguration() {
  return *decode<MainConfiguration>(exampleDocument()).value;
}

SdkTest::SdkTest() : impl_(detail::ConsentSDKAccess::impl(*sdk_)) {
  cdn_.respond(200, exampleDocument(), "\"v1\"");
  app_.respond(200, reply(0, "Consents saved"));
  // Location look-ups stay on loopback too.
  detail::overrideDefaultApplicationServerBaseUrl(app_.baseUrl());
  impl_.setClock(clock_);
}

SdkTest::~SdkTest() {
  sdk_.reset();
  detail::overrideDefaultApplicationServerBaseUrl("");
}

ConsentSDKOptions SdkTest::options(const SetupArgs& s) const {
  return ConsentSDKOptions(app_.baseUrl(), s.cdnUrl.empty() ? cdn_.baseUrl() : s.cdnUrl, "t", "a",
                           s.testing, LogLevel::debug, 120, s.subject, s.language, s.location,
                           WebViewConfig({}, std::nullopt));
}

void SdkTest::setup(const SetupArgs& s) {
  sdk_->setup(options(s));
  impl_.waitUntilIdle();
}

void SdkTest::setupThroughPrefill() {
  sdk_->setup(options());
  ASSERT_TRUE(eventually([&] { return app_.requestCount() == 1; })) << log_.text();
  ASSERT_TRUE(eventually([&] { return clock_->sleepers() == 1; }));
  impl_.waitUntilIdle();
}

PostConsentsRequest SdkTest::upload(std::size_t index) const {
  auto decoded = decode<PostConsentsRequest>(app_.requests().at(index).body);
  EXPECT_TRUE(decoded.ok()) << decoded.error;
  return decoded.value.value_or(PostConsentsRequest{});
}

std::vector<std::string> SdkTest::cdnPaths() const {
  std::vector<std::string> paths;
  for (const auto& request : cdn_.requests()) paths.push_back(request.path);
  return paths;
}

}  // namespace pactivo::testing
