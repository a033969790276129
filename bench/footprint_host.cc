// The resident memory of a host: right before setup() and once the library
// is `available` with a large configuration document (about 2.5 MB), as
// scripts/footprint.sh reports it. The content server runs in a child
// process forked first, so that neither it nor the making of the document
// counts in the host's figures.
//   footprint_host [PURPOSES]     (default 284: a 2.5 MB document)
#include <sys/wait.h>
#include <unistd.h>

#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <mutex>
#include <string>

#include "document_generator.h"
#include "pactivo/consent_sdk.h"
#include "pactivo/json.h"
#include "pactivo/logger.h"
#include "support/test_server.h"
#include "support/test_support.h"

namespace {

// The resident memory of this process: in all, its peak, and what is not
// mapped from files (the heap and stacks: what the library allocates).
std::string memory() {
  std::ifstream status("/proc/self/status");
  std::string line, out;
  while (std::getline(status, line)) {
    const std::size_t colon = line.find(':');
    const std::string name = line.substr(0, colon);
    if (name == "VmRSS" || name == "VmHWM" || name == "RssAnon") {
      out += (out.empty() ? "" : ", ") + name + " " +
             line.substr(line.find_first_not_of(" \t", colon + 1));
    }
  }
  return out;
}

}  // namespace

int main(int argc, char** argv) {
  const int purposes = argc > 1 ? std::atoi(argv[1]) : 284;
  int fds[2];
  if (pipe(fds) != 0) return 1;
  const pid_t server = fork();
  if (server == 0) {
    close(fds[0]);
    const std::string document =
        pactivo::encode(pactivo::bench::generateConfiguration(purposes, 3));
    pactivo::testing::TestServer content;
    content.respond(200, document, "\"footprint\"");
    const std::string reply = content.baseUrl() + " " + std::to_string(document.size()) + "\n";
    if (write(fds[1], reply.data(), reply.size()) < 0) _exit(1);
    pause();  // until the host ends it
    _exit(0);
  }
  close(fds[1]);
  char reply[256] = {};
  if (read(fds[0], reply, sizeof reply - 1) <= 0) return 1;
  char url[200];
  unsigned long bytes = 0;
  if (std::sscanf(reply, "%199s %lu", url, &bytes) != 2) return 1;

  // The default platform, with a data directory of its own.
  pactivo::testing::TempDir data;
  setenv("XDG_DATA_HOME", data.path().c_str(), 1);
  pactivo::SDKLogger::shared().setSink([](std::string_view) {});
  std::printf("document: %lu bytes\nbefore setup: %s\n", bytes, memory().c_str());
  {
    pactivo::ConsentSDK sdk;
    std::mutex mutex;
    std::condition_variable ready;
    bool available = false;
    sdk.isReady([&](pactivo::SDKStatus status) {
      std::lock_guard lock(mutex);
      available = status == pactivo::SDKStatus::available;
      ready.notify_all();
    });
    sdk.setup(pactivo::ConsentSDKOptions("http://127.0.0.1:9/", url, "t", "a", false,
                                         pactivo::LogLevel::error, 1800, std::nullopt, "en",
                                         std::nullopt, pactivo::WebViewConfig({}, std::nullopt)));
    std::unique_lock lock(mutex);
    if (!ready.wait_for(lock, std::chrono::seconds(60), [&] { return available; })) return 1;
    lock.unlock();
    std::printf("available: %s\n", memory().c_str());
  }
  kill(server, SIGTERM);
  waitpid(server, nullptr, 0);
  return 0;
}
