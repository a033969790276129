// The host's consent operations: reads and writes of consent, queries on the
// configuration document, the banner for the user's location, and uploads.
#include "integrations/google_consent_mode_helper.h"
#include "pactivo/logger.h"
#include "pactivo/platform.h"
#include "pactivo/user_default_manager.h"
#include "permissions/permission_manager.h"
#include "persistence/preference_writer.h"
#include "platform/time.h"
#include "purposes/purpose_manager.h"
#include "runtime/consent_feed.h"
#include "sdk/consent_sdk_impl.h"

namespace pactivo {
namespace {

// A looked-up location is trusted for an hour.
constexpr std::chrono::seconds kLocationFreshness{3600};
constexpr const char* kDefaultLocation = "default";
constexpr const char* kDefaultBannerInterval = "12 month";

// The value of a location reply's map: under "code" when there is one, else
// the first.
std::optional<std::string> anyValue(const std::map<std::string, std::string>& values) {
  if (auto it = values.find("code"); it != values.end()) return it->second;
  if (values.empty()) return std::nullopt;
  return values.begin()->second;
}

// A stored location less than an hour old, and not stamped in the future (a
// clock corrected backwards must not keep it for ever).
bool locationIsFresh() {
  auto stamp = UserDefaultManager::getLocationTimestamp();
  if (!stamp || !UserDefaultManager::getStoredCountryCode()) return false;
  const auto age = currentPlatform()->now() - *stamp;
  return age >= std::chrono::seconds(0) && age < kLocationFreshness;
}

}  // namespace

// ---- Consent state ----

void ConsentSDK::removeConsents() {
  detail::ConsentCauseScope cause(ConsentChangeCause::removal);
  UserDefaultManager::removeAllConsents();
}

ConsentObservation ConsentSDK::observeConsents(
    std::function<void(const ConsentChanges&)> callback) {
  return impl_->observeConsents(std::move(callback));
}

ConsentStatus ConsentSDK::get(std::int64_t purposeId) {
  return UserDefaultManager::getPurposeConsent(std::to_string(purposeId),
                                               detail::PurposeManager::complianceDefault());
}

ConsentStatus ConsentSDK::get(const LumariKey& lumariKey) {
  return detail::PermissionManager::getConsentByPermission(lumariKey);
}

bool ConsentSDK::set(const Purpose& purpose, ConsentStatus consent) {
  if (!detail::PurposeManager::updatePurposeConsent(purpose, consent, kConsentExplicit)) {
    return false;
  }
  // The choice reaches the server within seconds, not an interval later.
  impl_->requestCheckSoon();
  // An explicit purpose choice reaches Google Consent Mode at once.
  impl_->runInBackground([impl = impl_.get()] {
    std::shared_ptr<const MainConfiguration> document = impl->getCDNFile();
    if (document && document->isGcmEnabled.value_or(false)) {
      detail::GoogleConsentModeHelper::updateFirebaseConsent(document.get(), impl->gcmLocation());
    }
  });
  return true;
}

bool ConsentSDK::set(const AppPermission& permission, ConsentStatus consent) {
  return detail::PermissionManager::updatePermissionConsent(permission, consent, kConsentExplicit);
}

// ---- Queries on the document ----

std::vector<Purpose> ConsentSDK::getPurposeConsents() {
  std::shared_ptr<const MainConfiguration> document = impl_->getCDNFile();
  if (!document) return {};
  return detail::PurposeManager(document->purposes, document->isATTEnabled, document->attConfig)
      .getPurposes();
}

std::vector<AppPermission> ConsentSDK::getPermissionConsents() {
  std::shared_ptr<const MainConfiguration> document = impl_->getCDNFile();
  if (!document) return {};
  return detail::PermissionManager(document->permissions, document->settingPrompt).getPermissions();
}

std::optional<GcmConfig> ConsentSDK::getGCMConfig() {
  std::shared_ptr<const MainConfiguration> document = impl_->getCDNFile();
  return document ? document->gcmConfig : std::nullopt;
}

std::optional<SettingsPrompt> ConsentSDK::getSettingsPrompt() {
  std::shared_ptr<const MainConfiguration> document = impl_->getCDNFile();
  return document ? document->settingPrompt : std::nullopt;
}

std::map<GoogleConsentType, ConsentStatus> ConsentSDK::getGCMConsents() {
  return impl_->getGCMConsents();
}

std::optional<BannerConfig> ConsentSDK::getBannerConfig(
    const std::optional<MainConfiguration>& config) {
  if (config) return impl_->getBannerConfig(&*config);
  std::shared_ptr<const MainConfiguration> document = impl_->getCDNFile();
  return impl_->getBannerConfig(document.get());
}

void ConsentSDK::uploadConsents(const std::string& url, const PostConsentsRequest& request) {
  impl_->uploadConsents(url, request);
}

void ConsentSDK::checkConsents() { impl_->checkConsentsNow(); }

void ConsentSDK::getPurposeConsents(std::function<void(std::vector<Purpose>)> done) {
  impl_->runInBackground([this, done = std::move(done)] { done(getPurposeConsents()); });
}

void ConsentSDK::getPermissionConsents(std::function<void(std::vector<AppPermission>)> done) {
  impl_->runInBackground([this, done = std::move(done)] { done(getPermissionConsents()); });
}

void ConsentSDK::getGCMConsents(
    std::function<void(std::map<GoogleConsentType, ConsentStatus>)> done) {
  impl_->runInBackground([this, done = std::move(done)] { done(getGCMConsents()); });
}

void ConsentSDK::getBannerConfig(const std::optional<MainConfiguration>& config,
                                 std::function<void(std::optional<BannerConfig>)> done) {
  impl_->runInBackground([this, config, done = std::move(done)] { done(getBannerConfig(config)); });
}

void ConsentSDK::uploadConsents(const std::string& url, const PostConsentsRequest& request,
                                std::function<void()> done) {
  impl_->runInBackground([this, url, request, done = std::move(done)] {
    uploadConsents(url, request);
    done();
  });
}

// ---- Implementation ----

std::optional<std::string> ConsentSDK::Impl::gcmLocation() const {
  std::optional<ConsentSDKOptions> options = this->options();
  if (options && options->locationCode && !options->locationCode->empty()) {
    return options->locationCode;
  }
  return UserDefaultManager::getStoredCountryCode();
}

std::map<GoogleConsentType, ConsentStatus> ConsentSDK::Impl::getGCMConsents() {
  std::shared_ptr<const MainConfiguration> document = getCDNFile();
  if (!document || !document->isGcmEnabled.value_or(false) || !document->gcmConfig ||
      !document->purposes) {
    return {};
  }
  return detail::GoogleConsentModeHelper::consentStatuses(*document->gcmConfig,
                                                          gcmLocation().value_or(""));
}

bool ConsentSDK::Impl::getCurrentLocation() {
  try {
    CurrentLocationResponse response = fetchCurrentLocation();
    std::optional<std::string> country;
    std::optional<std::string> location;
    if (response.data) {
      country = anyValue(response.data->countryISOCode);
      location = anyValue(response.data->location);
    }
    if (!country) {
      SDKLogger::shared().log("Failed to current location", LogLevel::error,
                              "getCurrentLocation()");
      return false;
    }
    UserDefaultManager::setStoredCountryCode(*country);
    UserDefaultManager::setStoredLocation(location.value_or(*country));
    UserDefaultManager::setLocationTimestamp(currentPlatform()->now());
    return true;
  } catch (const NetworkError& error) {
    SDKLogger::shared().log("Failed to current location: " + error.description(), LogLevel::error,
                            "getCurrentLocation()");
  } catch (const std::exception& error) {
    SDKLogger::shared().log(std::string("Failed to current location: ") + error.what(),
                            LogLevel::error, "getCurrentLocation()");
  }
  return false;
}

std::optional<BannerConfig> ConsentSDK::Impl::getBannerConfig(const MainConfiguration* config) {
  if (config == nullptr || !config->bannerConfig) return std::nullopt;

  // Candidate location keys, most specific first.
  std::vector<std::string> candidates;
  std::optional<ConsentSDKOptions> options = this->options();
  if (options && options->locationCode) {
    candidates.push_back(*options->locationCode);
    std::size_t dash = options->locationCode->find('-');
    if (dash != std::string::npos) candidates.push_back(options->locationCode->substr(0, dash));
  } else {
    // A stale location is a better guess than none: when the lookup fails,
    // the last known location and country stay the candidates.
    if (!locationIsFresh()) getCurrentLocation();
    if (auto location = UserDefaultManager::getStoredLocation()) candidates.push_back(*location);
    if (auto country = UserDefaultManager::getStoredCountryCode()) candidates.push_back(*country);
  }
  candidates.push_back(kDefaultLocation);

  const ConsentBannerConfig& banners = *config->bannerConfig;
  for (const std::string& key : candidates) {
    auto location = banners.locations.find(key);
    if (location == banners.locations.end()) continue;
    auto category = banners.categories.find(location->second);
    if (category == banners.categories.end()) continue;
    BannerConfig selected = category->second;
    UserDefaultManager::setString(keys::kBannerInterval,
                                  selected.bannerReappearanceTime.value_or(kDefaultBannerInterval));
    UserDefaultManager::setComplianceType(
        selected.complianceType.value_or(ComplianceType::noticeOnly));
    selected.translations = config->translations;
    return selected;
  }
  return std::nullopt;
}

void ConsentSDK::Impl::uploadConsents(const std::string& url, const PostConsentsRequest& request) {
  constexpr std::string_view kFunction = "uploadConsents(url:request:)";
  try {
    detail::PostConsentsEndPoint endPoint(UserDefaultManager::getString(keys::kXAuthToken, ""),
                                          request);
    detail::URLRequest built = detail::RequestBuilder(endPoint, url).buildRequest();
    GenericResponse response = networkManager->processRequest<GenericResponse>(built);
    const bool failed = response.status == 1;
    UserDefaultManager::setBool(keys::kUploadConsentRequestPending, failed);
    // A failure the server did not explain still gets a line a reader can find.
    const std::string message =
        failed && response.message.empty() ? "Failed to Upload Consents" : response.message;
    SDKLogger::shared().log(message, failed ? LogLevel::error : LogLevel::info, kFunction);
    if (response.status == 0) {
      // Only what this upload carried: a choice made while it was on its
      // way is still to be reported.
      detail::updatePreferences("pending lists", [&](detail::PreferenceWriter& writer) {
        writer.removeReported(request.purposeConsents, request.permissions);
        return true;
      });
      startRecurringConsentCheck();
    }
    return;
  } catch (const NetworkError& error) {
    UserDefaultManager::setBool(keys::kUploadConsentRequestPending, true);
    SDKLogger::shared().log(error.description(), LogLevel::error, kFunction);
  } catch (const std::exception& error) {
    UserDefaultManager::setBool(keys::kUploadConsentRequestPending, true);
    SDKLogger::shared().log(error.what(), LogLevel::error, kFunction);
  }
  startRecurringConsentCheck();
}

}  // namespace pactivo
