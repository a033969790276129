#include <algorithm>
#include <cctype>

#include "pactivo/options.h"
#include "sdk/options_rules.h"

namespace pactivo {
namespace {

constexpr std::int64_t kMinimumCheckInterval = 60;

std::string lowerCased(std::string text) {
  std::transform(text.begin(), text.end(), text.begin(),
                 [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
  return text;
}

}  // namespace

WebViewConfig::WebViewConfig(std::vector<std::string> allowedDomains,
                             std::optional<std::string> blockedPageHTML)
    : allowedDomains(std::move(allowedDomains)), blockedPageHTML(std::move(blockedPageHTML)) {}

ConsentSDKOptions::ConsentSDKOptions(std::string appUrl, std::string cdnUrl, std::string tenantId,
                                     std::string appId, bool testingMode, LogLevel logLevel,
                                     std::int64_t consentsCheckInterval,
                                     std::optional<std::string> subjectId,
                                     std::optional<std::string> languageCode,
                                     std::optional<std::string> locationCode,
                                     WebViewConfig webviewConfig)
    : appUrl(std::move(appUrl)),
      cdnUrl(std::move(cdnUrl)),
      tenantId(std::move(tenantId)),
      appId(std::move(appId)),
      testingMode(testingMode),
      logLevel(logLevel),
      consentsCheckInterval(consentsCheckInterval),
      subjectId(std::move(subjectId)),
      languageCode(std::move(languageCode)),
      locationCode(std::move(locationCode)),
      mode(Mode::live),
      webviewConfig(std::move(webviewConfig)) {
  detail::normaliseOptions(*this);
}

namespace detail {

void normaliseOptions(ConsentSDKOptions& options) {
  options.consentsCheckInterval = std::max(options.consentsCheckInterval, kMinimumCheckInterval);
  if (options.languageCode) options.languageCode = lowerCased(std::move(*options.languageCode));
  options.mode = options.testingMode ? Mode::draft : Mode::live;
}

}  // namespace detail

}  // namespace pactivo
