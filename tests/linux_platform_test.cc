#include <gtest/gtest.h>
#include <pwd.h>
#include <stdlib.h>
#include <unistd.h>

#include <map>

#include "pactivo/consent_records.h"
#include "pactivo/platform.h"
#include "support/test_support.h"

namespace pactivo {
namespace {

// Sets environment variables (nullptr unsets) for one scope, then restores them.
class ScopedEnvironment {
 public:
  explicit ScopedEnvironment(const std::map<std::string, const char*>& values) {
    for (const auto& [name, value] : values) {
      const char* old = getenv(name.c_str());
      saved_[name] = old ? std::optional<std::string>(old) : std::nullopt;
      value ? setenv(name.c_str(), value, 1) : unsetenv(name.c_str());
    }
  }
  ~ScopedEnvironment() {
    for (const auto& [name, value] : saved_) {
      value ? setenv(name.c_str(), value->c_str(), 1) : unsetenv(name.c_str());
    }
  }

 private:
  std::map<std::string, std::optional<std::string>> saved_;
};

TEST(LinuxPlatformTest, PreferredLanguagesFromTheLocale) {
  struct Case {
    const char *language, *all, *messages, *lang;
    std::vector<std::string> languages;
  } cases[] = {
      {nullptr, nullptr, nullptr, "de_DE.UTF-8", {"de-DE"}},
      {"fr_CA:en", "de_DE.UTF-8", nullptr, "C", {"fr-CA", "en"}},
      {"", "C", nullptr, "de_DE", {"en"}},
      {nullptr, nullptr, "POSIX", nullptr, {"en"}},
      {nullptr, nullptr, "sr_RS@latin", nullptr, {"sr-RS"}},
      {nullptr, nullptr, nullptr, nullptr, {"en"}},
  };
  for (const auto& c : cases) {
    ScopedEnvironment env({{"LANGUAGE", c.language},
                           {"LC_ALL", c.all},
                           {"LC_MESSAGES", c.messages},
                           {"LANG", c.lang}});
    EXPECT_EQ(LinuxPlatform().preferredLanguages(), c.languages) << &c - cases;
  }
}

TEST(LinuxPlatformTest, DataDirectory) {
  // Services started with an empty environment: the password database's home.
  const std::string passwd = std::string(getpwuid(getuid())->pw_dir) + "/.local/share/a";
  struct Case {
    const char *xdg, *home;
    LinuxPlatform::Settings settings;
    std::string directory;
  } cases[] = {
      {"/xdg", "/home/u", {"tv-app", {}, {}, {}}, "/xdg/tv-app"},
      {"/xdg", "/home/u", {"tv-app", "/explicit", {}, {}}, "/explicit"},
      {"/xdg", "/home/u", {}, "/xdg/pactivo_tests"},  // without a name, the program's own
      {"relative", "/home/u", {"a", {}, {}, {}}, "/home/u/.local/share/a"},
      {nullptr, "", {"a", {}, {}, {}}, passwd},
      {nullptr, nullptr, {"a", {}, {}, {}}, passwd},
  };
  for (const auto& c : cases) {
    ScopedEnvironment env({{"XDG_DATA_HOME", c.xdg}, {"HOME", c.home}});
    EXPECT_EQ(LinuxPlatform(c.settings).applicationSupportDirectory(), c.directory) << &c - cases;
  }
}

TEST(CustomErrorTest, LocalizedDescriptionThroughThePlatform) {
  testing::ScopedPlatform scoped;
  EXPECT_EQ(CustomError::unexpected("Disk full").localizedDescription(), "Disk full");
  scoped.platform().setTranslation("Disk full", "Festplatte voll");
  EXPECT_EQ(CustomError::unexpected("Disk full").localizedDescription(), "Festplatte voll");
}

}  // namespace
}  // namespace pactivo
