#include "pactivo/network_error.h"

#include "pactivo/platform.h"

namespace pactivo {
namespace {

std::string describe(NetworkError::Kind kind, int code, const std::string& message) {
  switch (kind) {
    case NetworkError::Kind::invalidPath:
      return "Invalid Patherror ocurred (" + message;
    case NetworkError::Kind::badUrl:
      return "Bad URL error ocurred\n" + message;
    case NetworkError::Kind::invalidStatusCode:
      return "Failed with Status (" + std::to_string(code) + ")";
    case NetworkError::Kind::decodingError:
      return "Failed while Decoding Response.\n" + message;
    case NetworkError::Kind::invalidURL:
      return "Invalid URL error ocurred.\n" + message;
    case NetworkError::Kind::response:
    case NetworkError::Kind::keyMapping:
    case NetworkError::Kind::cdnNotModified:
      break;
  }
  return "An unknown error occurred.";
}

}  // namespace

NetworkError::NetworkError(Kind kind, int code, std::string message)
    : kind_(kind),
      code_(code),
      message_(std::move(message)),
      description_(describe(kind_, code_, message_)) {}

NetworkError NetworkError::response(std::optional<std::map<std::string, std::string>> payload) {
  NetworkError error(Kind::response, 0, "");
  error.payload_ = std::move(payload);
  return error;
}
NetworkError NetworkError::invalidPath(std::string message) {
  return NetworkError(Kind::invalidPath, 0, std::move(message));
}
NetworkError NetworkError::badUrl(std::string message) {
  return NetworkError(Kind::badUrl, 0, std::move(message));
}
NetworkError NetworkError::invalidStatusCode(int code) {
  return NetworkError(Kind::invalidStatusCode, code, "");
}
NetworkError NetworkError::decodingError(std::string message) {
  return NetworkError(Kind::decodingError, 0, std::move(message));
}
NetworkError NetworkError::invalidURL(std::string message) {
  return NetworkError(Kind::invalidURL, 0, std::move(message));
}
NetworkError NetworkError::keyMapping() { return NetworkError(Kind::keyMapping, 0, ""); }
NetworkError NetworkError::cdnNotModified() { return NetworkError(Kind::cdnNotModified, 0, ""); }

std::string NetworkError::errorDescription() const {
  std::string key;
  std::string comment;
  switch (kind_) {
    case Kind::invalidPath:
      key = message_;
      comment = "Invalid Path Error";
      break;
    case Kind::badUrl:
      key = message_;
      comment = "BadURL Error";
      break;
    case Kind::invalidStatusCode:
      key = "Failed with " + std::to_string(code_) + " status code";
      comment = "Status Code Error";
      break;
    case Kind::decodingError:
      key = message_;
      comment = "Decoding Error";
      break;
    case Kind::invalidURL:
      key = message_;
      comment = "Invalid Error";
      break;
    case Kind::response:
    case Kind::keyMapping:
    case Kind::cdnNotModified:
      key = "Unexpected Error";
      comment = "Unexpected Error";
      break;
  }
  return currentPlatform()->localizedString(key, comment);
}

}  // namespace pactivo
