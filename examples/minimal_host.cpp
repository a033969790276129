// The smallest useful host: set the library up, print readiness as it
// changes, and exit once the configuration has been loaded or given up on.
//
//   minimal_host [CDN_URL] [APP_URL]
#include <pactivo/pactivo.h>

#include <condition_variable>
#include <cstdio>
#include <mutex>
#include <utility>

int main(int argc, char** argv) {
  std::string cdnUrl = argc > 1 ? argv[1] : "http://127.0.0.1:9/";
  std::string appUrl = argc > 2 ? argv[2] : cdnUrl;

  pactivo::ConsentSDKOptions options(appUrl, cdnUrl, "demo-tenant", "demo-app",
                                     /*testingMode=*/false, pactivo::LogLevel::warning,
                                     /*consentsCheckInterval=*/1800, std::nullopt, "en",
                                     std::nullopt, pactivo::WebViewConfig({}, std::nullopt));

  std::mutex mutex;
  std::condition_variable settled;
  bool done = false;

  auto& sdk = pactivo::ConsentSDK::shared();
  // Registered before setup, so that every change after the first,
  // immediate call is one that setup caused.
  bool immediate = true;
  sdk.isReady([&](pactivo::SDKStatus status) {
    std::printf("readiness: %s\n", std::string(pactivo::status(status)).c_str());
    if (std::exchange(immediate, false)) return;
    if (status != pactivo::SDKStatus::fetching) {
      std::lock_guard lock(mutex);
      done = true;
      settled.notify_one();
    }
  });

  sdk.setup(options);

  std::unique_lock lock(mutex);
  settled.wait_for(lock, std::chrono::seconds(70), [&] { return done; });
  return 0;
}
