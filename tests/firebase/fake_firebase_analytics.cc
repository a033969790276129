// Stands in for Firebase Analytics' C++ SDK: the same SetConsent signature,
// recording what it received.
#include <map>
#include <mutex>
#include <string>

namespace firebase {
namespace analytics {

enum ConsentType {
  kConsentTypeAdStorage = 0,
  kConsentTypeAnalyticsStorage,
  kConsentTypeAdUserData,
  kConsentTypeAdPersonalization
};
enum ConsentStatus { kConsentStatusGranted = 0, kConsentStatusDenied };

namespace {
std::mutex mutex;
std::string received;
}  // namespace

__attribute__((visibility("default"))) void SetConsent(
    const std::map<ConsentType, ConsentStatus>& consent_settings) {
  std::lock_guard lock(mutex);
  for (auto [type, status] : consent_settings) {
    received += std::to_string(type) + "=" + std::to_string(status) + " ";
  }
  received += ";";
}

}  // namespace analytics
}  // namespace firebase

// For the test: every call so far, each as "type=status ...;". Valid until
// the next call.
extern "C" __attribute__((visibility("default"))) const char* fakeFirebaseReceived() {
  std::lock_guard lock(firebase::analytics::mutex);
  return firebase::analytics::received.c_str();
}
