// pactivo: the reference host of the Pactivo library. It drives the library
// through its public API only.
#include <cstdio>
#include <string>
#include <vector>

#include "cli.h"

namespace {

constexpr const char* kUsage =
    "usage: pactivo COMMAND [OPTIONS]\n"
    "\n"
    "Commands:\n"
    "  demo                  run the library against built-in servers on 127.0.0.1\n"
    "  status                load the configuration and show readiness\n"
    "  purposes              purposes with their consent\n"
    "  permissions           device permissions with their consent\n"
    "  banner                the banner category for the location\n"
    "  gcm                   Google Consent Mode signals\n"
    "  set-purpose ID granted|declined\n"
    "  set-permission KEY STATUS\n"
    "  remove-consents       remove every stored consent\n"
    "  check                 run one consent check and upload now\n"
    "  watch                 keep running, printing readiness, uploads and every consent\n"
    "                        change, from this or any other process (Ctrl-C stops)\n"
    "  inspect               the preference suite and the cached configuration\n"
    "  validate FILE...      check configuration documents\n"
    "\n"
    "Options:\n"
    "  --cdn-url URL         content server base URL (required by deployment commands)\n"
    "  --app-url URL         application server base URL (default: the content server)\n"
    "  --tenant ID           tenant (default demo-tenant)\n"
    "  --app ID              application (default demo-app)\n"
    "  --language CODE       language of the texts\n"
    "  --location CODE       location code instead of a lookup\n"
    "  --testing             use the draft configuration\n"
    "  --log-level LEVEL     DEBUG, INFO, WARNING (default) or ERROR\n"
    "  --interval SECONDS    consent check interval (default 1800)\n"
    "  --data-dir DIR        where the preference suite and cache live\n"
    "  --ca-file FILE        trusted authorities (PEM); replaces the system's\n"
    "  --ca-dir DIR          trusted authorities (hashed PEM files); replaces the system's\n"
    "  --client-cert FILE    client certificate (PEM) for servers that ask for one\n"
    "  --client-key FILE     its private key (PEM, not encrypted)\n"
    "  --proxy URL           proxy for every request (wins over http_proxy, https_proxy\n"
    "                        and no_proxy, which apply without it)\n"
    "  --json                machine-readable output\n"
    "  --strict              validate: warnings fail too\n"
    "  --help                this text\n";

bool isDeploymentCommand(const std::string& command) {
  for (const char* name : {"status", "purposes", "permissions", "banner", "gcm", "set-purpose",
                           "set-permission", "remove-consents", "check", "watch"}) {
    if (command == name) return true;
  }
  return false;
}

}  // namespace

int main(int argc, char** argv) {
  using namespace pactivo::cli;
  std::vector<std::string> words(argv + 1, argv + argc);
  if (words.empty() || words[0] == "--help" || words[0] == "-h" || words[0] == "help") {
    std::fputs(kUsage, words.empty() ? stderr : stdout);
    return words.empty() ? 2 : 0;
  }
  const std::string command = words[0];
  try {
    CommonOptions options = parseOptions({words.begin() + 1, words.end()});
    if (options.help) {
      std::fputs(kUsage, stdout);
      return 0;
    }
    pactivo::SDKLogger::shared().setLogLevel(options.logLevel);
    if (command == "demo") return runDemo(options);
    if (command == "inspect") return runInspect(options);
    if (command == "validate") return runValidate(options);
    if (isDeploymentCommand(command)) return runDeploymentCommand(command, options);
    throw UsageError("unknown command \"" + command + "\" (see pactivo --help)");
  } catch (const UsageError& error) {
    std::fprintf(stderr, "pactivo: %s\n", error.what());
    return 2;
  } catch (const std::exception& error) {
    std::fprintf(stderr, "pactivo: %s\n", error.what());
    return 1;
  }
}
