// NetworkError: the error type of the library's network layer, as a host sees
// it in logs. The texts, spellings included, are part of the interface.
//
// A value type; safe to share between threads.
#ifndef PACTIVO_NETWORK_ERROR_H_
#define PACTIVO_NETWORK_ERROR_H_

#include <exception>
#include <map>
#include <optional>
#include <string>

#include "pactivo/export.h"

namespace pactivo {

class PACTIVO_EXPORT NetworkError : public std::exception {
 public:
  enum class Kind {
    response,           // never raised by the library
    invalidPath,        // never raised by the library
    badUrl,             // never raised by the library
    invalidStatusCode,  // a status outside 200-299 (304 aside)
    decodingError,      // a body that does not decode
    invalidURL,         // a request that cannot be built
    keyMapping,         // never raised by the library
    cdnNotModified,     // status 304
  };

  static NetworkError response(std::optional<std::map<std::string, std::string>> payload);
  static NetworkError invalidPath(std::string message);
  static NetworkError badUrl(std::string message);
  static NetworkError invalidStatusCode(int code);
  static NetworkError decodingError(std::string message);
  static NetworkError invalidURL(std::string message);
  static NetworkError keyMapping();
  static NetworkError cdnNotModified();

  Kind kind() const { return kind_; }
  // The status code of invalidStatusCode; 0 otherwise.
  int code() const { return code_; }
  // The message of the cases that carry one.
  const std::string& message() const { return message_; }
  const std::optional<std::map<std::string, std::string>>& payload() const { return payload_; }

  // The plain text: "Failed with Status (500)", "Invalid URL error ocurred.\n...".
  const std::string& description() const { return description_; }
  // The host's translation, through the platform's localized-string lookup:
  // "Failed with 500 status code" when the host has no translation.
  std::string errorDescription() const;

  const char* what() const noexcept override { return description_.c_str(); }

 private:
  NetworkError(Kind kind, int code, std::string message);

  Kind kind_;
  int code_ = 0;
  std::string message_;
  std::optional<std::map<std::string, std::string>> payload_;
  std::string description_;
};

}  // namespace pactivo

#endif  // PACTIVO_NETWORK_ERROR_H_
