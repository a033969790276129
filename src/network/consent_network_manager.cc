#include <curl/curl.h>
#include <dirent.h>
#include <openssl/bio.h>
#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/x509.h>

#include <algorithm>
#include <cctype>
#include <charconv>
#include <chrono>
#include <cstdlib>
#include <memory>
#include <mutex>
#include <stop_token>

#include "network/network_manager.h"
#include "pactivo/logger.h"
#include "pactivo/user_default_manager.h"
#include "runtime/task_runner.h"

namespace pactivo::detail {
namespace {

// "[\"Accept\": \"*/*\", ...]", sorted by name; "[:]" when empty.
std::string headerMapText(const std::map<std::string, std::string>& headers) {
  if (headers.empty()) return "[:]";
  std::string text = "[";
  for (const auto& [name, value] : headers) {
    if (text.size() > 1) text += ", ";
    text += "\"" + name + "\": \"" + value + "\"";
  }
  return text + "]";
}

bool equalsIgnoringCase(std::string_view a, std::string_view b) {
  return a.size() == b.size() && std::equal(a.begin(), a.end(), b.begin(), [](char x, char y) {
           return std::tolower(static_cast<unsigned char>(x)) ==
                  std::tolower(static_cast<unsigned char>(y));
         });
}

void logDump(const URLRequest& request, const Exchange& exchange) {
  SDKLogger::shared().log(exchangeDump(request, exchange.response, exchange.body), LogLevel::error,
                          "processRequest(_:)");
}

using Clock = std::chrono::steady_clock;

// The most redirects one request follows.
constexpr int kMaxRedirects = 10;

struct Transfer {
  std::string body;
  std::size_t announced = 0;  // the reply's Content-Length, 0 when it has none
  bool tooLarge = false;
  std::map<std::string, std::string> headers;
  Clock::time_point lastActivity = Clock::now();
  curl_off_t uploaded = 0;
};

size_t onBody(char* data, size_t size, size_t count, void* context) {
  auto* transfer = static_cast<Transfer*>(context);
  transfer->lastActivity = Clock::now();
  size_t bytes = size * count;
  if (transfer->body.size() + bytes > kMaxResponseBodyBytes) {
    transfer->tooLarge = true;
    return 0;  // aborts the transfer
  }
  // Sized once from the announced length: grown by doubling, a body of
  // megabytes was copied again and again and left up to twice its size
  // allocated.
  if (transfer->body.empty()) {
    transfer->body.reserve(std::min(std::max(transfer->announced, bytes), kMaxResponseBodyBytes) +
                           kJsonReadAhead);
  }
  transfer->body.append(data, bytes);
  return bytes;
}

size_t onHeader(char* data, size_t size, size_t count, void* context) {
  auto* transfer = static_cast<Transfer*>(context);
  transfer->lastActivity = Clock::now();
  std::string_view line(data, size * count);
  // Each response, an interim 1xx one included, starts with its status line.
  if (line.rfind("HTTP/", 0) == 0) {
    transfer->headers.clear();
    transfer->announced = 0;
    return size * count;
  }
  size_t colon = line.find(':');
  if (colon == std::string_view::npos) return size * count;
  std::string_view name = line.substr(0, colon);
  std::string_view value = line.substr(colon + 1);
  while (!value.empty() && (value.front() == ' ' || value.front() == '\t')) value.remove_prefix(1);
  while (!value.empty() && (value.back() == '\r' || value.back() == '\n' || value.back() == ' ')) {
    value.remove_suffix(1);
  }
  if (equalsIgnoringCase(name, "Content-Length")) {
    std::from_chars(value.data(), value.data() + value.size(), transfer->announced);
  }
  transfer->headers[std::string(name)] = std::string(value);
  return size * count;
}

struct EasyDeleter {
  void operator()(CURL* curl) const { curl_easy_cleanup(curl); }
};

// Runs one easy handle on a multi handle of its own, so that a stop request
// wakes the wait at once (curl_multi_wakeup is safe from any thread) instead
// of at libcurl's next progress call, up to a second later.
class CancellableTransfer {
 public:
  explicit CancellableTransfer(CURL* easy) : multi_(curl_multi_init()), easy_(easy) {
    if (multi_ != nullptr) curl_multi_add_handle(multi_, easy_);
  }
  ~CancellableTransfer() {
    if (multi_ == nullptr) return;
    curl_multi_remove_handle(multi_, easy_);
    curl_multi_cleanup(multi_);
  }
  CancellableTransfer(const CancellableTransfer&) = delete;
  CancellableTransfer& operator=(const CancellableTransfer&) = delete;

  // The transfer's result; CURLE_ABORTED_BY_CALLBACK when `stop` was
  // requested first, CURLE_OPERATION_TIMEDOUT with `idle` set when no byte
  // went either way for `idleLimit`.
  CURLcode run(const std::stop_token& stop, Transfer& transfer, std::chrono::milliseconds idleLimit,
               bool& idle) {
    if (multi_ == nullptr) return CURLE_OUT_OF_MEMORY;
    std::stop_callback wake(stop, [multi = multi_] { curl_multi_wakeup(multi); });
    transfer.lastActivity = Clock::now();
    int running = 1;
    while (true) {
      if (stop.stop_requested()) return CURLE_ABORTED_BY_CALLBACK;
      if (curl_multi_perform(multi_, &running) != CURLM_OK) return CURLE_FAILED_INIT;
      if (running == 0) break;
      // The callbacks mark what arrives; the count shows what left.
      curl_off_t uploaded = 0;
      curl_easy_getinfo(easy_, CURLINFO_SIZE_UPLOAD_T, &uploaded);
      if (uploaded != transfer.uploaded) {
        transfer.uploaded = uploaded;
        transfer.lastActivity = Clock::now();
      }
      auto quiet = std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() -
                                                                         transfer.lastActivity);
      if (quiet >= idleLimit) {
        idle = true;
        return CURLE_OPERATION_TIMEDOUT;
      }
      auto wait = std::clamp(idleLimit - quiet, std::chrono::milliseconds(1),
                             std::chrono::milliseconds(1000));
      if (curl_multi_poll(multi_, nullptr, 0, static_cast<int>(wait.count()), nullptr) !=
          CURLM_OK) {
        return CURLE_FAILED_INIT;
      }
    }
    int pending = 0;
    while (CURLMsg* message = curl_multi_info_read(multi_, &pending)) {
      if (message->msg == CURLMSG_DONE) return message->data.result;
    }
    return CURLE_OK;
  }

 private:
  CURLM* const multi_;
  CURL* const easy_;
};
struct ListDeleter {
  void operator()(curl_slist* list) const { curl_slist_free_all(list); }
};

struct UrlDeleter {
  void operator()(CURLU* url) const { curl_url_cleanup(url); }
};

// The part of an absolute URL, lower-cased; empty when it has none.
std::string urlPart(std::string_view url, CURLUPart which) {
  std::unique_ptr<CURLU, UrlDeleter> parsed(curl_url());
  if (!parsed ||
      curl_url_set(parsed.get(), CURLUPART_URL, std::string(url).c_str(), 0) != CURLUE_OK) {
    return "";
  }
  char* text = nullptr;
  if (curl_url_get(parsed.get(), which, &text, 0) != CURLUE_OK || text == nullptr) return "";
  std::string part(text);
  curl_free(text);
  std::transform(part.begin(), part.end(), part.begin(),
                 [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
  return part;
}

bool isFollowedRedirect(long status) {
  return status == 301 || status == 302 || status == 303 || status == 307 || status == 308;
}

void eraseHeader(std::map<std::string, std::string>& headers, std::string_view name) {
  std::erase_if(headers, [&](const auto& entry) { return equalsIgnoringCase(entry.first, name); });
}

// One request/response exchange, redirects not followed.
struct Hop {
  Exchange exchange;
  std::optional<std::string> redirect;  // where a followed redirect status points
};

// A header value never carries a line break or other control character.
std::string headerSafe(std::string text) {
  std::erase_if(text, [](unsigned char c) { return c < 0x20 || c == 0x7f; });
  return text;
}

std::string environment(const char* name) {
  const char* value = std::getenv(name);
  return value != nullptr ? value : "";
}

// What every hop of one send() applies besides the request itself.
struct Connection {
  NetworkSettings settings;
  std::string userAgent;
  std::string acceptLanguage;
};

void applyTrust(CURL* handle, const NetworkSettings& settings) {
  // Verification is never relaxed, whatever else is set.
  curl_easy_setopt(handle, CURLOPT_SSL_VERIFYPEER, 1L);
  curl_easy_setopt(handle, CURLOPT_SSL_VERIFYHOST, 2L);
  curl_easy_setopt(handle, CURLOPT_PROXY_SSL_VERIFYPEER, 1L);
  curl_easy_setopt(handle, CURLOPT_PROXY_SSL_VERIFYHOST, 2L);
  std::string file = settings.caFile.string();
  std::string directory = settings.caDirectory.string();
  if (file.empty() && directory.empty()) {
    // As OpenSSL programs do; an unset variable keeps libcurl's default.
    file = environment("SSL_CERT_FILE");
    directory = environment("SSL_CERT_DIR");
  } else {
    // The host's authorities replace the system's: libcurl's built-in bundle
    // must not stay in force beside a directory given alone.
    curl_easy_setopt(handle, CURLOPT_CAINFO, nullptr);
    curl_easy_setopt(handle, CURLOPT_CAPATH, nullptr);
    curl_easy_setopt(handle, CURLOPT_PROXY_CAINFO, nullptr);
    curl_easy_setopt(handle, CURLOPT_PROXY_CAPATH, nullptr);
  }
  // An HTTPS proxy inside the operator's network answers to the same trust.
  if (!file.empty()) {
    curl_easy_setopt(handle, CURLOPT_CAINFO, file.c_str());
    curl_easy_setopt(handle, CURLOPT_PROXY_CAINFO, file.c_str());
  }
  if (!directory.empty()) {
    curl_easy_setopt(handle, CURLOPT_CAPATH, directory.c_str());
    curl_easy_setopt(handle, CURLOPT_PROXY_CAPATH, directory.c_str());
  }
}

void applyNetworkSettings(CURL* handle, const NetworkSettings& settings) {
  applyTrust(handle, settings);
  if (!settings.clientCertificate.empty()) {
    curl_easy_setopt(handle, CURLOPT_SSLCERTTYPE, "PEM");
    curl_easy_setopt(handle, CURLOPT_SSLCERT, settings.clientCertificate.c_str());
    if (!settings.clientKey.empty()) {
      curl_easy_setopt(handle, CURLOPT_SSLKEYTYPE, "PEM");
      curl_easy_setopt(handle, CURLOPT_SSLKEY, settings.clientKey.c_str());
    }
  }
  if (!settings.proxy.empty()) {
    curl_easy_setopt(handle, CURLOPT_PROXY, settings.proxy.c_str());
    // The host's proxy wins over the environment, no_proxy included: an
    // empty list set here stops libcurl from reading the variable.
    curl_easy_setopt(handle, CURLOPT_NOPROXY, "");
  }
}

Hop sendOnce(const URLRequest& request, const Connection& connection, Clock::time_point deadline,
             const std::stop_token& stop) {
  std::unique_ptr<CURL, EasyDeleter> curl(curl_easy_init());
  if (!curl) throw TransportError("cannot create a transfer");
  CURL* handle = curl.get();
  Transfer transfer;

  std::unique_ptr<curl_slist, ListDeleter> headers;
  for (const auto& [name, value] : request.headers) {
    // libcurl drops a header written "Name: " with nothing after it; "Name;"
    // sends it with an empty value.
    std::string line = value.empty() ? name + ";" : name + ": " + value;
    headers.reset(curl_slist_append(headers.release(), line.c_str()));
  }
  // No "Expect: 100-continue" round trip before large uploads.
  headers.reset(curl_slist_append(headers.release(), "Expect:"));
  if (!connection.acceptLanguage.empty() && !request.headers.contains("Accept-Language")) {
    const std::string line = "Accept-Language: " + connection.acceptLanguage;
    headers.reset(curl_slist_append(headers.release(), line.c_str()));
  }

  auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now());
  if (left.count() <= 0) {
    throw TransportError("request timed out after " +
                         std::to_string(request.transferTimeout.count()) + " ms");
  }
  char errorBuffer[CURL_ERROR_SIZE] = {};
  curl_easy_setopt(handle, CURLOPT_ERRORBUFFER, errorBuffer);
  curl_easy_setopt(handle, CURLOPT_URL, request.url.c_str());
  curl_easy_setopt(handle, CURLOPT_PROTOCOLS_STR, "http,https");
  // Redirects are followed by send(), which decides what may go where.
  curl_easy_setopt(handle, CURLOPT_FOLLOWLOCATION, 0L);
  curl_easy_setopt(handle, CURLOPT_NOSIGNAL, 1L);
  curl_easy_setopt(handle, CURLOPT_TIMEOUT_MS, static_cast<long>(left.count()));
  curl_easy_setopt(handle, CURLOPT_ACCEPT_ENCODING, "");
  curl_easy_setopt(handle, CURLOPT_HTTPHEADER, headers.get());
  curl_easy_setopt(handle, CURLOPT_USERAGENT, connection.userAgent.c_str());
  applyNetworkSettings(handle, connection.settings);
  if (request.method == "GET") {
    curl_easy_setopt(handle, CURLOPT_HTTPGET, 1L);
  } else if (request.method == "head") {
    curl_easy_setopt(handle, CURLOPT_NOBODY, 1L);
  } else {
    curl_easy_setopt(handle, CURLOPT_CUSTOMREQUEST, request.method.c_str());
  }
  if (request.body) {
    curl_easy_setopt(handle, CURLOPT_POSTFIELDS, request.body->data());
    curl_easy_setopt(handle, CURLOPT_POSTFIELDSIZE_LARGE,
                     static_cast<curl_off_t>(request.body->size()));
  }
  curl_easy_setopt(handle, CURLOPT_WRITEFUNCTION, onBody);
  curl_easy_setopt(handle, CURLOPT_WRITEDATA, &transfer);
  curl_easy_setopt(handle, CURLOPT_HEADERFUNCTION, onHeader);
  curl_easy_setopt(handle, CURLOPT_HEADERDATA, &transfer);

  bool idle = false;
  CURLcode result = CancellableTransfer(handle).run(stop, transfer, request.idleTimeout, idle);
  if (transfer.tooLarge) {
    throw TransportError("response body larger than " + std::to_string(kMaxResponseBodyBytes) +
                         " bytes refused");
  }
  if (result != CURLE_OK) {
    if (result == CURLE_ABORTED_BY_CALLBACK) throw TransportError("request cancelled");
    if (idle) {
      throw TransportError("nothing sent or received for " +
                           std::to_string(request.idleTimeout.count()) + " ms");
    }
    std::string message = errorBuffer[0] != '\0' ? errorBuffer : curl_easy_strerror(result);
    throw TransportError(message);
  }
  Hop hop;
  long status = 0;
  curl_easy_getinfo(handle, CURLINFO_RESPONSE_CODE, &status);
  if (status != 0) {
    HTTPResponse response;
    response.statusCode = static_cast<int>(status);
    char* effectiveUrl = nullptr;
    curl_easy_getinfo(handle, CURLINFO_EFFECTIVE_URL, &effectiveUrl);
    if (effectiveUrl != nullptr) response.url = effectiveUrl;
    response.headers = std::move(transfer.headers);
    hop.exchange.response = std::move(response);
  }
  char* redirect = nullptr;
  curl_easy_getinfo(handle, CURLINFO_REDIRECT_URL, &redirect);
  if (isFollowedRedirect(status) && redirect != nullptr) hop.redirect = redirect;
  if (transfer.body.capacity() - transfer.body.size() < kJsonReadAhead) {
    transfer.body.reserve(transfer.body.size() + kJsonReadAhead);
  }
  hop.exchange.body = std::move(transfer.body);
  return hop;
}

struct BioDeleter {
  void operator()(BIO* bio) const { BIO_free(bio); }
};
struct X509Deleter {
  void operator()(X509* certificate) const { X509_free(certificate); }
};
struct KeyDeleter {
  void operator()(EVP_PKEY* key) const { EVP_PKEY_free(key); }
};
struct InfoStackDeleter {
  void operator()(STACK_OF(X509_INFO) * infos) const {
    sk_X509_INFO_pop_free(infos, X509_INFO_free);
  }
};

// Refuses to ask for a pass phrase: a set-top box has nobody to type it.
int noPassphrase(char*, int, int, void*) { return 0; }

std::unique_ptr<BIO, BioDeleter> openFile(const std::filesystem::path& path) {
  return std::unique_ptr<BIO, BioDeleter>(BIO_new_file(path.c_str(), "r"));
}

std::vector<std::string> checkNetworkSettings(const NetworkSettings& settings) {
  std::vector<std::string> problems;
  if (!settings.caFile.empty()) {
    auto bio = openFile(settings.caFile);
    std::unique_ptr<STACK_OF(X509_INFO), InfoStackDeleter> infos(
        bio ? PEM_X509_INFO_read_bio(bio.get(), nullptr, noPassphrase, nullptr) : nullptr);
    int certificates = 0;
    for (int i = 0; infos && i < sk_X509_INFO_num(infos.get()); ++i) {
      if (sk_X509_INFO_value(infos.get(), i)->x509 != nullptr) ++certificates;
    }
    if (!bio) {
      problems.push_back("CA file " + settings.caFile.string() + " cannot be read");
    } else if (certificates == 0) {
      problems.push_back("CA file " + settings.caFile.string() + " holds no PEM certificate");
    }
  }
  if (!settings.caDirectory.empty()) {
    DIR* directory = opendir(settings.caDirectory.c_str());
    if (directory == nullptr) {
      problems.push_back("CA directory " + settings.caDirectory.string() + " cannot be read");
    } else {
      closedir(directory);
    }
  }
  if (settings.clientCertificate.empty()) {
    if (!settings.clientKey.empty()) {
      problems.push_back("client key " + settings.clientKey.string() +
                         " given without a client certificate");
    }
    return problems;
  }
  const auto& certificatePath = settings.clientCertificate;
  auto bio = openFile(certificatePath);
  if (!bio) {
    problems.push_back("client certificate " + certificatePath.string() + " cannot be read");
    return problems;
  }
  std::unique_ptr<X509, X509Deleter> certificate(
      PEM_read_bio_X509(bio.get(), nullptr, noPassphrase, nullptr));
  if (!certificate) {
    problems.push_back("client certificate " + certificatePath.string() +
                       " holds no PEM certificate");
    return problems;
  }
  // Without a key file the key must follow the certificate in its file.
  const auto& keyPath = settings.clientKey.empty() ? certificatePath : settings.clientKey;
  auto keyBio = openFile(keyPath);
  if (!keyBio) {
    problems.push_back("client key " + keyPath.string() + " cannot be read");
    return problems;
  }
  std::unique_ptr<EVP_PKEY, KeyDeleter> key(
      PEM_read_bio_PrivateKey(keyBio.get(), nullptr, noPassphrase, nullptr));
  if (!key) {
    problems.push_back("client key " + keyPath.string() + " holds no unencrypted PEM private key");
  } else if (X509_check_private_key(certificate.get(), key.get()) != 1) {
    problems.push_back("client key " + keyPath.string() + " does not belong to certificate " +
                       certificatePath.string());
  }
  return problems;
}

}  // namespace

std::string userAgent(const Platform& platform) {
  std::string product = headerSafe(platform.applicationName());
  if (auto version = platform.infoDictionaryString("CFBundleShortVersionString");
      version && !version->empty()) {
    product += "/" + headerSafe(*version);
  }
  return std::string("Pactivo/") + PACTIVO_VERSION + " (Linux; " + product + ")";
}

std::string acceptLanguage(const std::vector<std::string>& languages) {
  std::string text;
  int listed = 0;
  for (const auto& language : languages) {
    const std::string tag = headerSafe(language);
    if (tag.empty()) continue;
    if (listed > 0) text += ", ";
    text += tag;
    if (listed > 0) text += ";q=0." + std::to_string(10 - listed);
    if (++listed == 6) break;
  }
  return text;
}

std::vector<std::string> networkSettingsProblems(const NetworkSettings& settings) {
  std::vector<std::string> problems = checkNetworkSettings(settings);
  // A failed read leaves its reasons queued on this thread, where libcurl
  // would later report them as its own.
  ERR_clear_error();
  return problems;
}

RedirectAction redirectAction(std::string_view from, std::string_view to) {
  const std::string scheme = urlPart(to, CURLUPART_SCHEME);
  if (scheme != "http" && scheme != "https") return RedirectAction::refuse;
  if (scheme == "http" && urlPart(from, CURLUPART_SCHEME) != "http") return RedirectAction::refuse;
  if (urlPart(from, CURLUPART_HOST) != urlPart(to, CURLUPART_HOST)) {
    return RedirectAction::followWithoutCredentials;
  }
  return RedirectAction::follow;
}

std::string exchangeDump(const URLRequest& request, const std::optional<HTTPResponse>& response,
                         const std::optional<std::string>& body) {
  std::string text = "\nURLRequest: {\n";
  text += "  URL: " + (request.url.empty() ? std::string("nil") : request.url) + "\n";
  text += "  HTTP Method: " + (request.method.empty() ? std::string("nil") : request.method) + "\n";
  text += "  Headers: " + headerMapText(request.headers) + "\n";
  if (request.body && isValidUtf8(*request.body)) {
    text += "  Body: " + *request.body + "\n";
  } else {
    text += "  Body: nil\n";
  }
  text += "}\n";
  if (response) {
    text += "URLResponse: {\n";
    text += "  URL: " + (response->url.empty() ? std::string("nil") : response->url) + "\n";
    text += "  Status Code: " + std::to_string(response->statusCode) + "\n";
    text += "  Headers: " + headerMapText(response->headers) + "\n";
    text += "}";
  } else {
    text += "URLResponse: nil";
  }
  text += "\n";
  if (!body) {
    text += "Data: nil";
  } else if (isValidUtf8(*body)) {
    text += "Data: { " + *body + " }";
  } else {
    text += "Data: { Non-UTF8 data }";
  }
  return text;
}

std::optional<std::string> NetworkManager::checkStatus(const URLRequest& request,
                                                       const Exchange& exchange) {
  // A reply that is not HTTP has no status; -999 marks it.
  const int code = exchange.response ? exchange.response->statusCode : -999;
  if (code < 200 || code > 299) {
    if (code == 304) throw NetworkError::cdnNotModified();
    if (code == 404) throw NetworkError::invalidStatusCode(404);
    logDump(request, exchange);
    throw NetworkError::invalidStatusCode(code);
  }
  for (const auto& [name, value] : exchange.response->headers) {
    if (equalsIgnoringCase(name, "Etag")) return value;
  }
  return std::nullopt;
}

void NetworkManager::storeETag(const std::string& etag) { UserDefaultManager::setETag(etag); }

void NetworkManager::failDecoding(const URLRequest& request, const Exchange& exchange,
                                  std::string_view typeName, const std::string& error) {
  logDump(request, exchange);
  throw NetworkError::decodingError("Failed to Decode " + std::string(typeName) + " : " + error);
}

ConsentNetworkManager::ConsentNetworkManager() {
  static std::once_flag initialised;
  std::call_once(initialised, [] { curl_global_init(CURL_GLOBAL_DEFAULT); });
}

Exchange ConsentNetworkManager::send(const URLRequest& request) {
  const std::stop_token stop = currentTaskStopToken();
  const Clock::time_point deadline = Clock::now() + request.transferTimeout;
  const std::shared_ptr<Platform> platform = currentPlatform();
  const Connection connection{platform->networkSettings(), userAgent(*platform),
                              acceptLanguage(platform->preferredLanguages())};
  URLRequest next = request;
  for (int redirects = 0;; ++redirects) {
    Hop hop = sendOnce(next, connection, deadline, stop);
    if (!hop.redirect) return std::move(hop.exchange);
    if (redirects == kMaxRedirects) {
      throw TransportError("more than " + std::to_string(kMaxRedirects) + " redirects");
    }
    switch (redirectAction(next.url, *hop.redirect)) {
      case RedirectAction::refuse:
        throw TransportError("redirect from " + next.url + " to " + *hop.redirect + " refused");
      case RedirectAction::followWithoutCredentials:
        eraseHeader(next.headers, "X-Auth-Token");
        eraseHeader(next.headers, "Authorization");
        break;
      case RedirectAction::follow:
        break;
    }
    // As browsers and libcurl do: 303 always, and 301 or 302 after a POST,
    // continue as a GET without the body; 307 and 308 repeat the request.
    const int status = hop.exchange.response->statusCode;
    if ((status == 303 && next.method != "head") ||
        ((status == 301 || status == 302) && next.method == "POST")) {
      next.method = "GET";
      next.body.reset();
    }
    next.url = std::move(*hop.redirect);
  }
}

}  // namespace pactivo::detail
