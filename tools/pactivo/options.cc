#include <charconv>
#include <condition_variable>
#include <cstdio>
#include <mutex>

#include "cli.h"

namespace pactivo::cli {
namespace {

std::int64_t parseInterval(const std::string& text) {
  std::int64_t value = 0;
  auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), value);
  if (ec != std::errc() || end != text.data() + text.size() || value <= 0) {
    throw UsageError("--interval takes a positive number of seconds, not \"" + text + "\"");
  }
  return value;
}

}  // namespace

CommonOptions parseOptions(const std::vector<std::string>& words) {
  CommonOptions options;
  const std::map<std::string, std::string CommonOptions::*> strings = {
      {"--cdn-url", &CommonOptions::cdnUrl},       {"--app-url", &CommonOptions::appUrl},
      {"--tenant", &CommonOptions::tenant},        {"--app", &CommonOptions::app},
      {"--data-dir", &CommonOptions::dataDir},     {"--ca-file", &CommonOptions::caFile},
      {"--ca-dir", &CommonOptions::caDir},         {"--client-cert", &CommonOptions::clientCert},
      {"--client-key", &CommonOptions::clientKey}, {"--proxy", &CommonOptions::proxy},
  };
  for (std::size_t i = 0; i < words.size(); ++i) {
    const std::string& word = words[i];
    auto value = [&]() -> const std::string& {
      if (i + 1 >= words.size()) throw UsageError(word + " needs a value");
      return words[++i];
    };
    if (word == "--help" || word == "-h") {
      options.help = true;
    } else if (word == "--json") {
      options.json = true;
    } else if (word == "--testing") {
      options.testing = true;
    } else if (word == "--strict") {
      options.strict = true;
    } else if (auto it = strings.find(word); it != strings.end()) {
      options.*(it->second) = value();
    } else if (word == "--language") {
      options.language = value();
    } else if (word == "--location") {
      options.location = value();
    } else if (word == "--interval") {
      options.interval = parseInterval(value());
    } else if (word == "--log-level") {
      const std::string& level = value();
      auto parsed = fromRawValue<LogLevel>(level);
      if (!parsed)
        throw UsageError("--log-level is DEBUG, INFO, WARNING or ERROR, not \"" + level + "\"");
      options.logLevel = *parsed;
    } else if (word.rfind("--", 0) == 0) {
      throw UsageError("unknown option " + word);
    } else {
      options.arguments.push_back(word);
    }
  }
  return options;
}

void installDataDirectory(const CommonOptions& options) {
  LinuxPlatform::Settings settings;
  settings.applicationName = "pactivo";
  settings.dataDirectory = options.dataDir;
  settings.network = {.caFile = options.caFile,
                      .caDirectory = options.caDir,
                      .clientCertificate = options.clientCert,
                      .clientKey = options.clientKey,
                      .proxy = options.proxy};
  installPlatform(std::make_shared<LinuxPlatform>(settings));
}

ConsentSDKOptions libraryOptions(const CommonOptions& options) {
  if (options.cdnUrl.empty())
    throw UsageError("--cdn-url is required (the content server's base URL)");
  auto withSlash = [](std::string url) {
    if (!url.empty() && url.back() != '/') url += '/';
    return url;
  };
  return ConsentSDKOptions(withSlash(options.appUrl.empty() ? options.cdnUrl : options.appUrl),
                           withSlash(options.cdnUrl), options.tenant, options.app, options.testing,
                           options.logLevel, options.interval, std::nullopt, options.language,
                           options.location, WebViewConfig({}, std::nullopt));
}

SDKStatus setupAndWait(ConsentSDK& sdk, const ConsentSDKOptions& options, int timeoutSeconds,
                       bool printChanges) {
  std::mutex mutex;
  std::condition_variable changed;
  bool settled = false;
  bool immediate = true;
  // Registered before setup, so every call after the first is a change that
  // setup caused.
  sdk.isReady([&](SDKStatus status) {
    if (printChanges) std::printf("readiness: %s\n", std::string(pactivo::status(status)).c_str());
    std::lock_guard lock(mutex);
    if (std::exchange(immediate, false)) return;
    if (status != SDKStatus::fetching) settled = true;
    changed.notify_all();
  });
  sdk.setup(options);
  std::unique_lock lock(mutex);
  changed.wait_for(lock, std::chrono::seconds(timeoutSeconds), [&] { return settled; });
  lock.unlock();
  sdk.removeListeners();
  return sdk.getStatus();
}

}  // namespace pactivo::cli
