// Commands against a real deployment, and `inspect`.
#include <pthread.h>

#include <csignal>
#include <cstdio>
#include <ctime>
#include <fstream>
#include <sstream>
#include <thread>

#include "cli.h"

namespace pactivo::cli {
namespace {

std::optional<ConsentStatus> parseConsent(const std::string& text) {
  auto status = fromRawValue<ConsentStatus>(text);
  if (!status)
    throw UsageError("a consent is granted, declined, not_determined or withdrawn, not \"" + text +
                     "\"");
  return status;
}

int printStatus(const CommonOptions& options, SDKStatus status) {
  if (options.json) {
    std::printf("{\"status\":%d,\"text\":%s}\n", static_cast<int>(status),
                jsonString(pactivo::status(status)).c_str());
  } else {
    std::printf("%s\n", std::string(pactivo::status(status)).c_str());
  }
  return status == SDKStatus::available ? 0 : 1;
}

void printBanner(const CommonOptions& options, const std::optional<BannerConfig>& banner) {
  const std::string name = banner ? banner->name.value_or("") : "";
  const std::string compliance =
      banner && banner->complianceType ? std::string(rawValue(*banner->complianceType)) : "";
  const std::string interval = banner ? banner->bannerReappearanceTime.value_or("12 month") : "";
  if (options.json) {
    if (!banner) {
      std::printf("null\n");
      return;
    }
    std::printf("{\"name\":%s,\"compliance_type\":%s,\"reappearance\":%s}\n",
                jsonString(name).c_str(), jsonString(compliance).c_str(),
                jsonString(interval).c_str());
  } else if (!banner) {
    std::printf("no banner applies\n");
  } else {
    printTable({"BANNER", "COMPLIANCE", "REAPPEARS"}, {{name, compliance, interval}});
  }
}

// One line of `watch`, written whole: several library threads print.
void printLine(const std::string& line) {
  std::printf("%s\n", line.c_str());
  std::fflush(stdout);
}

std::string consentText(std::optional<ConsentStatus> consent) {
  return consent ? std::string(rawValue(*consent)) : "none";
}

std::string describe(const ConsentChanges& delivery) {
  // Appended piece by piece: GCC 12 at -O2 takes "text" + std::string&& for
  // an overlapping copy (-Wrestrict).
  std::string line = "consents (";
  line += rawValue(delivery.cause);
  line += "):";
  if (delivery.changes.empty()) line += " none";
  for (const ConsentChange& change : delivery.changes) {
    line += ' ';
    if (change.purposeId) {
      line += "purpose ";
      line += std::to_string(*change.purposeId);
    } else {
      line += change.permission.value_or("");
    }
    line += ' ';
    line += consentText(change.before);
    line += " -> ";
    line += consentText(change.after);
    line += ',';
  }
  if (line.back() == ',') line.pop_back();
  return line;
}

int watch(ConsentSDK& sdk, const CommonOptions& options, const ConsentSDKOptions& sdkOptions) {
  // Blocked before the library starts a thread, so every thread inherits the
  // mask and the signals wait for sigwait() below: nothing polls for them.
  sigset_t stopSignals;
  sigemptyset(&stopSignals);
  sigaddset(&stopSignals, SIGINT);
  sigaddset(&stopSignals, SIGTERM);
  pthread_sigmask(SIG_BLOCK, &stopSignals, nullptr);
  const bool json = options.json;
  // Uploads show in the log; everything else of the log stays quiet.
  SDKLogger::shared().setSink([json](std::string_view text) {
    if (text.find("uploadConsents(url:request:)") == std::string_view::npos &&
        text.find("[ERROR]") == std::string_view::npos) {
      return;
    }
    std::string line(text);
    while (!line.empty() && line.back() == '\n') line.pop_back();
    printLine(json ? "{\"log\":" + jsonString(line) + "}" : line);
  });
  sdk.isReady([json](SDKStatus status) {
    const std::string text(pactivo::status(status));
    printLine(json ? "{\"readiness\":" + jsonString(text) + "}" : "readiness: " + text);
  });
  ConsentObservation observation = sdk.observeConsents([json](const ConsentChanges& delivery) {
    printLine(json ? encode(delivery) : describe(delivery));
  });
  sdk.setup(sdkOptions);
  int signal = 0;
  sigwait(&stopSignals, &signal);
  observation.cancel();
  printLine(json ? "{\"stopping\":true}" : "stopping");
  return 0;
}

}  // namespace

int runDeploymentCommand(const std::string& command, const CommonOptions& options) {
  installDataDirectory(options);
  if (!UserDefaultManager::isAvailable()) {
    std::fprintf(stderr, "pactivo: Could not create or access UserDefaults suite: %s\n",
                 std::string(kPreferenceSuiteName).c_str());
    return 1;
  }
  ConsentSDKOptions sdkOptions = libraryOptions(options);
  ConsentSDK sdk;
  if (command == "watch") return watch(sdk, options, sdkOptions);
  if (command == "remove-consents") {
    sdk.removeConsents();
    std::printf(options.json ? "{\"removed\":true}\n" : "all consents removed\n");
    return 0;
  }
  const SDKStatus status = setupAndWait(sdk, sdkOptions, 70, false);
  if (command == "status") return printStatus(options, status);
  if (status != SDKStatus::available) {
    std::fprintf(stderr, "pactivo: no configuration document: %s\n",
                 std::string(pactivo::status(status)).c_str());
    return 1;
  }
  if (command == "purposes") {
    auto purposes = sdk.getPurposeConsents();
    options.json ? (void)std::printf("%s\n", purposesJson(purposes).c_str())
                 : printPurposes(purposes);
  } else if (command == "permissions") {
    auto permissions = sdk.getPermissionConsents();
    options.json ? (void)std::printf("%s\n", permissionsJson(permissions).c_str())
                 : printPermissions(permissions);
  } else if (command == "banner") {
    printBanner(options, sdk.getBannerConfig(std::nullopt));
  } else if (command == "gcm") {
    auto signals = sdk.getGCMConsents();
    options.json ? (void)std::printf("%s\n", gcmJson(signals).c_str()) : printGcm(signals);
  } else if (command == "set-purpose") {
    if (options.arguments.size() != 2)
      throw UsageError("set-purpose takes ID and granted|declined");
    Purpose purpose;
    try {
      purpose.purposeId = std::stoll(options.arguments[0]);
    } catch (const std::exception&) {
      throw UsageError("a purpose id is a number, not \"" + options.arguments[0] + "\"");
    }
    for (const Purpose& known : sdk.getPurposeConsents()) {
      if (known.purposeId == purpose.purposeId) purpose = known;
    }
    const bool recorded = sdk.set(purpose, *parseConsent(options.arguments[1]));
    std::printf(options.json ? "{\"recorded\":%s}\n" : "recorded: %s\n",
                recorded ? "true" : "false");
    std::fflush(stdout);
    // A one-shot process reports the choice before it ends; what cannot be
    // uploaded now is reported by the next start.
    if (recorded) sdk.checkConsents();
    return recorded ? 0 : 1;
  } else if (command == "set-permission") {
    if (options.arguments.size() != 2) throw UsageError("set-permission takes KEY and STATUS");
    AppPermission permission;
    permission.permissionId = LumariKey::fromRawValue(options.arguments[0]);
    const bool recorded = sdk.set(permission, *parseConsent(options.arguments[1]));
    std::printf(options.json ? "{\"recorded\":%s}\n" : "recorded: %s\n",
                recorded ? "true" : "false");
    return recorded ? 0 : 1;
  } else if (command == "check") {
    sdk.checkConsents();
    const bool pending = UserDefaultManager::getBool(keys::kUploadConsentRequestPending);
    std::printf(options.json ? "{\"upload_pending\":%s}\n" : "check done; upload pending: %s\n",
                pending ? "true" : "false");
    return pending ? 1 : 0;
  }
  return 0;
}

namespace {

std::string typeAndValue(const PreferenceValue& value, std::string* type) {
  struct Visitor {
    std::string* type;
    std::string operator()(const std::string& v) {
      *type = "string";
      return v;
    }
    std::string operator()(bool v) {
      *type = "bool";
      return v ? "true" : "false";
    }
    std::string operator()(std::int64_t v) {
      *type = "integer";
      return std::to_string(v);
    }
    std::string operator()(std::chrono::system_clock::time_point v) {
      *type = "date";
      std::time_t t = std::chrono::system_clock::to_time_t(v);
      char text[32];
      std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%SZ", std::gmtime(&t));
      return text;
    }
    std::string operator()(const std::vector<PreferenceArrayElement>& v) {
      *type = "array";
      std::string text = "[";
      for (const auto& element : v) {
        if (text.size() > 1) text += ", ";
        if (const auto* n = std::get_if<std::int64_t>(&element)) {
          text += std::to_string(*n);
        } else {
          text += std::get<std::string>(element);
        }
      }
      return text + "]";
    }
  };
  return std::visit(Visitor{type}, value);
}

}  // namespace

int runInspect(const CommonOptions& options) {
  installDataDirectory(options);
  const std::filesystem::path dir = currentPlatform()->applicationSupportDirectory();
  std::vector<PreferenceEntry> entries = UserDefaultManager::allEntries();

  // The cached configuration as the library would read it.
  std::optional<std::int64_t> cachedVersion;
  std::string cacheState = "absent";
  std::ifstream file(dir / "tessarin-sdk-cdn.json", std::ios::binary);
  if (file) {
    std::stringstream bytes;
    bytes << file.rdbuf();
    auto decoded = decode<MainConfiguration>(bytes.str());
    cacheState = decoded.ok() ? "valid" : "undecodable: " + decoded.error;
    if (decoded.ok()) cachedVersion = decoded.value->version;
  }
  const std::int64_t savedAt = UserDefaultManager::getInt64(keys::kCdnCachedTimestamp, 0);
  const std::int64_t now = std::chrono::duration_cast<std::chrono::seconds>(
                               std::chrono::system_clock::now().time_since_epoch())
                               .count();
  const std::string age = savedAt > 0 ? std::to_string(now - savedAt) + " s" : "unknown";
  const std::string etag = UserDefaultManager::getETag().value_or("");

  if (options.json) {
    std::string json = "{\"data_directory\":" + jsonString(dir.string()) + ",\"preferences\":[";
    bool first = true;
    for (const PreferenceEntry& entry : entries) {
      std::string type;
      std::string value = typeAndValue(entry.value, &type);
      json += std::string(first ? "" : ",") + "{\"key\":" + jsonString(entry.key) +
              ",\"type\":" + jsonString(type) + ",\"value\":" + jsonString(value) + "}";
      first = false;
    }
    json += "],\"cache\":{\"state\":" + jsonString(cacheState) +
            ",\"version\":" + (cachedVersion ? std::to_string(*cachedVersion) : "null") +
            ",\"age_seconds\":" + (savedAt > 0 ? std::to_string(now - savedAt) : "null") +
            ",\"etag\":" + jsonString(etag) + "}}";
    std::printf("%s\n", json.c_str());
    return 0;
  }
  std::printf("Data directory: %s\n\nPreference suite %s\n", dir.c_str(),
              std::string(kPreferenceSuiteName).c_str());
  std::vector<std::vector<std::string>> rows;
  for (const PreferenceEntry& entry : entries) {
    std::string type;
    std::string value = typeAndValue(entry.value, &type);
    rows.push_back({entry.key, type, value});
  }
  printTable({"KEY", "TYPE", "VALUE"}, rows);
  std::printf("\nCached configuration: %s\n", cacheState.c_str());
  printTable(
      {"AGE", "VERSION", "ETAG"},
      {{age, cachedVersion ? std::to_string(*cachedVersion) : "-", etag.empty() ? "-" : etag}});
  return 0;
}

}  // namespace pactivo::cli
