// The C interface as a C host uses it: real loopback servers, the platform
// installed through the C struct, and every failure checked by result code.
// The facade's own rules are pinned by its tests; these pin what the C layer
// adds: conversions, JSON keys, result codes and texts, the handle registry
// and host callbacks.
#include "pactivo/pactivo_c.h"

#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <future>
#include <mutex>
#include <regex>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "sdk/default_urls.h"
#include "support/sdk_fixture.h"

namespace pactivo::testing {
namespace {

std::string take(char* json) {
  std::string text = json ? json : "";
  pactivo_free(json);
  return text;
}

std::size_t count(const std::string& text, const std::string& fragment) {
  std::size_t n = 0;
  for (auto at = text.find(fragment); at != std::string::npos; at = text.find(fragment, at + 1))
    ++n;
  return n;
}

// Hands a query's result and JSON to the std::promise<std::string> given.
void toPromise(pactivo_result result, const char* json, void* promise) {
  static_cast<std::promise<std::string>*>(promise)->set_value(
      std::string(pactivo_result_name(result)) + " " + (json ? json : "NULL"));
}

// Facility statuses the test sets; read by the platform callback.
std::atomic<int> g_camera{-1};

int permissionStatus(pactivo_facility facility, void*) {
  return facility == PACTIVO_FACILITY_CAMERA ? g_camera.load() : -1;
}

class CApiTest : public ::testing::Test {
 protected:
  CApiTest() {
    cdn_.respond(200, exampleDocument(), "\"v1\"");
    app_.respond(200, reply(0, "Consents saved"));
    detail::overrideDefaultApplicationServerBaseUrl(app_.baseUrl());
    data_ = dir_.path().string();
    pactivo_platform platform = PACTIVO_PLATFORM_INIT;
    platform.data_directory = data_.c_str();
    platform.permission_status = permissionStatus;
    EXPECT_EQ(pactivo_install_platform(&platform), PACTIVO_OK) << pactivo_errmsg();
    EXPECT_EQ(pactivo_sdk_new(&sdk_), PACTIVO_OK);
    appUrl_ = app_.baseUrl();
    cdnUrl_ = cdn_.baseUrl();
    options_.app_url = appUrl_.c_str();
    options_.cdn_url = cdnUrl_.c_str();
    options_.tenant_id = "t";
    options_.app_id = "a";
    options_.location_code = "DE";
    options_.language_code = "en";
  }
  ~CApiTest() override {
    pactivo_sdk_destroy(sdk_);
    pactivo_install_platform(nullptr);
    detail::overrideDefaultApplicationServerBaseUrl("");
  }

  // Sets up and waits until the configuration is loaded.
  void setupToAvailable() {
    ASSERT_EQ(pactivo_setup(sdk_, &options_), PACTIVO_OK) << pactivo_errmsg();
    pactivo_status status = PACTIVO_STATUS_UNAVAILABLE;
    ASSERT_TRUE(eventually([&] {
      return pactivo_get_status(sdk_, &status) == PACTIVO_OK && status == PACTIVO_STATUS_AVAILABLE;
    })) << log_.text();
    // A check waits for the work setup started (the defaults it records).
    ASSERT_EQ(pactivo_check_consents(sdk_), PACTIVO_OK);
  }

  TempDir dir_;
  std::string data_, appUrl_, cdnUrl_;
  LogCapture log_;
  TestServer cdn_;
  TestServer app_;
  pactivo_options options_ = PACTIVO_OPTIONS_INIT;
  pactivo_sdk* sdk_ = nullptr;
};

struct Readiness {
  std::mutex mutex;
  std::vector<pactivo_status> seen;
  std::vector<pactivo_result> reentered;  // check, destroy, status from inside
  pactivo_sdk* sdk = nullptr;
};

void onReady(pactivo_status status, void* user_data) {
  auto* r = static_cast<Readiness*>(user_data);
  pactivo_status now;
  pactivo_result check = pactivo_check_consents(r->sdk);
  pactivo_result destroy = pactivo_sdk_destroy(r->sdk);
  pactivo_result get = pactivo_get_status(r->sdk, &now);
  std::lock_guard lock(r->mutex);
  r->seen.push_back(status);
  r->reentered = {check, destroy, get};
}

void throwingReady(pactivo_status, void*) { throw std::runtime_error("host bug"); }

TEST_F(CApiTest, HostCallbacksMayReenterOrThrow) {
  Readiness readiness;
  readiness.sdk = sdk_;
  ASSERT_EQ(pactivo_is_ready(sdk_, onReady, &readiness), PACTIVO_OK);
  setupToAvailable();
  ASSERT_TRUE(eventually([&] {
    std::lock_guard lock(readiness.mutex);
    return !readiness.seen.empty() && readiness.seen.back() == PACTIVO_STATUS_AVAILABLE;
  }));
  std::lock_guard lock(readiness.mutex);
  EXPECT_EQ(readiness.seen.front(), PACTIVO_STATUS_UNAVAILABLE);
  // The calls that would wait for the callback's own thread refuse.
  EXPECT_EQ(readiness.reentered,
            (std::vector<pactivo_result>{PACTIVO_BUSY, PACTIVO_BUSY, PACTIVO_OK}));
  EXPECT_EQ(pactivo_remove_listeners(sdk_), PACTIVO_OK);
  // A C++ host may hand over a function that throws through its C signature.
  EXPECT_EQ(pactivo_is_ready(sdk_, throwingReady, nullptr), PACTIVO_OK);
  EXPECT_TRUE(log_.contains("threw: host bug")) << log_.text();
}

TEST_F(CApiTest, QueriesAnswerWithTheDocumentsKeys) {
  setupToAvailable();
  char* json = nullptr;
  ASSERT_EQ(pactivo_get_purpose_consents(sdk_, &json), PACTIVO_OK);
  const std::string purposes = take(json);
  EXPECT_EQ(purposes.front(), '[');
  EXPECT_EQ(count(purposes, "{\"purpose_id\":"), exampleConfiguration().purposes->size());
  EXPECT_EQ(count(purposes, "\"consent_status\":\""), exampleConfiguration().purposes->size());
  EXPECT_EQ(purposes.find("purposeId"), std::string::npos);

  ASSERT_EQ(pactivo_get_permission_consents(sdk_, &json), PACTIVO_OK);
  EXPECT_EQ(count(take(json), "\"permission_id\":\"NS"),
            exampleConfiguration().permissions->size());
  ASSERT_EQ(pactivo_get_banner_config(sdk_, nullptr, &json), PACTIVO_OK);
  const std::string banner = take(json);
  EXPECT_NE(banner.find("\"compliance_type\":"), std::string::npos);
  ASSERT_EQ(pactivo_get_banner_config(sdk_, exampleDocument().c_str(), &json), PACTIVO_OK);
  EXPECT_EQ(take(json), banner);  // the same document given by the host
  ASSERT_EQ(pactivo_get_gcm_consents(sdk_, &json), PACTIVO_OK);
  EXPECT_EQ(take(json).rfind("{\"analytics_storage\":\"", 0), 0u);
  ASSERT_EQ(pactivo_get_settings_prompt(sdk_, &json), PACTIVO_OK);
  EXPECT_EQ(take(json).front(), '{');

  std::promise<std::string> async;
  ASSERT_EQ(pactivo_get_purpose_consents_async(sdk_, toPromise, &async), PACTIVO_OK);
  // Same records; their consents may have moved on since (the defaults the
  // banner query applies), so only the shape is compared.
  const std::string delivered = async.get_future().get();
  EXPECT_EQ(delivered.rfind("PACTIVO_OK [", 0), 0u) << delivered;
  EXPECT_EQ(count(delivered, "{\"purpose_id\":"), exampleConfiguration().purposes->size());
}

TEST_F(CApiTest, SetAndGetThroughRawTexts) {
  setupToAvailable();
  struct Row {
    std::int64_t id;
    const char* consent;
    pactivo_result result;
    const char* stored;  // the consent read back afterwards, if checked
  };
  const Row rows[] = {
      {2, "granted", PACTIVO_OK, "granted"},
      {2, "declined", PACTIVO_OK, "withdrawn"},  // declining what was granted withdraws it
      {2, "maybe", PACTIVO_NOT_FOUND, "withdrawn"},
      {2, "\xff", PACTIVO_INVALID_UTF8, "withdrawn"},
      {2, nullptr, PACTIVO_MISUSE, "withdrawn"},
      {1, "declined", PACTIVO_REFUSED, nullptr},  // essential
      {999, "granted", PACTIVO_NOT_FOUND, "declined"},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(std::to_string(row.id) + " " + (row.consent ? row.consent : "NULL"));
    EXPECT_EQ(pactivo_set_purpose_consent(sdk_, row.id, row.consent), row.result);
    EXPECT_EQ(std::string(pactivo_errmsg()).empty(), row.result == PACTIVO_OK);
    const char* stored = nullptr;
    ASSERT_EQ(pactivo_get_purpose_consent(sdk_, row.id, &stored), PACTIVO_OK);
    if (row.stored) {
      EXPECT_STREQ(stored, row.stored);
    }
  }

  // Permissions follow what the host's platform callback reports.
  const char* consent = nullptr;
  for (auto [camera, expected] : {std::pair{3, "granted"}, std::pair{2, "declined"}}) {
    g_camera = camera;
    ASSERT_EQ(pactivo_get_permission_consent(sdk_, "NSCameraUsageDescription", &consent),
              PACTIVO_OK);
    EXPECT_STREQ(consent, expected);
  }
  for (auto [key, choice, result] : {std::tuple{"NSCameraUsageDescription", "declined", PACTIVO_OK},
                                     {"NSCameraUsageDescription", "granted", PACTIVO_REFUSED},
                                     {"NSFaceIDUsageDescription", "granted", PACTIVO_NOT_FOUND}}) {
    EXPECT_EQ(pactivo_set_permission_consent(sdk_, key, choice), result) << key << " " << choice;
  }

  // A check waits for the choices' own background work, which writes too.
  ASSERT_EQ(pactivo_check_consents(sdk_), PACTIVO_OK);
  ASSERT_EQ(pactivo_remove_consents(sdk_), PACTIVO_OK);
  ASSERT_EQ(pactivo_get_purpose_consent(sdk_, 2, &consent), PACTIVO_OK);
  // The compliance type goes with them, so the default is no longer opt-in's.
  EXPECT_STREQ(consent, "granted");
}

TEST_F(CApiTest, UploadReachesTheServerAsGiven) {
  const std::string request = encode(PostConsentsRequest(
      "u-1", "app-1", "tv", false, 3,
      {PurposeConsent(2, ConsentStatus::granted, 1700000000, false)}, {}, false, "", "DE"));
  ASSERT_EQ(pactivo_upload_consents(sdk_, appUrl_.c_str(), request.c_str()), PACTIVO_OK);
  ASSERT_EQ(app_.requestCount(), 1u);
  std::promise<pactivo_result> done;
  auto onDone = [](pactivo_result result, void* promise) {
    static_cast<std::promise<pactivo_result>*>(promise)->set_value(result);
  };
  ASSERT_EQ(pactivo_upload_consents_async(sdk_, appUrl_.c_str(), request.c_str(), onDone, &done),
            PACTIVO_OK);
  EXPECT_EQ(done.get_future().get(), PACTIVO_OK);
  ASSERT_EQ(app_.requestCount(), 2u);
  EXPECT_EQ(app_.requests()[0].body, request);
  EXPECT_EQ(app_.requests()[1].body, request);
}

void onSignals(const char* json, void* user_data) {
  auto* signals = static_cast<std::pair<std::mutex, std::string>*>(user_data);
  std::lock_guard lock(signals->first);
  signals->second = json;
}

TEST_F(CApiTest, TheHostsPlatformReachesUploadsAndConsentMode) {
  // Background work of the instance may still signal after this body ends.
  static std::pair<std::mutex, std::string> signals;
  signals.second.clear();
  const char* languages[] = {"de-DE"};
  const char* info[] = {"NSCameraUsageDescription", "Video calls"};
  pactivo_platform platform = PACTIVO_PLATFORM_INIT;
  platform.data_directory = data_.c_str();
  platform.device_name = "Living room TV";
  platform.preferred_languages = languages;
  platform.preferred_language_count = 1;
  platform.advertising_identifier = "6D92078A-8246-4BA4-AE5B-76104861E7DC";
  platform.tracking_status = 3;
  platform.info_dictionary = info;
  platform.info_dictionary_count = 1;
  platform.consent_mode = onSignals;
  platform.user_data = &signals;
  ASSERT_EQ(pactivo_install_platform(&platform), PACTIVO_OK);
  setupToAvailable();
  ASSERT_GE(app_.requestCount(), 1u);
  const auto upload = decode<PostConsentsRequest>(app_.requests()[0].body);
  ASSERT_TRUE(upload.ok()) << upload.error;
  EXPECT_EQ(upload.value->device, "Living room TV");
  EXPECT_EQ(upload.value->adId, "6D92078A-8246-4BA4-AE5B-76104861E7DC");

  ASSERT_EQ(pactivo_set_purpose_consent(sdk_, 2, "granted"), PACTIVO_OK);
  ASSERT_TRUE(eventually([&] {
    std::lock_guard lock(signals.first);
    return !signals.second.empty();
  }));
  std::lock_guard lock(signals.first);
  // One JSON object of the four signals, each granted or denied.
  const std::string signal =
      "\"(ad_personalization|ad_storage|ad_user_data|analytics_storage)\":\"(granted|denied)\"";
  EXPECT_TRUE(
      std::regex_match(signals.second, std::regex("\\{(" + signal + ",){3}" + signal + "\\}")))
      << signals.second;
}

TEST_F(CApiTest, AnOperatorsNetworkIsTheHostsToDescribe) {
  // Through a proxy that refuses, the document cannot be had; a host built
  // before these members existed passes a smaller struct and keeps the
  // defaults, whatever lies beyond it.
  for (bool described : {true, false}) {
    SCOPED_TRACE(described ? "described" : "older host");
    pactivo_platform platform = PACTIVO_PLATFORM_INIT;
    if (!described) platform.size = offsetof(pactivo_platform, ca_file);
    platform.data_directory = data_.c_str();
    platform.proxy = "http://127.0.0.1:9";
    platform.client_certificate = "/nonexistent/client.pem";
    ASSERT_EQ(pactivo_install_platform(&platform), PACTIVO_OK);
    pactivo_sdk* sdk = nullptr;
    ASSERT_EQ(pactivo_sdk_new(&sdk), PACTIVO_OK);
    log_.clear();
    cdn_.clearRequests();
    ASSERT_EQ(pactivo_setup(sdk, &options_), PACTIVO_OK);
    ASSERT_EQ(pactivo_check_consents(sdk), PACTIVO_OK);  // waits for setup's work
    pactivo_status status;
    ASSERT_EQ(pactivo_get_status(sdk, &status), PACTIVO_OK);
    EXPECT_EQ(status, described ? PACTIVO_STATUS_UNAVAILABLE : PACTIVO_STATUS_AVAILABLE);
    EXPECT_EQ(cdn_.requestCount() > 0, !described);
    EXPECT_EQ(log_.contains("/nonexistent/client.pem"), described) << log_.text();
    pactivo_sdk_destroy(sdk);
  }
}

TEST_F(CApiTest, BadArgumentsGiveResultCodesAndALogLine) {
  pactivo_sdk* out = nullptr;
  pactivo_status status;
  char* json = nullptr;
  const char* text = nullptr;
  pactivo_options noTenant = options_;
  noTenant.tenant_id = nullptr;
  pactivo_options tooSmall = options_;
  tooSmall.size = sizeof(size_t);
  pactivo_platform badPlatform = PACTIVO_PLATFORM_INIT;
  badPlatform.tracking_status = 9;
  struct Row {
    const char* error;  // how pactivo_errmsg() starts
    std::function<pactivo_result()> call;
    pactivo_result expected;
  };
  const Row rows[] = {
      {"pactivo_sdk_new: out_sdk is NULL", [&] { return pactivo_sdk_new(nullptr); },
       PACTIVO_MISUSE},
      {"pactivo_get_status: the instance is NULL",
       [&] { return pactivo_get_status(nullptr, &status); }, PACTIVO_MISUSE},
      {"pactivo_get_status: out_status is NULL", [&] { return pactivo_get_status(sdk_, nullptr); },
       PACTIVO_MISUSE},
      {"pactivo_setup: options is NULL", [&] { return pactivo_setup(sdk_, nullptr); },
       PACTIVO_MISUSE},
      {"pactivo_setup: options.tenant_id is NULL", [&] { return pactivo_setup(sdk_, &noTenant); },
       PACTIVO_MISUSE},
      {"pactivo_setup: options.size is too small", [&] { return pactivo_setup(sdk_, &tooSmall); },
       PACTIVO_MISUSE},
      {"pactivo_is_ready: callback is NULL",
       [&] { return pactivo_is_ready(sdk_, nullptr, nullptr); }, PACTIVO_MISUSE},
      {"pactivo_set_log_level: level is out of range",
       [&] { return pactivo_set_log_level(static_cast<pactivo_log_level>(7)); }, PACTIVO_MISUSE},
      {"pactivo_get_banner_config: config_json: ",
       [&] { return pactivo_get_banner_config(sdk_, "{", &json); }, PACTIVO_INVALID_JSON},
      {"pactivo_upload_consents: request_json: ",
       [&] { return pactivo_upload_consents(sdk_, "http://127.0.0.1:9/", "[]"); },
       PACTIVO_INVALID_JSON},
      {"pactivo_get_permission_consent: permission_key is not valid UTF-8",
       [&] { return pactivo_get_permission_consent(sdk_, "NS\xc3", &text); }, PACTIVO_INVALID_UTF8},
      {"pactivo_install_platform: platform.tracking_status is out of range",
       [&] { return pactivo_install_platform(&badPlatform); }, PACTIVO_MISUSE},
      {"pactivo_get_gcm_consents_async: callback is NULL",
       [&] { return pactivo_get_gcm_consents_async(sdk_, nullptr, nullptr); }, PACTIVO_MISUSE},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.error);
    log_.clear();
    EXPECT_EQ(row.call(), row.expected);
    EXPECT_EQ(std::string(pactivo_errmsg()).rfind(row.error, 0), 0u) << pactivo_errmsg();
    EXPECT_TRUE(log_.contains("[ERROR]")) << log_.text();
  }
  EXPECT_EQ(out, nullptr);
  EXPECT_EQ(json, nullptr);
  EXPECT_STREQ(pactivo_result_name(PACTIVO_BUSY), "PACTIVO_BUSY");
  EXPECT_STREQ(pactivo_result_name(42), "PACTIVO_UNKNOWN");
  EXPECT_EQ(pactivo_get_status(sdk_, &status), PACTIVO_OK);
  EXPECT_STREQ(pactivo_errmsg(), "");
}

TEST_F(CApiTest, ADestroyedHandleIsRecognised) {
  pactivo_sdk* other = nullptr;
  ASSERT_EQ(pactivo_sdk_new(&other), PACTIVO_OK);
  ASSERT_EQ(pactivo_sdk_destroy(other), PACTIVO_OK);
  pactivo_status status;
  EXPECT_EQ(pactivo_get_status(other, &status), PACTIVO_DESTROYED);
  EXPECT_EQ(pactivo_sdk_destroy(other), PACTIVO_DESTROYED);
  EXPECT_EQ(pactivo_sdk_destroy(nullptr), PACTIVO_OK);
  pactivo_sdk* shared = nullptr;
  pactivo_sdk* again = nullptr;
  ASSERT_EQ(pactivo_sdk_shared(&shared), PACTIVO_OK);
  ASSERT_EQ(pactivo_sdk_shared(&again), PACTIVO_OK);
  EXPECT_EQ(shared, again);
  EXPECT_EQ(pactivo_sdk_destroy(shared), PACTIVO_MISUSE);

  // Destroyed while another thread is inside a call on it.
  pactivo_sdk* busy = nullptr;
  ASSERT_EQ(pactivo_sdk_new(&busy), PACTIVO_OK);
  std::atomic<bool> stop{false};
  std::atomic<int> unexpected{0};
  std::thread caller([&] {
    pactivo_status s;
    while (!stop) {
      pactivo_result r = pactivo_get_status(busy, &s);
      if (r != PACTIVO_OK && r != PACTIVO_DESTROYED) ++unexpected;
    }
  });
  std::this_thread::sleep_for(std::chrono::milliseconds(5));
  EXPECT_EQ(pactivo_sdk_destroy(busy), PACTIVO_OK);
  stop = true;
  caller.join();
  EXPECT_EQ(unexpected, 0);
}

struct Sink {
  std::mutex mutex;
  std::vector<std::string> lines;
};

void onLog(const char* text, void* user_data) {
  // Fails, and so logs, from inside the sink: that line must not come back.
  pactivo_get_status(nullptr, nullptr);
  auto* sink = static_cast<Sink*>(user_data);
  std::lock_guard lock(sink->mutex);
  sink->lines.emplace_back(text);
}

TEST_F(CApiTest, TheLogSinkMayCallBackIn) {
  Sink sink;
  ASSERT_EQ(pactivo_set_log_level(PACTIVO_LOG_ERROR), PACTIVO_OK);
  ASSERT_EQ(pactivo_set_log_sink(onLog, &sink), PACTIVO_OK);
  pactivo_remove_listeners(nullptr);
  ASSERT_EQ(pactivo_set_log_sink(nullptr, nullptr), PACTIVO_OK);
  pactivo_log_level level;
  ASSERT_EQ(pactivo_get_log_level(&level), PACTIVO_OK);
  EXPECT_EQ(level, PACTIVO_LOG_ERROR);
  pactivo_set_log_level(PACTIVO_LOG_DEBUG);
  ASSERT_EQ(sink.lines.size(), 1u);
  EXPECT_NE(sink.lines[0].find("the instance is NULL"), std::string::npos);
}

}  // namespace
}  // namespace pactivo::testing
