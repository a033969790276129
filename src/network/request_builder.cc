#include "network/request_builder.h"

#include <curl/curl.h>

#include <memory>

#include "pactivo/json.h"
#include "pactivo/locale_utils.h"
#include "pactivo/network_error.h"
#include "pactivo/user_default_manager.h"

namespace pactivo::detail {
namespace {

struct UrlDeleter {
  void operator()(CURLU* url) const { curl_url_cleanup(url); }
};
using UrlHandle = std::unique_ptr<CURLU, UrlDeleter>;

UrlHandle parseUrl(const std::string& text) {
  UrlHandle url(curl_url());
  if (!url || curl_url_set(url.get(), CURLUPART_URL, text.c_str(), 0) != CURLUE_OK) return nullptr;
  return url;
}

}  // namespace

std::string_view rawValue(HeaderParam param) {
  switch (param) {
    case HeaderParam::contentType:
      return "Content-Type";
    case HeaderParam::accept:
      return "Accept";
    case HeaderParam::authorization:
      return "Authorization";
    case HeaderParam::xAuthToken:
      return "X-Auth-Token";
  }
  return "";
}

std::string_view rawValue(QueryParam) { return "limit"; }

GetCDNEndPoint::GetCDNEndPoint(const ConsentSDKOptions& options, bool languageNeutral) {
  const std::string mode = options.mode == Mode::live ? "live" : "draft";
  // Inserted as they are: the content server's paths are the tenant's own.
  pathURL_ = "consent/mobile_banner/" + options.tenantId + "/" + options.appId + "/" + mode + "/";
  pathURL_ +=
      languageNeutral ? "config.json" : "config_" + LocaleUtils::currentLanguageCode() + ".json";
}

PostConsentsEndPoint::PostConsentsEndPoint(std::string token, const PostConsentsRequest& request) {
  httpMethod_ = HttpMethod::post;
  pathURL_ = "lumari/v1/consent/mobile/singleupload";
  headerParams_ = std::map<HeaderParam, std::string>{{HeaderParam::xAuthToken, std::move(token)}};
  body_ = encode(request);
}

GetCurrentLocationEndPoint::GetCurrentLocationEndPoint() {
  pathURL_ = "core/v1/utils/geo/location";
}

URLRequest RequestBuilder::buildRequest() const {
  if (!parseUrl(baseURL_)) throw NetworkError::invalidURL(baseURL_);
  const std::string address = baseURL_ + endPoint_.pathURL();
  UrlHandle components = parseUrl(address);
  if (!components) throw NetworkError::invalidURL(address);

  curl_url_set(components.get(), CURLUPART_QUERY, nullptr, 0);
  if (const auto& query = endPoint_.queryParams()) {
    for (const auto& [param, value] : *query) {  // a std::map is already sorted by key
      std::string item = std::string(rawValue(param)) + "=" + value;
      curl_url_set(components.get(), CURLUPART_QUERY, item.c_str(),
                   CURLU_APPENDQUERY | CURLU_URLENCODE);
    }
  }
  char* url = nullptr;
  if (curl_url_get(components.get(), CURLUPART_URL, &url, 0) != CURLUE_OK || url == nullptr) {
    throw NetworkError::invalidURL(address);
  }
  URLRequest request;
  request.url = url;
  curl_free(url);
  request.method = std::string(rawValue(endPoint_.httpMethod()));
  request.headers = {{"Content-Type", "application/json"}, {"Accept", "*/*"}};
  if (const auto& headers = endPoint_.headerParams()) {
    for (const auto& [param, value] : *headers)
      request.headers[std::string(rawValue(param))] = value;
  }
  if (auto etag = UserDefaultManager::getETag()) request.headers["If-None-Match"] = *etag;
  request.body = endPoint_.body();
  return request;
}

}  // namespace pactivo::detail
