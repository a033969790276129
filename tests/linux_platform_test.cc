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

// Sets environment variables for one test and restores them afterwards.
class ScopedEnvironment {
 public:
  explicit ScopedEnvironment(std::map<std::string, std::optional<std::string>> values) {
    for (const auto& [name, value] : values) {
      const char* old = getenv(name.c_str());
      saved_[name] = old ? std::optional<std::string>(old) : std::nullopt;
      apply(name, value);
    }
  }
  ~ScopedEnvironment() {
    for (const auto& [name, value] : saved_) apply(name, value);
  }

 private:
  static void apply(const std::string& name, const std::optional<std::string>& value) {
    if (value) {
      setenv(name.c_str(), value->c_str(), 1);
    } else {
      unsetenv(name.c_str());
    }
  }
  std::map<std::string, std::optional<std::string>> saved_;
};

TEST(LinuxPlatformTest, PreferredLanguagesFromTheLocale) {
  using Env = std::map<std::string, std::optional<std::string>>;
  struct Case {
    Env env;
    std::vector<std::string> languages;
  } cases[] = {
      {{{"LANGUAGE", std::nullopt},
        {"LC_ALL", std::nullopt},
        {"LC_MESSAGES", std::nullopt},
        {"LANG", "de_DE.UTF-8"}},
       {"de-DE"}},
      {{{"LANGUAGE", "fr_CA:en"},
        {"LC_ALL", "de_DE.UTF-8"},
        {"LC_MESSAGES", std::nullopt},
        {"LANG", "C"}},
       {"fr-CA", "en"}},
      {{{"LANGUAGE", ""}, {"LC_ALL", "C"}, {"LC_MESSAGES", std::nullopt}, {"LANG", "de_DE"}},
       {"en"}},
      {{{"LANGUAGE", std::nullopt},
        {"LC_ALL", std::nullopt},
        {"LC_MESSAGES", "POSIX"},
        {"LANG", std::nullopt}},
       {"en"}},
      {{{"LANGUAGE", std::nullopt},
        {"LC_ALL", std::nullopt},
        {"LC_MESSAGES", "sr_RS@latin"},
        {"LANG", std::nullopt}},
       {"sr-RS"}},
      {{{"LANGUAGE", std::nullopt},
        {"LC_ALL", std::nullopt},
        {"LC_MESSAGES", std::nullopt},
        {"LANG", std::nullopt}},
       {"en"}},
  };
  for (const auto& c : cases) {
    ScopedEnvironment env(c.env);
    EXPECT_EQ(LinuxPlatform().preferredLanguages(), c.languages) << c.languages.front();
  }
}

TEST(LinuxPlatformTest, DataDirectory) {
  {
    ScopedEnvironment env({{"XDG_DATA_HOME", "/xdg"}, {"HOME", "/home/u"}});
    EXPECT_EQ(LinuxPlatform({"tv-app", {}, {}, {}}).applicationSupportDirectory(), "/xdg/tv-app");
    EXPECT_EQ(LinuxPlatform({"tv-app", "/explicit", {}, {}}).applicationSupportDirectory(),
              "/explicit");
    // Without a name, the program's own.
    EXPECT_EQ(LinuxPlatform().applicationSupportDirectory().parent_path(), "/xdg");
  }
  {
    ScopedEnvironment env({{"XDG_DATA_HOME", "relative"}, {"HOME", "/home/u"}});
    EXPECT_EQ(LinuxPlatform({"a", {}, {}, {}}).applicationSupportDirectory(),
              "/home/u/.local/share/a");
  }
  {
    ScopedEnvironment env({{"XDG_DATA_HOME", std::nullopt}, {"HOME", std::nullopt}});
    // Services started with an empty environment: the password database.
    EXPECT_EQ(LinuxPlatform({"a", {}, {}, {}}).applicationSupportDirectory(),
              std::filesystem::path(getpwuid(getuid())->pw_dir) / ".local/share/a");
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
