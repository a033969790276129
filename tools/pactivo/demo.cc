// `pactivo demo`: the library against a content server and an application
// server of its own on 127.0.0.1, in a fresh data directory. Needs no network.
#include <httplib.h>
#include <stdlib.h>

#include <atomic>
#include <cstdio>
#include <filesystem>
#include <mutex>
#include <thread>

#include "cli.h"

namespace pactivo::cli {
namespace {

// The servers: every configuration path gets the example document; every
// consent upload is kept and answered with success.
class DemoServers {
 public:
  DemoServers() {
    content_.Get(R"(/consent/mobile_banner/.*\.json)",
                 [](const httplib::Request&, httplib::Response& response) {
                   response.set_header("ETag", "\"demo-1\"");
                   response.set_content(kExampleConfiguration, "application/json");
                 });
    application_.Post("/lumari/v1/consent/mobile/singleupload",
                      [this](const httplib::Request& request, httplib::Response& response) {
                        {
                          std::lock_guard lock(mutex_);
                          uploads_.push_back(request.body);
                        }
                        response.set_content(R"({"status": 0, "message": "Consents recorded"})",
                                             "application/json");
                      });
    content_.set_tcp_nodelay(true);
    application_.set_tcp_nodelay(true);
    contentPort_ = content_.bind_to_any_port("127.0.0.1");
    applicationPort_ = application_.bind_to_any_port("127.0.0.1");
    threads_.emplace_back([this] { content_.listen_after_bind(); });
    threads_.emplace_back([this] { application_.listen_after_bind(); });
    while (!content_.is_running() || !application_.is_running()) {
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
  }
  ~DemoServers() {
    content_.stop();
    application_.stop();
    for (auto& thread : threads_) thread.join();
  }
  std::string contentUrl() const {
    return "http://127.0.0.1:" + std::to_string(contentPort_) + "/";
  }
  std::string applicationUrl() const {
    return "http://127.0.0.1:" + std::to_string(applicationPort_) + "/";
  }
  std::vector<std::string> uploads() {
    std::lock_guard lock(mutex_);
    return uploads_;
  }
  bool waitForUploads(std::size_t count) {
    for (int i = 0; i < 500; ++i) {
      if (uploads().size() >= count) return true;
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return false;
  }

 private:
  httplib::Server content_;
  httplib::Server application_;
  int contentPort_ = 0;
  int applicationPort_ = 0;
  std::vector<std::thread> threads_;
  std::mutex mutex_;
  std::vector<std::string> uploads_;
};

// The platform of the demo host. It also plays the companion UI, which marks
// a changed choice in the host's own preference store.
class DemoPlatform : public LinuxPlatform {
 public:
  explicit DemoPlatform(std::filesystem::path dataDirectory)
      : LinuxPlatform(Settings{"pactivo-demo", std::move(dataDirectory), {}, {}}) {}
  bool standardPreferenceBool(const std::string& key) const override {
    return key == "ARE_PURPOSES_CHANGED" && purposesChanged.load();
  }
  std::string deviceName() const override { return "Pactivo demo device"; }
  std::atomic<bool> purposesChanged{false};
};

std::filesystem::path makeTemporaryDirectory() {
  std::string pattern = (std::filesystem::temp_directory_path() / "pactivo-demo-XXXXXX").string();
  if (mkdtemp(pattern.data()) == nullptr)
    throw std::runtime_error("cannot create a temporary directory");
  return pattern;
}

}  // namespace

int runDemo(const CommonOptions& options) {
  DemoServers servers;
  const bool temporary = options.dataDir.empty();
  const std::filesystem::path dataDir =
      temporary ? makeTemporaryDirectory() : std::filesystem::path(options.dataDir);
  auto platform = std::make_shared<DemoPlatform>(dataDir);
  installPlatform(platform);
  const bool human = !options.json;
  if (human) {
    std::printf(
        "Pactivo demo\n  content server:     %s\n  application server: %s\n"
        "  data directory:     %s\n\n",
        servers.contentUrl().c_str(), servers.applicationUrl().c_str(), dataDir.c_str());
  }

  int status = 0;
  {
    ConsentSDK sdk;
    // France: the GDPR banner, and Google Consent Mode's default mapping,
    // where analytics follows purpose 2 alone.
    const std::string location = options.location.value_or("FR");
    ConsentSDKOptions sdkOptions(servers.applicationUrl(), servers.contentUrl(), "demo-tenant",
                                 "demo-app", false, options.logLevel, options.interval,
                                 std::nullopt, options.language.value_or("en"), location,
                                 WebViewConfig({}, std::nullopt));
    SDKStatus readiness = setupAndWait(sdk, sdkOptions, 10, human);
    if (readiness != SDKStatus::available) {
      std::fprintf(stderr, "pactivo: the configuration could not be loaded\n");
      return 1;
    }
    // The defaults of a user who has not chosen yet are uploaded first; the
    // pending lists empty once the server has accepted them.
    servers.waitForUploads(1);
    for (int i = 0; i < 500 && !UserDefaultManager::getPendingPurposes().empty(); ++i) {
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }

    std::optional<BannerConfig> banner = sdk.getBannerConfig(std::nullopt);
    std::vector<Purpose> purposes = sdk.getPurposeConsents();
    std::vector<AppPermission> permissions = sdk.getPermissionConsents();
    std::map<GoogleConsentType, ConsentStatus> gcm = sdk.getGCMConsents();

    // The user grants analytics (purpose 2).
    std::optional<Purpose> choice;
    for (const Purpose& purpose : purposes) {
      if (purpose.purposeId == 2) choice = purpose;
    }
    const bool recorded = choice && sdk.set(*choice, ConsentStatus::granted);
    platform->purposesChanged = true;
    sdk.checkConsents();
    servers.waitForUploads(2);
    std::vector<std::string> uploads = servers.uploads();
    std::map<GoogleConsentType, ConsentStatus> gcmAfter = sdk.getGCMConsents();

    const std::string bannerName = banner ? banner->name.value_or("?") : "none";
    const std::string compliance =
        banner && banner->complianceType ? std::string(rawValue(*banner->complianceType)) : "-";
    if (human) {
      std::printf("\nBanner for location %s: %s (%s)\n\nPurposes\n", location.c_str(),
                  bannerName.c_str(), compliance.c_str());
      printPurposes(purposes);
      std::printf("\nPermissions\n");
      printPermissions(permissions);
      std::printf("\nGoogle Consent Mode\n");
      printGcm(gcm);
      std::printf("\nRecorded a choice: purpose 2 (%s) granted: %s\n",
                  choice ? localized(choice->purposeName).c_str() : "?", recorded ? "yes" : "no");
      std::printf("Google Consent Mode now\n");
      printGcm(gcmAfter);
      std::printf("\nUploads received by the application server: %zu\n", uploads.size());
      for (std::size_t i = 0; i < uploads.size(); ++i) {
        std::printf("  upload %zu: %s\n", i + 1, uploads[i].c_str());
      }
    } else {
      std::string json = "{\"banner\":{\"name\":" + jsonString(bannerName) +
                         ",\"compliance_type\":" + jsonString(compliance) +
                         "},\"purposes\":" + purposesJson(purposes) +
                         ",\"permissions\":" + permissionsJson(permissions) +
                         ",\"gcm\":" + gcmJson(gcm) + ",\"gcm_after_choice\":" + gcmJson(gcmAfter) +
                         ",\"choice_recorded\":" + (recorded ? "true" : "false") + ",\"uploads\":[";
      for (std::size_t i = 0; i < uploads.size(); ++i) json += (i ? "," : "") + uploads[i];
      std::printf("%s]}\n", json.c_str());
    }
    status = recorded && uploads.size() >= 2 ? 0 : 1;
  }
  installPlatform(nullptr);
  if (temporary) {
    std::error_code ignored;
    std::filesystem::remove_all(dataDir, ignored);
  }
  return status;
}

}  // namespace pactivo::cli
