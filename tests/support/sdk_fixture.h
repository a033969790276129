// The rig every end-to-end test of the facade shares: a content server and an
// application server on 127.0.0.1 (the latter also answering location
// look-ups), a FakePlatform over a fresh data directory, a log capture, a
// manual clock driving the check timer, and the facade under test.
#ifndef PACTIVO_TESTS_SUPPORT_SDK_FIXTURE_H_
#define PACTIVO_TESTS_SUPPORT_SDK_FIXTURE_H_

#include <gtest/gtest.h>

#include "pactivo/consent_sdk.h"
#include "pactivo/json.h"
#include "pactivo/user_default_manager.h"
#include "sdk/consent_sdk_access.h"
#include "sdk/consent_sdk_impl.h"
#include "support/test_server.h"
#include "support/test_support.h"

namespace pactivo::testing {

// What a test varies in the facade's options; the rest is fixed.
struct SetupArgs {
  std::optional<std::string> language = "en";
  std::optional<std::string> location = "DE";  // a GDPR location: opt-in
  bool testing = false;
  std::string cdnUrl = "";  // empty: the content server
  std::optional<std::string> subject = std::nullopt;
};

// An application server reply: {"status": N, "message": "..."}.
std::string reply(int status, const std::string& message);
// The example document, decoded.
MainConfiguration exampleConfiguration();

class SdkTest : public ::testing::Test {
 protected:
  // The content server serves the example document with ETag "v1"; the
  // application server accepts every upload.
  SdkTest();
  ~SdkTest() override;

  ConsentSDKOptions options(const SetupArgs& setup = {}) const;
  // Runs setup and waits for the work it started.
  void setup(const SetupArgs& setup = {});
  // SetupArgs, then waits for the default-value upload and the timer it re-arms.
  void setupThroughPrefill();
  // The upload the application server received `index`-th, decoded.
  PostConsentsRequest upload(std::size_t index) const;
  std::vector<std::string> cdnPaths() const;
  std::filesystem::path cacheFile() const {
    return scoped_.dataDirectory() / "tessarin-sdk-cdn.json";
  }
  FakePlatform& platform() { return scoped_.platform(); }

  ScopedPlatform scoped_;
  LogCapture log_;
  TestServer cdn_;
  TestServer app_;
  std::shared_ptr<ManualClock> clock_ = std::make_shared<ManualClock>();
  std::unique_ptr<ConsentSDK> sdk_ = std::make_unique<ConsentSDK>();
  ConsentSDK::Impl& impl_;
};

}  // namespace pactivo::testing

#endif  // PACTIVO_TESTS_SUPPORT_SDK_FIXTURE_H_
