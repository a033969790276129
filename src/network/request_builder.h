// Endpoints and the one place that turns an endpoint into a request.
#ifndef PACTIVO_SRC_NETWORK_REQUEST_BUILDER_H_
#define PACTIVO_SRC_NETWORK_REQUEST_BUILDER_H_

#include <chrono>
#include <map>
#include <optional>
#include <string>
#include <string_view>

#include "pactivo/consent_records.h"
#include "pactivo/enums.h"
#include "pactivo/options.h"

namespace pactivo::detail {

// Header names the library may send; the raw value is the name.
enum class HeaderParam { contentType, accept, authorization, xAuthToken };
std::string_view rawValue(HeaderParam param);

// Query parameter names.
enum class QueryParam { limit };
std::string_view rawValue(QueryParam param);

// The read-only description of one request.
class EndPoint {
 public:
  virtual ~EndPoint() = default;
  virtual HttpMethod httpMethod() const = 0;
  virtual const std::optional<std::map<QueryParam, std::string>>& queryParams() const = 0;
  virtual const std::optional<std::map<HeaderParam, std::string>>& headerParams() const = 0;
  virtual const std::string& pathURL() const = 0;
  virtual const std::optional<std::string>& body() const = 0;
};

// The five members every endpoint stores.
class StoredEndPoint : public EndPoint {
 public:
  HttpMethod httpMethod() const override { return httpMethod_; }
  const std::optional<std::map<QueryParam, std::string>>& queryParams() const override {
    return queryParams_;
  }
  const std::optional<std::map<HeaderParam, std::string>>& headerParams() const override {
    return headerParams_;
  }
  const std::string& pathURL() const override { return pathURL_; }
  const std::optional<std::string>& body() const override { return body_; }

 protected:
  HttpMethod httpMethod_ = HttpMethod::get;
  std::optional<std::map<QueryParam, std::string>> queryParams_;
  std::optional<std::map<HeaderParam, std::string>> headerParams_;
  std::string pathURL_;
  std::optional<std::string> body_;
};

// The configuration document: "consent/mobile_banner/<tenant>/<app>/<mode>/
// config_<language>.json", or ".../config.json" when `languageNeutral`.
class GetCDNEndPoint : public StoredEndPoint {
 public:
  GetCDNEndPoint(const ConsentSDKOptions& options, bool languageNeutral);
};

// The consent upload, with the document's token as "X-Auth-Token".
class PostConsentsEndPoint : public StoredEndPoint {
 public:
  PostConsentsEndPoint(std::string token, const PostConsentsRequest& request);
};

// The geo-location lookup.
class GetCurrentLocationEndPoint : public StoredEndPoint {
 public:
  GetCurrentLocationEndPoint();
};

// A request ready to send. Header names are kept as set.
struct URLRequest {
  std::string url;
  std::string method;
  std::map<std::string, std::string> headers;
  std::optional<std::string> body;
  // The exchange fails once no byte has gone either way for this long; a
  // slow reply that keeps coming is not cut short.
  std::chrono::milliseconds idleTimeout = std::chrono::seconds(60);
  // The cap on the whole exchange, redirects included.
  std::chrono::milliseconds transferTimeout = std::chrono::minutes(10);
};

// Joins an endpoint to a base URL. Made for one request.
class RequestBuilder {
 public:
  RequestBuilder(const EndPoint& endPoint, std::string baseURL)
      : endPoint_(endPoint), baseURL_(std::move(baseURL)) {}

  // The request, with the fixed headers and the stored ETag as
  // "If-None-Match". Throws NetworkError::invalidURL.
  URLRequest buildRequest() const;

 private:
  const EndPoint& endPoint_;
  const std::string baseURL_;
};

}  // namespace pactivo::detail

#endif  // PACTIVO_SRC_NETWORK_REQUEST_BUILDER_H_
