// The pactivo command-line host: shared pieces of its commands.
#ifndef PACTIVO_TOOLS_PACTIVO_CLI_H_
#define PACTIVO_TOOLS_PACTIVO_CLI_H_

#include <pactivo/pactivo.h>

#include <map>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

namespace pactivo::cli {

// A command line that cannot be run; exits with status 2.
class UsageError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// The options every command accepts, parsed from "--name value" and
// "--flag" words; the other words are the command's arguments.
struct CommonOptions {
  std::string cdnUrl;
  std::string appUrl;
  std::string tenant = "demo-tenant";
  std::string app = "demo-app";
  std::optional<std::string> language;
  std::optional<std::string> location;
  bool testing = false;
  LogLevel logLevel = LogLevel::warning;
  std::int64_t interval = 1800;
  std::string dataDir;
  // The box's network inside an operator's: see pactivo::NetworkSettings.
  std::string caFile;
  std::string caDir;
  std::string clientCert;
  std::string clientKey;
  std::string proxy;
  bool json = false;
  bool help = false;
  bool strict = false;
  std::vector<std::string> arguments;
};

// Parses `words` (after the command name). Throws UsageError.
CommonOptions parseOptions(const std::vector<std::string>& words);

// Installs the platform for --data-dir (or the default one) and the network
// options.
void installDataDirectory(const CommonOptions& options);

// The library options for a command that talks to a deployment. Throws
// UsageError when --cdn-url is missing.
ConsentSDKOptions libraryOptions(const CommonOptions& options);

// Sets the library up and waits (at most `timeoutSeconds`) until readiness
// is `available` or `unavailable`; returns the status.
SDKStatus setupAndWait(ConsentSDK& sdk, const ConsentSDKOptions& options, int timeoutSeconds,
                       bool printChanges);

// Output: aligned tables for people, JSON for scripts.
void printTable(const std::vector<std::string>& header,
                const std::vector<std::vector<std::string>>& rows);
std::string jsonString(std::string_view text);
std::string localized(const std::optional<LocalizedText>& text);

// Renderings shared by the commands (as JSON or as table rows).
std::string purposesJson(const std::vector<Purpose>& purposes);
void printPurposes(const std::vector<Purpose>& purposes);
std::string permissionsJson(const std::vector<AppPermission>& permissions);
void printPermissions(const std::vector<AppPermission>& permissions);
std::string gcmJson(const std::map<GoogleConsentType, ConsentStatus>& signals);
void printGcm(const std::map<GoogleConsentType, ConsentStatus>& signals);

// The commands; each returns the process exit status.
int runDemo(const CommonOptions& options);
int runDeploymentCommand(const std::string& command, const CommonOptions& options);
int runInspect(const CommonOptions& options);
int runValidate(const CommonOptions& options);

// The example configuration document, built into the program.
extern const char* const kExampleConfiguration;

}  // namespace pactivo::cli

#endif  // PACTIVO_TOOLS_PACTIVO_CLI_H_
