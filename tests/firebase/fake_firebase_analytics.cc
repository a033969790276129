// Stands in for Firebase Analytics' C++ SDK: the same SetConsent signature,
// recording what it received.
#include <map>
#include <string>

namespace firebase::analytics {

// Firebase's own enumerations, by name: the library finds SetConsent by its
// mangled name, which has no enumerators in it. Firebase numbers the types ad
// storage 0, analytics 1, user data 2, personalization 3; granted 0, denied 1.
enum ConsentType : int {};
enum ConsentStatus : int {};

// Every call so far, each as "type=status ...;". Only the test's thread calls.
static std::string received;

__attribute__((visibility("default"))) void SetConsent(
    const std::map<ConsentType, ConsentStatus>& consent_settings) {
  for (auto [type, status] : consent_settings)
    received += std::to_string(type) + "=" + std::to_string(status) + " ";
  received += ";";
}

// For the test: valid until the next call.
extern "C" __attribute__((visibility("default"))) const char* fakeFirebaseReceived() {
  return received.c_str();
}

}  // namespace firebase::analytics
