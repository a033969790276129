// The C interface: each function validates its arguments, finds the live
// instance behind the handle, and runs the C++ call with every exception
// caught, turning failures into a result code, a thread-local text and a log
// line.
#include "pactivo/pactivo_c.h"

#include <cstdlib>
#include <cstring>
#include <map>
#include <memory>
#include <mutex>
#include <new>
#include <string>
#include <thread>
#include <type_traits>

#include "c_api/c_platform.h"
#include "pactivo/consent_sdk.h"
#include "pactivo/json.h"
#include "pactivo/logger.h"
#include "pactivo/platform.h"

struct pactivo_sdk {
  std::unique_ptr<pactivo::ConsentSDK> owned;  // null for the shared instance
  pactivo::ConsentSDK* sdk = nullptr;
};

namespace pactivo::detail {
namespace {

thread_local std::string t_error;
thread_local int t_callbackDepth = 0;
thread_local bool t_inSink = false;

// Raised inside a call to leave it with a result code.
struct Failure {
  pactivo_result code;
  std::string message;
};

// The live handles. A call holds its instance through the shared pointer
// while it runs, so that destroying the handle meanwhile waits for the call.
std::mutex g_registryMutex;
std::map<pactivo_sdk*, std::shared_ptr<pactivo_sdk>>& registry() {
  static auto* handles = new std::map<pactivo_sdk*, std::shared_ptr<pactivo_sdk>>;
  return *handles;
}
pactivo_sdk* g_shared = nullptr;  // guarded by g_registryMutex

std::shared_ptr<pactivo_sdk> live(pactivo_sdk* handle) {
  if (handle == nullptr) throw Failure{PACTIVO_MISUSE, "the instance is NULL"};
  std::lock_guard lock(g_registryMutex);
  auto it = registry().find(handle);
  if (it == registry().end()) {
    throw Failure{PACTIVO_DESTROYED, "the instance was destroyed or never created"};
  }
  return it->second;
}

void require(const void* pointer, const char* name) {
  if (pointer == nullptr) throw Failure{PACTIVO_MISUSE, std::string(name) + " is NULL"};
}

std::string textArgument(const char* value, const char* name) {
  require(value, name);
  std::string_view view(value);
  if (!isValidUtf8(view)) {
    throw Failure{PACTIVO_INVALID_UTF8, std::string(name) + " is not valid UTF-8"};
  }
  return std::string(view);
}

std::optional<std::string> optionalText(const char* value, const char* name) {
  if (value == nullptr) return std::nullopt;
  return textArgument(value, name);
}

template <typename T>
T decodeArgument(const char* json, const char* name) {
  DecodeResult<T> decoded = decode<T>(textArgument(json, name));
  if (!decoded.ok()) {
    throw Failure{PACTIVO_INVALID_JSON, std::string(name) + ": " + decoded.error};
  }
  return std::move(*decoded.value);
}

ConsentStatus consentArgument(const char* consent) {
  std::string text = textArgument(consent, "consent");
  std::optional<ConsentStatus> status = fromRawValue<ConsentStatus>(text);
  if (!status) throw Failure{PACTIVO_NOT_FOUND, "unknown consent \"" + text + "\""};
  return *status;
}

// The raw texts are string literals: static and NUL-terminated.
const char* consentText(ConsentStatus status) { return rawValue(status).data(); }

// A C caller may pass any int where an enum is declared; reading it as the
// C++ enum would be undefined, so its bytes are read as the underlying integer.
template <typename E>
long long rawEnum(const E& value) {
  std::underlying_type_t<E> raw;
  std::memcpy(&raw, &value, sizeof raw);
  return static_cast<long long>(raw);
}

char* duplicate(const std::string& text) {
  char* copy = static_cast<char*>(std::malloc(text.size() + 1));
  if (copy == nullptr) throw std::bad_alloc();
  std::memcpy(copy, text.c_str(), text.size() + 1);
  return copy;
}

template <typename T>
std::string encodeList(const std::vector<T>& values) {
  std::string json = "[";
  for (const T& value : values) {
    if (json.size() > 1) json += ',';
    json += encode(value);
  }
  return json + ']';
}

template <typename T>
std::string encodeOptional(const std::optional<T>& value) {
  return value ? encode(*value) : "null";
}

std::string encodeGcmConsents(const std::map<GoogleConsentType, ConsentStatus>& consents) {
  std::string json = "{";
  for (const auto& [type, status] : consents) {
    if (json.size() > 1) json += ',';
    json += jsonQuote(rawValue(type)) + ':' + jsonQuote(consentText(status));
  }
  return json + '}';
}

void refuseInCallback(const char* what) {
  if (CallbackScope::active()) {
    throw Failure{PACTIVO_BUSY, std::string(what) +
                                    " would wait for the library thread running this callback; "
                                    "call it from another thread"};
  }
}

pactivo_result fail(pactivo_result code, const char* function, const std::string& message) {
  t_error = std::string(function) + ": " + message;
  // A failure caused by the log sink itself must not feed the sink again.
  if (!t_inSink) SDKLogger::shared().log(message, LogLevel::error, function);
  return code;
}

// Runs `body`, turning every way out of it into a result code.
template <typename Body>
pactivo_result guarded(const char* function, Body&& body) {
  try {
    body();
    t_error.clear();
    return PACTIVO_OK;
  } catch (const Failure& failure) {
    return fail(failure.code, function, failure.message);
  } catch (const std::bad_alloc&) {
    return fail(PACTIVO_NO_MEMORY, function, "out of memory");
  } catch (const std::exception& error) {
    return fail(PACTIVO_ERROR, function, error.what());
  } catch (...) {
    return fail(PACTIVO_ERROR, function, "unknown exception");
  }
}

// Delivers a query's JSON to a host callback from a library thread.
template <typename Produce>
void deliver(pactivo_json_callback callback, void* userData, Produce&& produce) {
  std::string json;
  pactivo_result result = guarded("callback", [&] { json = produce(); });
  callHost("query callback",
           [&] { callback(result, result == PACTIVO_OK ? json.c_str() : nullptr, userData); });
}

ConsentSDKOptions optionsOf(const pactivo_options& given) {
  constexpr std::size_t kFirstSize =
      offsetof(pactivo_options, webview_blocked_page_html) + sizeof(const char*);
  if (given.size < kFirstSize) throw Failure{PACTIVO_MISUSE, "options.size is too small"};
  pactivo_options o;
  std::memset(&o, 0, sizeof o);
  std::memcpy(&o, &given, std::min(given.size, sizeof o));
  if (rawEnum(o.log_level) < PACTIVO_LOG_DEBUG || rawEnum(o.log_level) > PACTIVO_LOG_ERROR) {
    throw Failure{PACTIVO_MISUSE, "options.log_level is out of range"};
  }
  std::vector<std::string> domains;
  if (o.webview_allowed_domain_count > 0) require(o.webview_allowed_domains, "allowed domains");
  for (std::size_t i = 0; i < o.webview_allowed_domain_count; ++i) {
    domains.push_back(textArgument(o.webview_allowed_domains[i], "allowed domain"));
  }
  return ConsentSDKOptions(
      textArgument(o.app_url, "options.app_url"), textArgument(o.cdn_url, "options.cdn_url"),
      textArgument(o.tenant_id, "options.tenant_id"), textArgument(o.app_id, "options.app_id"),
      o.testing_mode != 0, static_cast<LogLevel>(o.log_level), o.consents_check_interval,
      optionalText(o.subject_id, "options.subject_id"),
      optionalText(o.language_code, "options.language_code"),
      optionalText(o.location_code, "options.location_code"),
      WebViewConfig(std::move(domains), optionalText(o.webview_blocked_page_html,
                                                     "options.webview_blocked_page_html")));
}

}  // namespace

bool callHost(const char* what, const std::function<void()>& call) {
  CallbackScope scope;
  try {
    call();
    return true;
  } catch (const std::exception& error) {
    SDKLogger::shared().log(std::string("threw: ") + error.what(), LogLevel::error, what);
  } catch (...) {
    SDKLogger::shared().log("threw", LogLevel::error, what);
  }
  return false;
}

CallbackScope::CallbackScope() { ++t_callbackDepth; }
CallbackScope::~CallbackScope() { --t_callbackDepth; }
bool CallbackScope::active() { return t_callbackDepth > 0; }

}  // namespace pactivo::detail

using namespace pactivo;
using namespace pactivo::detail;

// The declarations in the header give these definitions C linkage.

const char* pactivo_errmsg(void) { return t_error.c_str(); }

const char* pactivo_result_name(int result) {
  static const char* const kNames[] = {
      "PACTIVO_OK",        "PACTIVO_ERROR",        "PACTIVO_MISUSE",    "PACTIVO_INVALID_UTF8",
      "PACTIVO_NOT_FOUND", "PACTIVO_INVALID_JSON", "PACTIVO_DESTROYED", "PACTIVO_REFUSED",
      "PACTIVO_BUSY",      "PACTIVO_NO_MEMORY"};
  if (result < 0 || result >= static_cast<int>(std::size(kNames))) return "PACTIVO_UNKNOWN";
  return kNames[result];
}

void pactivo_free(void* memory) { std::free(memory); }

const char* pactivo_version(void) { return PACTIVO_VERSION; }

void pactivo_options_init(pactivo_options* options) {
  if (options == nullptr) return;
  *options = pactivo_options PACTIVO_OPTIONS_INIT;
}

void pactivo_platform_init(pactivo_platform* platform) {
  if (platform == nullptr) return;
  *platform = pactivo_platform PACTIVO_PLATFORM_INIT;
}

pactivo_result pactivo_sdk_new(pactivo_sdk** out_sdk) {
  return guarded("pactivo_sdk_new", [&] {
    require(out_sdk, "out_sdk");
    auto handle = std::make_shared<pactivo_sdk>();
    handle->owned = std::make_unique<ConsentSDK>();
    handle->sdk = handle->owned.get();
    std::lock_guard lock(g_registryMutex);
    registry().emplace(handle.get(), handle);
    *out_sdk = handle.get();
  });
}

pactivo_result pactivo_sdk_shared(pactivo_sdk** out_sdk) {
  return guarded("pactivo_sdk_shared", [&] {
    require(out_sdk, "out_sdk");
    ConsentSDK& shared = ConsentSDK::shared();
    std::lock_guard lock(g_registryMutex);
    if (g_shared == nullptr) {
      auto handle = std::make_shared<pactivo_sdk>();
      handle->sdk = &shared;
      g_shared = handle.get();
      registry().emplace(g_shared, handle);
    }
    *out_sdk = g_shared;
  });
}

pactivo_result pactivo_sdk_destroy(pactivo_sdk* sdk) {
  return guarded("pactivo_sdk_destroy", [&] {
    if (sdk == nullptr) return;  // like free(NULL)
    refuseInCallback("pactivo_sdk_destroy");
    std::shared_ptr<pactivo_sdk> handle;
    {
      std::lock_guard lock(g_registryMutex);
      auto it = registry().find(sdk);
      if (it == registry().end()) {
        throw Failure{PACTIVO_DESTROYED, "the instance was already destroyed"};
      }
      if (sdk == g_shared) throw Failure{PACTIVO_MISUSE, "the shared instance is never destroyed"};
      handle = std::move(it->second);
      registry().erase(it);
    }
    // A call another thread is still making on the instance finishes first:
    // the instance must be torn down here, never on a thread it would join.
    while (handle.use_count() > 1) std::this_thread::sleep_for(std::chrono::milliseconds(1));
    handle.reset();
  });
}

pactivo_result pactivo_setup(pactivo_sdk* sdk, const pactivo_options* options) {
  return guarded("pactivo_setup", [&] {
    auto handle = live(sdk);
    require(options, "options");
    handle->sdk->setup(optionsOf(*options));
  });
}

pactivo_result pactivo_is_ready(pactivo_sdk* sdk, pactivo_status_callback callback,
                                void* user_data) {
  return guarded("pactivo_is_ready", [&] {
    auto handle = live(sdk);
    require(reinterpret_cast<const void*>(callback), "callback");
    handle->sdk->isReady([callback, user_data](SDKStatus status) {
      callHost("readiness callback",
               [&] { callback(static_cast<pactivo_status>(status), user_data); });
    });
  });
}

pactivo_result pactivo_get_status(pactivo_sdk* sdk, pactivo_status* out_status) {
  return guarded("pactivo_get_status", [&] {
    auto handle = live(sdk);
    require(out_status, "out_status");
    *out_status = static_cast<pactivo_status>(handle->sdk->getStatus());
  });
}

pactivo_result pactivo_remove_listeners(pactivo_sdk* sdk) {
  return guarded("pactivo_remove_listeners", [&] { live(sdk)->sdk->removeListeners(); });
}

pactivo_result pactivo_get_purpose_consent(pactivo_sdk* sdk, int64_t purpose_id,
                                           const char** out_consent) {
  return guarded("pactivo_get_purpose_consent", [&] {
    auto handle = live(sdk);
    require(out_consent, "out_consent");
    *out_consent = consentText(handle->sdk->get(purpose_id));
  });
}

pactivo_result pactivo_get_permission_consent(pactivo_sdk* sdk, const char* permission_key,
                                              const char** out_consent) {
  return guarded("pactivo_get_permission_consent", [&] {
    auto handle = live(sdk);
    std::string key = textArgument(permission_key, "permission_key");
    require(out_consent, "out_consent");
    *out_consent = consentText(handle->sdk->get(LumariKey::fromRawValue(key)));
  });
}

pactivo_result pactivo_set_purpose_consent(pactivo_sdk* sdk, int64_t purpose_id,
                                           const char* consent) {
  return guarded("pactivo_set_purpose_consent", [&] {
    auto handle = live(sdk);
    ConsentStatus status = consentArgument(consent);
    for (const Purpose& purpose : handle->sdk->getPurposeConsents()) {
      if (purpose.purposeId != purpose_id) continue;
      if (!handle->sdk->set(purpose, status)) {
        throw Failure{PACTIVO_REFUSED, "purpose " + std::to_string(purpose_id) + " cannot be " +
                                           consentText(status)};
      }
      return;
    }
    throw Failure{PACTIVO_NOT_FOUND, "no purpose " + std::to_string(purpose_id)};
  });
}

pactivo_result pactivo_set_permission_consent(pactivo_sdk* sdk, const char* permission_key,
                                              const char* consent) {
  return guarded("pactivo_set_permission_consent", [&] {
    auto handle = live(sdk);
    std::string key = textArgument(permission_key, "permission_key");
    ConsentStatus status = consentArgument(consent);
    const LumariKey wanted = LumariKey::fromRawValue(key);
    for (const AppPermission& permission : handle->sdk->getPermissionConsents()) {
      if (permission.permissionId != wanted) continue;
      if (!handle->sdk->set(permission, status)) {
        throw Failure{PACTIVO_REFUSED, "permission " + key + " is not " + consentText(status)};
      }
      return;
    }
    throw Failure{PACTIVO_NOT_FOUND, "no permission " + key};
  });
}

pactivo_result pactivo_remove_consents(pactivo_sdk* sdk) {
  return guarded("pactivo_remove_consents", [&] { live(sdk)->sdk->removeConsents(); });
}

namespace {

template <typename Query>
pactivo_result jsonQuery(const char* function, pactivo_sdk* sdk, char** out_json, Query&& query) {
  return guarded(function, [&] {
    auto handle = live(sdk);
    require(out_json, "out_json");
    *out_json = duplicate(query(*handle->sdk));
  });
}

}  // namespace

pactivo_result pactivo_get_purpose_consents(pactivo_sdk* sdk, char** out_json) {
  return jsonQuery("pactivo_get_purpose_consents", sdk, out_json,
                   [](ConsentSDK& s) { return encodeList(s.getPurposeConsents()); });
}

pactivo_result pactivo_get_permission_consents(pactivo_sdk* sdk, char** out_json) {
  return jsonQuery("pactivo_get_permission_consents", sdk, out_json,
                   [](ConsentSDK& s) { return encodeList(s.getPermissionConsents()); });
}

pactivo_result pactivo_get_gcm_config(pactivo_sdk* sdk, char** out_json) {
  return jsonQuery("pactivo_get_gcm_config", sdk, out_json,
                   [](ConsentSDK& s) { return encodeOptional(s.getGCMConfig()); });
}

pactivo_result pactivo_get_settings_prompt(pactivo_sdk* sdk, char** out_json) {
  return jsonQuery("pactivo_get_settings_prompt", sdk, out_json,
                   [](ConsentSDK& s) { return encodeOptional(s.getSettingsPrompt()); });
}

pactivo_result pactivo_get_gcm_consents(pactivo_sdk* sdk, char** out_json) {
  return jsonQuery("pactivo_get_gcm_consents", sdk, out_json,
                   [](ConsentSDK& s) { return encodeGcmConsents(s.getGCMConsents()); });
}

pactivo_result pactivo_get_banner_config(pactivo_sdk* sdk, const char* config_json,
                                         char** out_json) {
  std::optional<MainConfiguration> config;
  return jsonQuery("pactivo_get_banner_config", sdk, out_json, [&](ConsentSDK& s) {
    if (config_json) config = decodeArgument<MainConfiguration>(config_json, "config_json");
    return encodeOptional(s.getBannerConfig(config));
  });
}

pactivo_result pactivo_upload_consents(pactivo_sdk* sdk, const char* url,
                                       const char* request_json) {
  return guarded("pactivo_upload_consents", [&] {
    auto handle = live(sdk);
    std::string target = textArgument(url, "url");
    auto request = decodeArgument<PostConsentsRequest>(request_json, "request_json");
    handle->sdk->uploadConsents(target, request);
  });
}

pactivo_result pactivo_check_consents(pactivo_sdk* sdk) {
  return guarded("pactivo_check_consents", [&] {
    auto handle = live(sdk);
    refuseInCallback("pactivo_check_consents");
    handle->sdk->checkConsents();
  });
}

namespace {

// The asynchronous queries run through the facade's own callback forms, so
// the instance's destruction joins them.
template <typename Start>
pactivo_result asyncQuery(const char* function, pactivo_sdk* sdk, pactivo_json_callback callback,
                          Start&& start) {
  return guarded(function, [&] {
    auto handle = live(sdk);
    require(reinterpret_cast<const void*>(callback), "callback");
    start(*handle->sdk);
  });
}

}  // namespace

pactivo_result pactivo_get_purpose_consents_async(pactivo_sdk* sdk, pactivo_json_callback callback,
                                                  void* user_data) {
  return asyncQuery("pactivo_get_purpose_consents_async", sdk, callback, [&](ConsentSDK& s) {
    s.getPurposeConsents([callback, user_data](std::vector<Purpose> purposes) {
      deliver(callback, user_data, [&] { return encodeList(purposes); });
    });
  });
}

pactivo_result pactivo_get_permission_consents_async(pactivo_sdk* sdk,
                                                     pactivo_json_callback callback,
                                                     void* user_data) {
  return asyncQuery("pactivo_get_permission_consents_async", sdk, callback, [&](ConsentSDK& s) {
    s.getPermissionConsents([callback, user_data](std::vector<AppPermission> permissions) {
      deliver(callback, user_data, [&] { return encodeList(permissions); });
    });
  });
}

pactivo_result pactivo_get_gcm_consents_async(pactivo_sdk* sdk, pactivo_json_callback callback,
                                              void* user_data) {
  return asyncQuery("pactivo_get_gcm_consents_async", sdk, callback, [&](ConsentSDK& s) {
    s.getGCMConsents([callback, user_data](std::map<GoogleConsentType, ConsentStatus> consents) {
      deliver(callback, user_data, [&] { return encodeGcmConsents(consents); });
    });
  });
}

pactivo_result pactivo_get_banner_config_async(pactivo_sdk* sdk, const char* config_json,
                                               pactivo_json_callback callback, void* user_data) {
  return asyncQuery("pactivo_get_banner_config_async", sdk, callback, [&](ConsentSDK& s) {
    std::optional<MainConfiguration> config;
    if (config_json) config = decodeArgument<MainConfiguration>(config_json, "config_json");
    s.getBannerConfig(config, [callback, user_data](std::optional<BannerConfig> banner) {
      deliver(callback, user_data, [&] { return encodeOptional(banner); });
    });
  });
}

pactivo_result pactivo_upload_consents_async(pactivo_sdk* sdk, const char* url,
                                             const char* request_json,
                                             pactivo_done_callback callback, void* user_data) {
  return guarded("pactivo_upload_consents_async", [&] {
    auto handle = live(sdk);
    std::string target = textArgument(url, "url");
    auto request = decodeArgument<PostConsentsRequest>(request_json, "request_json");
    require(reinterpret_cast<const void*>(callback), "callback");
    handle->sdk->uploadConsents(target, request, [callback, user_data] {
      callHost("upload callback", [&] { callback(PACTIVO_OK, user_data); });
    });
  });
}

pactivo_result pactivo_set_log_level(pactivo_log_level level) {
  return guarded("pactivo_set_log_level", [&] {
    if (rawEnum(level) < PACTIVO_LOG_DEBUG || rawEnum(level) > PACTIVO_LOG_ERROR) {
      throw Failure{PACTIVO_MISUSE, "level is out of range"};
    }
    SDKLogger::shared().setLogLevel(static_cast<LogLevel>(level));
  });
}

pactivo_result pactivo_get_log_level(pactivo_log_level* out_level) {
  return guarded("pactivo_get_log_level", [&] {
    require(out_level, "out_level");
    *out_level = static_cast<pactivo_log_level>(SDKLogger::shared().logLevel());
  });
}

pactivo_result pactivo_set_log_sink(pactivo_log_callback callback, void* user_data) {
  return guarded("pactivo_set_log_sink", [&] {
    if (callback == nullptr) {
      SDKLogger::shared().setSink(nullptr);
      return;
    }
    SDKLogger::shared().setSink([callback, user_data](std::string_view text) {
      if (t_inSink) return;
      t_inSink = true;
      std::string copy(text);
      // What a throwing sink logs comes back here and is dropped.
      callHost("log sink", [&] { callback(copy.c_str(), user_data); });
      t_inSink = false;
    });
  });
}

pactivo_result pactivo_install_platform(const pactivo_platform* platform) {
  return guarded("pactivo_install_platform", [&] {
    if (platform == nullptr) {
      installPlatform(nullptr);
      return;
    }
    std::optional<pactivo_platform> copy = readPlatformStruct(*platform);
    if (!copy) throw Failure{PACTIVO_MISUSE, "platform.size is too small"};
    if (copy->tracking_status < 0 || copy->tracking_status > 3) {
      throw Failure{PACTIVO_MISUSE, "platform.tracking_status is out of range"};
    }
    auto check = [](const char* text, const char* name) {
      if (text) textArgument(text, name);
    };
    check(copy->data_directory, "platform.data_directory");
    check(copy->application_name, "platform.application_name");
    check(copy->device_name, "platform.device_name");
    check(copy->advertising_identifier, "platform.advertising_identifier");
    check(copy->ca_file, "platform.ca_file");
    check(copy->ca_directory, "platform.ca_directory");
    check(copy->client_certificate, "platform.client_certificate");
    check(copy->client_key, "platform.client_key");
    check(copy->proxy, "platform.proxy");
    if (copy->preferred_language_count > 0) require(copy->preferred_languages, "languages");
    for (std::size_t i = 0; i < copy->preferred_language_count; ++i) {
      textArgument(copy->preferred_languages[i], "platform.preferred_languages[]");
    }
    if (copy->info_dictionary_count > 0) require(copy->info_dictionary, "info_dictionary");
    for (std::size_t i = 0; i < 2 * copy->info_dictionary_count; ++i) {
      textArgument(copy->info_dictionary[i], "platform.info_dictionary[]");
    }
    installPlatform(std::make_shared<CPlatform>(*copy));
  });
}

struct pactivo_observation {
  ConsentObservation observation;
};

pactivo_result pactivo_observe_consents(pactivo_sdk* sdk, pactivo_changes_callback callback,
                                        void* user_data, pactivo_observation** out_observation) {
  return guarded("pactivo_observe_consents", [&] {
    auto handle = live(sdk);
    require(reinterpret_cast<const void*>(callback), "callback");
    require(out_observation, "out_observation");
    auto observation = std::make_unique<pactivo_observation>();
    observation->observation =
        handle->sdk->observeConsents([callback, user_data](const ConsentChanges& changes) {
          const std::string json = encode(changes);
          callHost("consent changes callback", [&] { callback(json.c_str(), user_data); });
        });
    *out_observation = observation.release();
  });
}

pactivo_result pactivo_observation_cancel(pactivo_observation* observation) {
  return guarded("pactivo_observation_cancel", [&] { delete observation; });
}
