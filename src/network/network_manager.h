// The network layer: send one request, classify the reply, keep the ETag,
// decode the body.
#ifndef PACTIVO_SRC_NETWORK_NETWORK_MANAGER_H_
#define PACTIVO_SRC_NETWORK_NETWORK_MANAGER_H_

#include <cstddef>
#include <map>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "models/json_text.h"
#include "network/request_builder.h"
#include "pactivo/json.h"
#include "pactivo/network_error.h"
#include "pactivo/platform.h"

namespace pactivo::detail {

// A transfer that produced no HTTP reply: refused connection, DNS failure,
// time-out, TLS failure, cancellation, or a body over the size limit.
class TransportError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// Larger bodies are refused rather than held in memory.
inline constexpr std::size_t kMaxResponseBodyBytes = 64 * 1024 * 1024;

struct HTTPResponse {
  std::string url;
  int statusCode = 0;
  std::map<std::string, std::string> headers;  // names as the server sent them
};

struct Exchange {
  std::optional<HTTPResponse> response;  // nullopt for a reply that is not HTTP
  // With kJsonReadAhead bytes of spare capacity, so that it is decoded
  // where it is.
  std::optional<std::string> body;
};

// What sending does with a redirect from `from` to `to` (absolute URLs).
enum class RedirectAction {
  follow,
  // To another host: followed without "X-Auth-Token" and "Authorization",
  // which belong to the host the request was built for.
  followWithoutCredentials,
  // From https to http (the body and headers would go in clear), or to a URL
  // that is not http or https.
  refuse,
};
RedirectAction redirectAction(std::string_view from, std::string_view to);

// The text logged for a failed exchange (request, response and body).
std::string exchangeDump(const URLRequest& request, const std::optional<HTTPResponse>& response,
                         const std::optional<std::string>& body);

// "Pactivo/<version> (Linux; <application>/<application version>)", the
// application's version left out when its information dictionary has no
// "CFBundleShortVersionString".
std::string userAgent(const Platform& platform);

// "de-DE, de;q=0.9, en;q=0.8" for the preferred languages de-DE, de and en:
// at most six, each after the first a tenth less wanted than the one before.
std::string acceptLanguage(const std::vector<std::string>& languages);

// What would make requests fail under `settings`, one message for each
// problem: a trust file or directory that cannot be read, a client
// certificate or key that is unreadable, not PEM, encrypted, or not a pair.
// Empty when all is well.
std::vector<std::string> networkSettingsProblems(const NetworkSettings& settings);

// Sends requests. Implementations are safe to call from several threads.
class NetworkManager {
 public:
  virtual ~NetworkManager() = default;

  // Sends `request` once, with no cache. Throws TransportError.
  virtual Exchange send(const URLRequest& request) = 0;

  // Sends `request` and decodes a 2xx body as T. 304 throws cdnNotModified
  // and 404 invalidStatusCode(404), quietly; every other failure is logged
  // with the exchange dump and thrown. A 2xx "Etag" is stored before the body
  // is decoded; with `deferredETag` it is handed to the caller instead, to be
  // stored in the commit that records what the body changed (it is still
  // stored at once when the body does not decode).
  template <typename T>
  T processRequest(const URLRequest& request, std::optional<std::string>* deferredETag = nullptr) {
    Exchange exchange = send(request);
    std::optional<std::string> etag = checkStatus(request, exchange);
    if (etag && deferredETag == nullptr) storeETag(*etag);
    static const std::string kNoBody;
    auto decoded = decodeText<T>(exchange.body ? *exchange.body : kNoBody);
    if (!decoded.ok()) {
      if (etag && deferredETag != nullptr) storeETag(*etag);
      failDecoding(request, exchange, typeName<T>(), decoded.error);
    }
    if (deferredETag != nullptr) *deferredETag = std::move(etag);
    return std::move(*decoded.value);
  }

 private:
  // Throws for a reply that is not 2xx; the reply's "Etag", if any.
  static std::optional<std::string> checkStatus(const URLRequest& request,
                                                const Exchange& exchange);
  static void storeETag(const std::string& etag);
  [[noreturn]] static void failDecoding(const URLRequest& request, const Exchange& exchange,
                                        std::string_view typeName, const std::string& error);
};

// The libcurl implementation: a fresh easy handle per request (no shared
// cache or connection state), TLS verification always on, the current
// platform's NetworkSettings, User-Agent and Accept-Language applied to each, up to 10 redirects
// followed as redirectAction() allows (a 303, and a 301 or 302 answering a
// POST, continue as a body-less GET), and the transfer aborted promptly when
// the calling task is cancelled.
class ConsentNetworkManager : public NetworkManager {
 public:
  ConsentNetworkManager();
  Exchange send(const URLRequest& request) override;
};

}  // namespace pactivo::detail

#endif  // PACTIVO_SRC_NETWORK_NETWORK_MANAGER_H_
