// Stands in for Firebase Analytics' C++ SDK: the same SetConsent signature,
// recording what it received.
#include <map>
#include <mutex>

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
std::map<ConsentType, ConsentStatus> received;
int calls = 0;
}  // namespace

__attribute__((visibility("default"))) void SetConsent(
    const std::map<ConsentType, ConsentStatus>& consent_settings) {
  std::lock_guard lock(mutex);
  received = consent_settings;
  ++calls;
}

}  // namespace analytics
}  // namespace firebase

// For the test: the calls so far, and the status received for one type
// (-1 when absent).
extern "C" __attribute__((visibility("default"))) int fakeFirebaseCalls() {
  std::lock_guard lock(firebase::analytics::mutex);
  return firebase::analytics::calls;
}

extern "C" __attribute__((visibility("default"))) int fakeFirebaseStatus(int type) {
  std::lock_guard lock(firebase::analytics::mutex);
  auto it = firebase::analytics::received.find(static_cast<firebase::analytics::ConsentType>(type));
  return it == firebase::analytics::received.end() ? -1 : it->second;
}
