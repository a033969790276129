// ConsentSDKOptions: everything a host tells the library at setup.
#ifndef PACTIVO_OPTIONS_H_
#define PACTIVO_OPTIONS_H_

#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "pactivo/enums.h"
#include "pactivo/export.h"

namespace pactivo {

// Web-view settings the companion UI applies to the pages it opens. Carried by
// the options, never sent anywhere. An immutable value; safe to share.
class PACTIVO_EXPORT WebViewConfig {
 public:
  WebViewConfig(std::vector<std::string> allowedDomains,
                std::optional<std::string> blockedPageHTML);

  std::vector<std::string> allowedDomains;
  std::optional<std::string> blockedPageHTML;

  bool operator==(const WebViewConfig&) const = default;
};

// The options of one setup. A value type: copy it freely; a copy is safe to
// read from any thread.
//
// The constructor normalises what it is given: an interval below 60 seconds is
// stored as 60, a language code is lower-cased, and `mode` is `draft` in
// testing mode and `live` otherwise. The fields stay writable; setup applies
// the same rules to its own copy, so they hold whatever was written after
// construction (`mode` always follows `testingMode`).
class PACTIVO_EXPORT ConsentSDKOptions {
 public:
  ConsentSDKOptions(std::string appUrl, std::string cdnUrl, std::string tenantId, std::string appId,
                    bool testingMode, LogLevel logLevel, std::int64_t consentsCheckInterval,
                    std::optional<std::string> subjectId, std::optional<std::string> languageCode,
                    std::optional<std::string> locationCode, WebViewConfig webviewConfig);

  // Base URL of the application server (consent uploads); must end in "/".
  std::string appUrl;
  // Base URL of the content server (configuration document); must end in "/".
  std::string cdnUrl;
  std::string tenantId;
  std::string appId;
  // Serves the draft document, discards the cache at every setup and removes
  // all consents when the library is torn down.
  bool testingMode;
  LogLevel logLevel;
  // Seconds between consent checks; never below 60.
  std::int64_t consentsCheckInterval;
  // Host-supplied identity of the data subject.
  std::optional<std::string> subjectId;
  // Host-chosen language, lower-cased.
  std::optional<std::string> languageCode;
  // Host-chosen location code; when absent the location is looked up.
  std::optional<std::string> locationCode;
  Mode mode;
  WebViewConfig webviewConfig;

  bool operator==(const ConsentSDKOptions&) const = default;
};

}  // namespace pactivo

// Consistent with WebViewConfig's equality.
template <>
struct PACTIVO_EXPORT std::hash<pactivo::WebViewConfig> {
  std::size_t operator()(const pactivo::WebViewConfig& value) const noexcept;
};

#endif  // PACTIVO_OPTIONS_H_
