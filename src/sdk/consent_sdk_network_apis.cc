// The facade's calls to the content server and the location service.
#include "pactivo/locale_utils.h"
#include "pactivo/logger.h"
#include "sdk/consent_sdk_impl.h"
#include "sdk/default_urls.h"

namespace pactivo {

MainConfiguration ConsentSDK::Impl::getCDN(const ConsentSDKOptions& options,
                                           std::optional<std::string>* etag) {
  auto fetch = [&](bool languageNeutral) {
    detail::GetCDNEndPoint endPoint(options, languageNeutral);
    detail::URLRequest request = detail::RequestBuilder(endPoint, options.cdnUrl).buildRequest();
    return networkManager->processRequest<MainConfiguration>(request, etag);
  };
  try {
    return fetch(false);
  } catch (const NetworkError& error) {
    if (error.kind() != NetworkError::Kind::invalidStatusCode || error.code() != 404) throw;
    SDKLogger::shared().log(
        "CDN Configuration with " + LocaleUtils::currentLanguageCode() + " language code not found",
        LogLevel::error, "getCDN(options:)");
  }
  return fetch(true);
}

CurrentLocationResponse ConsentSDK::Impl::fetchCurrentLocation() {
  detail::GetCurrentLocationEndPoint endPoint;
  detail::URLRequest request =
      detail::RequestBuilder(endPoint, detail::defaultApplicationServerBaseUrl()).buildRequest();
  return networkManager->processRequest<CurrentLocationResponse>(request);
}

}  // namespace pactivo
