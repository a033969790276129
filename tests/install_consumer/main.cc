// Built against an installed Pactivo: the public headers and the CMake package
// are all a host needs.
#include <pactivo/pactivo.h>

#include <cstdio>
#include <string>

int main() {
  // A host names only the platform settings it changes.
  pactivo::LinuxPlatform platform(pactivo::LinuxPlatform::Settings{.applicationName = "consumer"});
  if (platform.applicationSupportDirectory().filename() != "consumer") return 1;
  pactivo::SDKStatus status = pactivo::ConsentSDK::shared().getStatus();
  std::printf("%s\n", std::string(pactivo::status(status)).c_str());
  return status == pactivo::SDKStatus::unavailable ? 0 : 1;
}
