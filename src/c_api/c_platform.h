// The platform a C host describes with a pactivo_platform: the defaults of a
// plain Linux program, with each facility the host filled in taken over.
#ifndef PACTIVO_C_API_C_PLATFORM_H_
#define PACTIVO_C_API_C_PLATFORM_H_

#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "pactivo/pactivo_c.h"
#include "pactivo/platform.h"

namespace pactivo::detail {

// Marks the calling thread as running a host callback while it lives, so that
// calls that would wait for this very thread refuse instead of hanging.
class CallbackScope {
 public:
  CallbackScope();
  ~CallbackScope();
  CallbackScope(const CallbackScope&) = delete;
  CallbackScope& operator=(const CallbackScope&) = delete;
  static bool active();
};

// Runs a host callback inside a CallbackScope. A C++ host's function may
// throw through its C signature; that stops here and is logged. False when
// it threw.
bool callHost(const char* what, const std::function<void()>& call);

// `text` as a JSON string literal, quotes included.
std::string jsonQuote(std::string_view text);

class CPlatform : public LinuxPlatform {
 public:
  // Copies every text of `platform` (the first `platform.size` bytes of it).
  explicit CPlatform(const pactivo_platform& platform);

  std::vector<std::string> preferredLanguages() const override;
  std::string deviceName() const override;
  std::string advertisingIdentifier() const override;
  int trackingAuthorizationStatus() const override;

  std::optional<int> locationAuthorizationStatus() const override;
  std::optional<int> cameraAuthorizationStatus() const override;
  std::optional<int> microphoneAuthorizationStatus() const override;
  std::optional<int> photoLibraryAuthorizationStatus() const override;
  std::optional<int> photoLibraryAddOnlyAuthorizationStatus() const override;
  std::optional<int> siriAuthorizationStatus() const override;
  std::optional<int> healthDataAvailability() const override;
  std::optional<int> bluetoothAuthorization() const override;
  std::optional<int> speechRecognitionAuthorizationStatus() const override;
  std::optional<int> homeKitAuthorizationStatus() const override;
  void requestNotificationAuthorizationStatus(std::function<void(int)> completion) const override;

 private:
  std::optional<int> probe(pactivo_facility facility) const;

  std::vector<std::string> languages_;
  std::optional<std::string> deviceName_;
  std::string advertisingIdentifier_;
  int trackingStatus_ = 0;
  pactivo_permission_callback permissionStatus_ = nullptr;
  void* userData_ = nullptr;
};

// The pactivo_platform a host passed, with the members its header did not
// have zeroed; nullopt when `size` is too small to be one.
std::optional<pactivo_platform> readPlatformStruct(const pactivo_platform& given);

}  // namespace pactivo::detail

#endif  // PACTIVO_C_API_C_PLATFORM_H_
