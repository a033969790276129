// The C interface as a C host uses it: real loopback servers, the platform
// installed through the C struct, and every failure checked by result code.
// The facade's own rules are pinned by its tests; these pin what the C layer
// adds: conversions, JSON keys, result codes and texts, the handle registry
// and host callbacks.
#include "pactivo/pactivo_c.h"

#include <gtest/gtest.h>

#include <atomic>
#include <future>
#include <mutex>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "support/sdk_fixture.h"

namespace pactivo::testing {
namespace {

using Texts = std::vector<std::string>;

// A call's result code and pactivo_errmsg() right after it.
std::string outcome(int result) {
  return std::string(pactivo_result_name(result)) + " " + pactivo_errmsg();
}

std::string take(char* json) {
  std::string text = json ? json : "";
  pactivo_free(json);
  return text;
}

// Hands an asynchronous call's result and JSON to the std::promise<std::string> given.
void toPromise(pactivo_result result, const char* json, void* promise) {
  static_cast<std::promise<std::string>*>(promise)->set_value(
      std::string(pactivo_result_name(result)) + " " + (json ? json : "NULL"));
}

std::atomic<int> g_camera{-1};  // the status the platform callback reports for the camera

class CApiTest : public ::testing::Test {
 protected:
  CApiTest() {
    cdn_.respond(200, exampleDocument(), "\"v1\"");
    app_.respond(200, reply(0, "Consents saved"));
    pactivo_platform platform = PACTIVO_PLATFORM_INIT;
    // A host built before the network members existed passes a smaller struct
    // and keeps the defaults, whatever lies beyond it: the proxy that refuses.
    platform.size = offsetof(pactivo_platform, ca_file);
    platform.proxy = "http://127.0.0.1:9";
    platform.data_directory = data_.c_str();
    platform.tracking_status = 3;  // authorized: the signals mapped to tracking are granted
    platform.permission_status = [](pactivo_facility facility, void*) {
      return facility == PACTIVO_FACILITY_CAMERA ? g_camera.load() : -1;
    };
    platform.consent_mode = [](const char* json, void* self) {
      std::lock_guard lock(static_cast<CApiTest*>(self)->mutex_);
      static_cast<CApiTest*>(self)->signals_ = json;
    };
    platform.user_data = this;
    EXPECT_EQ(pactivo_install_platform(&platform), PACTIVO_OK) << pactivo_errmsg();
    EXPECT_EQ(pactivo_sdk_new(&sdk_), PACTIVO_OK);
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
  }

  // Sets up and waits until the configuration is loaded.
  void setupToAvailable() {
    ASSERT_EQ(pactivo_setup(sdk_, &options_), PACTIVO_OK) << pactivo_errmsg();
    // A check waits for the fetch setup started.
    ASSERT_EQ(pactivo_check_consents(sdk_), PACTIVO_OK);
    pactivo_status status;
    ASSERT_EQ(pactivo_get_status(sdk_, &status), PACTIVO_OK);
    ASSERT_EQ(status, PACTIVO_STATUS_AVAILABLE) << log_.text();
  }

  std::mutex mutex_;
  std::string signals_;  // guarded by mutex_
  TempDir dir_;
  const std::string data_ = dir_.path().string();
  LogCapture log_;
  TestServer cdn_;
  TestServer app_;
  const std::string appUrl_ = app_.baseUrl(), cdnUrl_ = cdn_.baseUrl();
  pactivo_options options_ = PACTIVO_OPTIONS_INIT;
  pactivo_sdk* sdk_ = nullptr;
};

struct Reentry {
  pactivo_sdk* sdk;
  std::promise<std::vector<int>> calls;  // check, destroy and status, from inside once available
};

void onReady(pactivo_status status, void* user_data) {
  auto* r = static_cast<Reentry*>(user_data);
  pactivo_status now;
  if (status != PACTIVO_STATUS_AVAILABLE) return;
  r->calls.set_value({pactivo_check_consents(r->sdk), pactivo_sdk_destroy(r->sdk),
                      pactivo_get_status(r->sdk, &now)});
}

void throwingReady(pactivo_status, void*) { throw std::runtime_error("host bug"); }

TEST_F(CApiTest, ASessionThroughRawTextsCallbacksAndTheDocumentsKeys) {
  Reentry reentry{sdk_, {}};
  ASSERT_EQ(pactivo_is_ready(sdk_, onReady, &reentry), PACTIVO_OK);
  setupToAvailable();
  // The calls that would wait for the callback's own thread refuse.
  EXPECT_EQ(reentry.calls.get_future().get(),
            (std::vector<int>{PACTIVO_BUSY, PACTIVO_BUSY, PACTIVO_OK}));
  EXPECT_EQ(pactivo_remove_listeners(sdk_), PACTIVO_OK);
  // A C++ host may hand over a function that throws through its C signature.
  EXPECT_EQ(pactivo_is_ready(sdk_, throwingReady, nullptr), PACTIVO_OK);
  EXPECT_TRUE(log_.contains("threw: host bug")) << log_.text();

  auto json = [&](pactivo_result (*query)(pactivo_sdk*, char**), std::size_t length) {
    char* out = nullptr;
    EXPECT_EQ(query(sdk_, &out), PACTIVO_OK);
    return take(out).substr(0, length);
  };
  EXPECT_EQ(json(pactivo_get_purpose_consents, 32), "[{\"purpose_id\":1,\"purpose_name\":");
  EXPECT_EQ(json(pactivo_get_gcm_config, 28), "{\"show_gcm_description\":true");
  EXPECT_EQ(json(pactivo_get_settings_prompt, 18), "{\"prompt_heading\":");
  char *banner = nullptr, *given = nullptr;  // the second from the same document, given
  ASSERT_EQ(pactivo_get_banner_config(sdk_, nullptr, &banner), PACTIVO_OK);
  ASSERT_EQ(pactivo_get_banner_config(sdk_, exampleDocument().c_str(), &given), PACTIVO_OK);
  const std::string text = take(banner);
  EXPECT_EQ(text.substr(0, 25), "{\"hide_close_button\":true");
  EXPECT_EQ(take(given), text);

  auto set = [&](std::int64_t id, const char* consent) {
    const pactivo_result result = pactivo_set_purpose_consent(sdk_, id, consent);
    const char* stored = "(none)";
    EXPECT_EQ(pactivo_get_purpose_consent(sdk_, id, &stored), PACTIVO_OK);
    return std::string(pactivo_result_name(result)) + " " + stored;
  };
  // Declining what was granted withdraws it.
  EXPECT_EQ((Texts{set(2, "granted"), set(2, "declined"), set(2, "maybe"), set(2, "\xff"),
                   set(2, nullptr), set(999, "granted")}),
            (Texts{"PACTIVO_OK granted", "PACTIVO_OK withdrawn", "PACTIVO_NOT_FOUND withdrawn",
                   "PACTIVO_INVALID_UTF8 withdrawn", "PACTIVO_MISUSE withdrawn",
                   "PACTIVO_NOT_FOUND declined"}));
  EXPECT_EQ(pactivo_set_purpose_consent(sdk_, 1, "declined"), PACTIVO_REFUSED);  // essential
  // The signals of the last choice, one JSON object, to the platform's callback.
  const std::string signalled =
      R"({"ad_personalization":"granted","ad_storage":"granted","ad_user_data":"granted",)"
      R"("analytics_storage":"denied"})";
  EXPECT_TRUE(eventually([&] {
    std::lock_guard lock(mutex_);
    return signals_ == signalled;
  })) << signals_;
  std::promise<std::string> async;
  ASSERT_EQ(pactivo_get_gcm_consents_async(sdk_, toPromise, &async), PACTIVO_OK);
  EXPECT_EQ(async.get_future().get(),
            "PACTIVO_OK {\"analytics_storage\":\"declined\",\"ad_storage\":\"granted\","
            "\"ad_user_data\":\"granted\",\"ad_personalization\":\"granted\"}");

  // Permissions follow what the host's platform callback reports.
  const char *camera = "NSCameraUsageDescription", *consent = nullptr;
  for (auto [status, expected] : {std::pair{3, "granted"}, std::pair{2, "declined"}}) {
    g_camera = status;
    ASSERT_EQ(pactivo_get_permission_consent(sdk_, camera, &consent), PACTIVO_OK);
    EXPECT_STREQ(consent, expected);
  }
  EXPECT_EQ(pactivo_set_permission_consent(sdk_, camera, "declined"), PACTIVO_OK);
  EXPECT_EQ(pactivo_set_permission_consent(sdk_, camera, "granted"), PACTIVO_REFUSED);
  EXPECT_EQ(pactivo_set_permission_consent(sdk_, "NSFaceIDUsageDescription", "granted"),
            PACTIVO_NOT_FOUND);

  // A check waits for the choices' own background work, which uploads too.
  ASSERT_EQ(pactivo_check_consents(sdk_), PACTIVO_OK);
  const std::string request = encode(PostConsentsRequest());
  std::promise<std::string> done;
  auto onDone = [](pactivo_result result, void* promise) {
    static_cast<std::promise<std::string>*>(promise)->set_value(pactivo_result_name(result));
  };
  ASSERT_EQ(pactivo_upload_consents_async(sdk_, appUrl_.c_str(), request.c_str(), onDone, &done),
            PACTIVO_OK);
  EXPECT_EQ(done.get_future().get(), "PACTIVO_OK");
  EXPECT_EQ(app_.requests().back().body, request);

  ASSERT_EQ(pactivo_remove_consents(sdk_), PACTIVO_OK);
  // The compliance type goes with them, so the default is no longer opt-in's
  // (a NULL choice only reads).
  EXPECT_EQ(set(2, nullptr), "PACTIVO_MISUSE granted");
}

void onLog(const char* text, void* user_data) {
  pactivo_get_status(nullptr, nullptr);
  static_cast<Texts*>(user_data)->emplace_back(text);
}

TEST_F(CApiTest, BadArgumentsAndHandlesGiveResultCodesAndALogLine) {
  pactivo_sdk *shared = nullptr, *again = nullptr;
  pactivo_status status;
  char* json = nullptr;
  const char* text = nullptr;
  pactivo_options noTenant = options_;
  noTenant.tenant_id = nullptr;
  pactivo_options tooSmall = options_;
  tooSmall.size = sizeof(size_t);
  pactivo_platform badPlatform = PACTIVO_PLATFORM_INIT;
  badPlatform.tracking_status = 9;
  ASSERT_EQ(pactivo_sdk_shared(&shared), PACTIVO_OK);
  ASSERT_EQ(pactivo_sdk_shared(&again), PACTIVO_OK);
  EXPECT_EQ(again, shared);
  const Texts outcomes = {
      outcome(pactivo_sdk_new(nullptr)),
      outcome(pactivo_get_status(nullptr, &status)),
      outcome(pactivo_get_status(sdk_, nullptr)),
      outcome(pactivo_setup(sdk_, nullptr)),
      outcome(pactivo_setup(sdk_, &noTenant)),
      outcome(pactivo_setup(sdk_, &tooSmall)),
      outcome(pactivo_is_ready(sdk_, nullptr, nullptr)),
      outcome(pactivo_set_log_level(static_cast<pactivo_log_level>(7))),
      outcome(pactivo_get_banner_config(sdk_, "[]", &json)),
      outcome(pactivo_upload_consents(sdk_, "http://127.0.0.1:9/", "[]")),
      outcome(pactivo_get_permission_consent(sdk_, "NS\xc3", &text)),
      outcome(pactivo_install_platform(&badPlatform)),
      outcome(pactivo_get_gcm_consents_async(sdk_, nullptr, nullptr)),
      outcome(pactivo_sdk_destroy(shared)),
      outcome(pactivo_sdk_destroy(nullptr)),  // clears the error like free(NULL) succeeds
      outcome(pactivo_get_status(sdk_, &status)),
  };
  const Texts expected = {
      "PACTIVO_MISUSE pactivo_sdk_new: out_sdk is NULL",
      "PACTIVO_MISUSE pactivo_get_status: the instance is NULL",
      "PACTIVO_MISUSE pactivo_get_status: out_status is NULL",
      "PACTIVO_MISUSE pactivo_setup: options is NULL",
      "PACTIVO_MISUSE pactivo_setup: options.tenant_id is NULL",
      "PACTIVO_MISUSE pactivo_setup: options.size is too small",
      "PACTIVO_MISUSE pactivo_is_ready: callback is NULL",
      "PACTIVO_MISUSE pactivo_set_log_level: level is out of range",
      "PACTIVO_INVALID_JSON pactivo_get_banner_config: config_json: expected object, found array",
      "PACTIVO_INVALID_JSON pactivo_upload_consents: request_json: expected object, found array",
      "PACTIVO_INVALID_UTF8 pactivo_get_permission_consent: permission_key is not valid UTF-8",
      "PACTIVO_MISUSE pactivo_install_platform: platform.tracking_status is out of range",
      "PACTIVO_MISUSE pactivo_get_gcm_consents_async: callback is NULL",
      "PACTIVO_MISUSE pactivo_sdk_destroy: the shared instance is never destroyed",
      "PACTIVO_OK ",
      "PACTIVO_OK "};
  EXPECT_EQ(outcomes, expected);
  EXPECT_EQ(log_.count("[ERROR]"), outcomes.size() - 2) << log_.text();
  EXPECT_EQ(json, nullptr);
  EXPECT_STREQ(pactivo_result_name(42), "PACTIVO_UNKNOWN");

  // A sink that fails, and so logs, from inside: that line must not come back.
  // Above debug a line is one piece: no library version or identity first.
  Texts lines;
  ASSERT_EQ(pactivo_set_log_level(PACTIVO_LOG_ERROR), PACTIVO_OK);
  ASSERT_EQ(pactivo_set_log_sink(onLog, &lines), PACTIVO_OK);
  pactivo_remove_listeners(nullptr);
  ASSERT_EQ(pactivo_set_log_sink(nullptr, nullptr), PACTIVO_OK);
  pactivo_set_log_level(PACTIVO_LOG_DEBUG);
  ASSERT_EQ(lines.size(), 1u) << ::testing::PrintToString(lines);
  EXPECT_NE(lines[0].find("[ERROR]the instance is NULL"), std::string::npos) << lines[0];
}

TEST_F(CApiTest, AHandleDestroyedWhileAnotherThreadUsesItIsRecognised) {
  pactivo_sdk* busy = nullptr;
  ASSERT_EQ(pactivo_sdk_new(&busy), PACTIVO_OK);
  std::atomic<bool> stop{false};
  std::atomic<int> unexpected{0};
  pactivo_status status;
  std::thread caller([&] {
    while (!stop) {
      pactivo_result r = pactivo_get_status(busy, &status);
      if (r != PACTIVO_OK && r != PACTIVO_DESTROYED) ++unexpected;
    }
  });
  std::this_thread::sleep_for(std::chrono::milliseconds(5));
  EXPECT_EQ(pactivo_sdk_destroy(busy), PACTIVO_OK);
  stop = true;
  caller.join();
  EXPECT_EQ(unexpected, 0);
  EXPECT_EQ(outcome(pactivo_get_status(busy, &status)),
            "PACTIVO_DESTROYED pactivo_get_status: the instance was destroyed or never created");
  EXPECT_EQ(outcome(pactivo_sdk_destroy(busy)),
            "PACTIVO_DESTROYED pactivo_sdk_destroy: the instance was already destroyed");
}

}  // namespace
}  // namespace pactivo::testing
