#include <pwd.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <fstream>

#include "pactivo/platform.h"
#include "platform/netlink_path_monitor.h"

#ifndef PACTIVO_VERSION
#error "PACTIVO_VERSION must be defined by the build"
#endif

namespace pactivo {
namespace detail {

std::string programName() {
  std::error_code ec;
  auto exe = std::filesystem::read_symlink("/proc/self/exe", ec);
  if (!ec && !exe.filename().empty()) return exe.filename().string();
  return "pactivo-host";
}

}  // namespace detail

namespace {
using detail::programName;

// $HOME, else the password database's entry for the user.
std::filesystem::path homeDirectory() {
  const char* home = std::getenv("HOME");
  if (home != nullptr && *home != '\0') return home;
  long size = sysconf(_SC_GETPW_R_SIZE_MAX);
  std::vector<char> buffer(size > 0 ? static_cast<std::size_t>(size) : 16384);
  struct passwd entry {};
  struct passwd* found = nullptr;
  if (getpwuid_r(getuid(), &entry, buffer.data(), buffer.size(), &found) == 0 && found != nullptr &&
      found->pw_dir != nullptr && *found->pw_dir == '/') {
    return found->pw_dir;
  }
  return {};
}

std::filesystem::path defaultDataDirectory(const std::string& applicationName) {
  const char* xdg = std::getenv("XDG_DATA_HOME");
  if (xdg != nullptr && *xdg == '/') return std::filesystem::path(xdg) / applicationName;
  std::filesystem::path home = homeDirectory();
  if (home.empty()) return {};
  return home / ".local" / "share" / applicationName;
}

// "de_DE.UTF-8@euro" -> "de-DE"; "C" and "POSIX" -> "en".
std::string localeToLanguageTag(std::string locale) {
  locale = locale.substr(0, locale.find_first_of(".@"));
  if (locale.empty() || locale == "C" || locale == "POSIX") return "en";
  std::replace(locale.begin(), locale.end(), '_', '-');
  return locale;
}

std::string trimQuotes(std::string value) {
  if (value.size() >= 2 && (value.front() == '"' || value.front() == '\'') &&
      value.back() == value.front()) {
    return value.substr(1, value.size() - 2);
  }
  return value;
}

}  // namespace

LinuxPlatform::LinuxPlatform() : LinuxPlatform(Settings{}) {}

LinuxPlatform::LinuxPlatform(Settings settings)
    : settings_(std::move(settings)),
      dataDirectory_(!settings_.dataDirectory.empty()
                         ? settings_.dataDirectory
                         : defaultDataDirectory(settings_.applicationName.empty()
                                                    ? programName()
                                                    : settings_.applicationName)) {}

std::filesystem::path LinuxPlatform::applicationSupportDirectory() const { return dataDirectory_; }

std::vector<std::string> LinuxPlatform::preferredLanguages() const {
  std::vector<std::string> languages;
  // The first variable that is set wins; LANGUAGE may list several
  // languages separated by colons.
  for (const char* name : {"LANGUAGE", "LC_ALL", "LC_MESSAGES", "LANG"}) {
    const char* value = std::getenv(name);
    if (value == nullptr || *value == '\0') continue;
    std::string text = value;
    std::size_t start = 0;
    while (start <= text.size()) {
      std::size_t end = text.find(':', start);
      if (end == std::string::npos) end = text.size();
      if (end > start) languages.push_back(localeToLanguageTag(text.substr(start, end - start)));
      start = end + 1;
    }
    if (!languages.empty()) break;
  }
  if (languages.empty()) languages.push_back("en");
  return languages;
}

std::string LinuxPlatform::deviceName() const {
  std::ifstream machineInfo("/etc/machine-info");
  std::string line;
  while (std::getline(machineInfo, line)) {
    if (line.rfind("PRETTY_HOSTNAME=", 0) == 0) {
      std::string pretty = trimQuotes(line.substr(16));
      if (!pretty.empty()) return pretty;
    }
  }
  char host[256] = {};
  if (gethostname(host, sizeof host - 1) == 0) return host;
  return "";
}

std::string LinuxPlatform::advertisingIdentifier() const { return ""; }

int LinuxPlatform::trackingAuthorizationStatus() const { return 0; }

std::optional<std::string> LinuxPlatform::infoDictionaryString(const std::string& key) const {
  for (const auto& [name, value] : settings_.infoDictionary) {
    if (name == key) return value;
  }
  return std::nullopt;
}

std::optional<std::string> LinuxPlatform::libraryVersion() const { return PACTIVO_VERSION; }

void LinuxPlatform::runOnMainThread(const std::function<void()>& work) { work(); }

std::string LinuxPlatform::localizedString(const std::string& key, const std::string&) const {
  return key;
}

std::chrono::system_clock::time_point LinuxPlatform::now() const {
  return std::chrono::system_clock::now();
}

Platform::ConsentModeHandler LinuxPlatform::consentModeHandler() const {
  return settings_.consentModeHandler;
}

std::string LinuxPlatform::applicationName() const {
  return settings_.applicationName.empty() ? programName() : settings_.applicationName;
}

NetworkSettings LinuxPlatform::networkSettings() const { return settings_.network; }

std::unique_ptr<NetworkPathMonitor> LinuxPlatform::makeNetworkPathMonitor() const {
  return std::make_unique<detail::NetlinkPathMonitor>();
}

}  // namespace pactivo
