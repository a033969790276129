// Built against an installed Pactivo: the public headers and the CMake package
// are all a host needs.
#include <pactivo/pactivo.h>

#include <iostream>

int main() {
  // A host names only the platform settings it changes.
  pactivo::LinuxPlatform platform(pactivo::LinuxPlatform::Settings{.applicationName = "consumer"});
  if (platform.applicationSupportDirectory().filename() != "consumer") return 1;
  // Without setup the facade is unavailable; the install test reads the text.
  std::cout << pactivo::status(pactivo::ConsentSDK::shared().getStatus()) << "\n";
}
