#include <curl/curl.h>

#include <algorithm>
#include <cctype>
#include <memory>
#include <mutex>
#include <stop_token>

#include "network/network_manager.h"
#include "pactivo/logger.h"
#include "pactivo/user_default_manager.h"
#include "sdk/task_runner.h"

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

struct Transfer {
  std::string body;
  bool tooLarge = false;
  std::map<std::string, std::string> headers;
  std::stop_token stop;
};

size_t onBody(char* data, size_t size, size_t count, void* context) {
  auto* transfer = static_cast<Transfer*>(context);
  size_t bytes = size * count;
  if (transfer->body.size() + bytes > kMaxResponseBodyBytes) {
    transfer->tooLarge = true;
    return 0;  // aborts the transfer
  }
  transfer->body.append(data, bytes);
  return bytes;
}

size_t onHeader(char* data, size_t size, size_t count, void* context) {
  auto* transfer = static_cast<Transfer*>(context);
  std::string_view line(data, size * count);
  // Each response of a redirect chain starts again with its status line.
  if (line.rfind("HTTP/", 0) == 0) {
    transfer->headers.clear();
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
  // requested first.
  CURLcode run(const std::stop_token& stop) {
    if (multi_ == nullptr) return CURLE_OUT_OF_MEMORY;
    std::stop_callback wake(stop, [multi = multi_] { curl_multi_wakeup(multi); });
    int running = 1;
    while (true) {
      if (stop.stop_requested()) return CURLE_ABORTED_BY_CALLBACK;
      if (curl_multi_perform(multi_, &running) != CURLM_OK) return CURLE_FAILED_INIT;
      if (running == 0) break;
      if (curl_multi_poll(multi_, nullptr, 0, 1000, nullptr) != CURLM_OK) return CURLE_FAILED_INIT;
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

}  // namespace

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

void NetworkManager::checkStatusAndKeepETag(const URLRequest& request, const Exchange& exchange) {
  // A reply that is not HTTP has no status; -999 marks it.
  const int code = exchange.response ? exchange.response->statusCode : -999;
  if (code < 200 || code > 299) {
    if (code == 304) throw NetworkError::cdnNotModified();
    if (code == 404) throw NetworkError::invalidStatusCode(404);
    logDump(request, exchange);
    throw NetworkError::invalidStatusCode(code);
  }
  for (const auto& [name, value] : exchange.response->headers) {
    if (equalsIgnoringCase(name, "Etag")) {
      UserDefaultManager::setETag(value);
      break;
    }
  }
}

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
  std::unique_ptr<CURL, EasyDeleter> curl(curl_easy_init());
  if (!curl) throw TransportError("cannot create a transfer");
  CURL* handle = curl.get();
  Transfer transfer;
  transfer.stop = currentTaskStopToken();

  std::unique_ptr<curl_slist, ListDeleter> headers;
  for (const auto& [name, value] : request.headers) {
    // libcurl drops a header written "Name: " with nothing after it; "Name;"
    // sends it with an empty value.
    std::string line = value.empty() ? name + ";" : name + ": " + value;
    headers.reset(curl_slist_append(headers.release(), line.c_str()));
  }
  // No "Expect: 100-continue" round trip before large uploads.
  headers.reset(curl_slist_append(headers.release(), "Expect:"));

  char errorBuffer[CURL_ERROR_SIZE] = {};
  curl_easy_setopt(handle, CURLOPT_ERRORBUFFER, errorBuffer);
  curl_easy_setopt(handle, CURLOPT_URL, request.url.c_str());
  curl_easy_setopt(handle, CURLOPT_PROTOCOLS_STR, "http,https");
  curl_easy_setopt(handle, CURLOPT_REDIR_PROTOCOLS_STR, "http,https");
  curl_easy_setopt(handle, CURLOPT_FOLLOWLOCATION, 1L);
  curl_easy_setopt(handle, CURLOPT_MAXREDIRS, 10L);
  curl_easy_setopt(handle, CURLOPT_NOSIGNAL, 1L);
  curl_easy_setopt(handle, CURLOPT_TIMEOUT_MS, static_cast<long>(request.timeout.count() * 1000));
  curl_easy_setopt(handle, CURLOPT_ACCEPT_ENCODING, "");
  curl_easy_setopt(handle, CURLOPT_HTTPHEADER, headers.get());
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

  CURLcode result = CancellableTransfer(handle).run(transfer.stop);
  if (transfer.tooLarge) {
    throw TransportError("response body larger than " + std::to_string(kMaxResponseBodyBytes) +
                         " bytes refused");
  }
  if (result != CURLE_OK) {
    if (result == CURLE_ABORTED_BY_CALLBACK) throw TransportError("request cancelled");
    std::string message = errorBuffer[0] != '\0' ? errorBuffer : curl_easy_strerror(result);
    throw TransportError(message);
  }
  Exchange exchange;
  long status = 0;
  curl_easy_getinfo(handle, CURLINFO_RESPONSE_CODE, &status);
  if (status != 0) {
    HTTPResponse response;
    response.statusCode = static_cast<int>(status);
    char* effectiveUrl = nullptr;
    curl_easy_getinfo(handle, CURLINFO_EFFECTIVE_URL, &effectiveUrl);
    if (effectiveUrl != nullptr) response.url = effectiveUrl;
    response.headers = std::move(transfer.headers);
    exchange.response = std::move(response);
  }
  exchange.body = std::move(transfer.body);
  return exchange;
}

}  // namespace pactivo::detail
