#include <gtest/gtest.h>
#include <pwd.h>
#include <stdlib.h>
#include <unistd.h>

#include "pactivo/consent_records.h"
#include "pactivo/platform.h"
#include "support/test_support.h"

namespace pactivo {
namespace {

// Sets a variable, or unsets it for nullptr; only in a child (runInChild),
// so that the test's own environment stays as it was.
void set(std::vector<const char*> names, std::vector<const char*> values) {
  for (std::size_t i = 0; i < names.size(); ++i) {
    values[i] ? setenv(names[i], values[i], 1) : unsetenv(names[i]);
  }
}

TEST(LinuxPlatformTest, PreferredLanguagesFromTheLocale) {
  const struct {
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
    EXPECT_EQ(testing::runInChild([&] {
                set({"LANGUAGE", "LC_ALL", "LC_MESSAGES", "LANG"},
                    {c.language, c.all, c.messages, c.lang});
                return LinuxPlatform().preferredLanguages() == c.languages ? 0 : 1;
              }),
              0)
        << &c - cases;
  }
}

TEST(LinuxPlatformTest, DataDirectory) {
  // Services started with an empty environment: the password database's home.
  const std::string passwd = std::string(getpwuid(getuid())->pw_dir) + "/.local/share/a";
  const struct {
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
    EXPECT_EQ(testing::runInChild([&] {
                set({"XDG_DATA_HOME", "HOME"}, {c.xdg, c.home});
                return LinuxPlatform(c.settings).applicationSupportDirectory() == c.directory ? 0
                                                                                              : 1;
              }),
              0)
        << &c - cases;
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
