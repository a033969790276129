#include "pactivo/consent_records.h"

#include "pactivo/platform.h"

namespace pactivo {

PostConsentsRequest::PostConsentsRequest(std::string uuid, std::string appUUID, std::string device,
                                         bool implicitConsent, std::int64_t version,
                                         std::vector<PurposeConsent> purposeConsents,
                                         std::vector<PermissionConsent> permissions,
                                         bool testingMode, std::string adId, std::string bannerInfo)
    : uuid(std::move(uuid)),
      appUUID(std::move(appUUID)),
      device(std::move(device)),
      implicitConsent(implicitConsent),
      version(version),
      purposeConsents(std::move(purposeConsents)),
      permissions(std::move(permissions)),
      testingMode(testingMode),
      adId(std::move(adId)),
      bannerInfo(std::move(bannerInfo)),
      sdkVersion(currentPlatform()->libraryVersion()) {}

std::string CustomError::localizedDescription() const {
  return currentPlatform()->localizedString(error, "Unexpected Error");
}

}  // namespace pactivo
