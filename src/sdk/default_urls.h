#ifndef PACTIVO_SRC_SDK_DEFAULT_URLS_H_
#define PACTIVO_SRC_SDK_DEFAULT_URLS_H_

#include <string>

namespace pactivo::detail {

// The application server that answers location lookups; set at build time
// (PACTIVO_DEFAULT_APP_SERVER_URL), always ending in "/".
std::string defaultApplicationServerBaseUrl();

// Points location lookups elsewhere, for tests and demos that run their own
// server; an empty URL restores the built-in one.
void overrideDefaultApplicationServerBaseUrl(std::string url);

}  // namespace pactivo::detail

#endif  // PACTIVO_SRC_SDK_DEFAULT_URLS_H_
