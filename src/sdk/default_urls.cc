#include "sdk/default_urls.h"

#include <mutex>

#ifndef PACTIVO_DEFAULT_APP_SERVER_URL
#error "PACTIVO_DEFAULT_APP_SERVER_URL must be defined by the build"
#endif

namespace pactivo::detail {
namespace {

std::mutex mutex;
std::string& overridden() {
  static auto* url = new std::string;
  return *url;
}

}  // namespace

std::string defaultApplicationServerBaseUrl() {
  std::lock_guard lock(mutex);
  return overridden().empty() ? PACTIVO_DEFAULT_APP_SERVER_URL : overridden();
}

void overrideDefaultApplicationServerBaseUrl(std::string url) {
  std::lock_guard lock(mutex);
  overridden() = std::move(url);
}

}  // namespace pactivo::detail
