#include <gtest/gtest.h>

#include <map>

#include "tests/registry/RegistryDevice.h"

namespace tarnwell::registry {
namespace {

RegistrySources from(const std::map<std::string, std::string>& environment) {
    return RegistrySources::from([&environment](const char* name) -> std::optional<std::string> {
        const auto found = environment.find(name);
        return found == environment.end() ? std::nullopt : std::optional(found->second);
    });
}

TEST(RegistrySourcesTest, HaveTheUsualPlacesBelowAHome) {
    const RegistrySources sources = from({{"HOME", "/home/ada"}, {"FLATPAK_CONFIG_DIR", "/nowhere"}});
    EXPECT_EQ(sources.home, "/home/ada");
    EXPECT_EQ(sources.flatpakUserDir, "/home/ada/.local/share/flatpak");
    EXPECT_EQ(sources.flatpakSystemDirs, Names{"/var/lib/flatpak"});
    EXPECT_EQ(sources.varApp, "/home/ada/.var/app");
    EXPECT_EQ(sources.snapDesktopDirs, Names{"/var/lib/snapd/desktop/applications"});
    EXPECT_EQ(sources.snapHome, "/home/ada/snap");
    EXPECT_EQ(sources.userDesktopDir, "/home/ada/.local/share/applications");
    EXPECT_EQ(sources.systemDesktopDirs, (Names{"/usr/local/share/applications", "/usr/share/applications"}));
    EXPECT_EQ(sources.languages, Names{});
}

TEST(RegistrySourcesTest, FollowTheVariables) {
    const RegistrySources sources = from({{"HOME", "/home/ada"},
                                          {"XDG_DATA_HOME", "/data/"},
                                          {"FLATPAK_SYSTEM_DIR", "/srv/flatpak"},
                                          {"FLATPAK_CONFIG_DIR", "/nowhere"},
                                          {"XDG_DATA_DIRS",
                                           "/srv/flatpak/exports/share/:/data/flatpak/exports/share:"
                                           "relative:/a//:/a:/srv/snapd/desktop::/data:/usr/share"}});
    EXPECT_EQ(sources.flatpakUserDir, "/data/flatpak");
    EXPECT_EQ(sources.flatpakSystemDirs, Names{"/srv/flatpak"});
    EXPECT_EQ(sources.userDesktopDir, "/data/applications");
    EXPECT_EQ(sources.systemDesktopDirs, (Names{"/a/applications", "/usr/share/applications"}));
    EXPECT_EQ(sources.snapDesktopDirs,
              (Names{"/var/lib/snapd/desktop/applications", "/srv/snapd/desktop/applications"}));
    EXPECT_EQ(from({{"FLATPAK_USER_DIR", "/f"}}).flatpakUserDir, "/f");
}

TEST(RegistrySourcesTest, VariablesThatAreEmptyOrRelativeCountAsUnset) {
    const RegistrySources sources = from({{"HOME", "/home/ada"},
                                          {"XDG_DATA_HOME", "data"},
                                          {"FLATPAK_USER_DIR", ""},
                                          {"FLATPAK_CONFIG_DIR", "/nowhere"},
                                          {"XDG_DATA_DIRS", ""}});
    EXPECT_EQ(sources.flatpakUserDir, "/home/ada/.local/share/flatpak");
    EXPECT_EQ(sources.systemDesktopDirs, (Names{"/usr/local/share/applications", "/usr/share/applications"}));
}

TEST(RegistrySourcesTest, WithoutAHomeHaveTheSystemsPlacesOnly) {
    const RegistrySources sources = from({{"FLATPAK_CONFIG_DIR", "/nowhere"}});
    EXPECT_EQ(sources.flatpakUserDir, "");
    EXPECT_EQ(sources.varApp, "");
    EXPECT_EQ(sources.snapHome, "");
    EXPECT_EQ(sources.userDesktopDir, "");
    Roots roots;
    testing::CapturingLog log;
    RegistrySources nowhere;
    auto registry = LinuxAppRegistry::create(nowhere, roots, log);
    EXPECT_EQ(registry->recordForBundleIdentifier("x"), nullptr);
}

TEST(RegistrySourcesTest, ReadTheInstallationsThatTheAdministratorListed) {
    RegistryDevice device;
    device.write("etc/installations.d/20-more.conf", "[Installation \"more\"]\nPath=/opt/more/\n");
    device.write("etc/installations.d/10-extra.conf", "[Installation \"extra\"]\nPath=/opt/extra\n");
    device.write("etc/installations.d/30-damaged.conf", "Path=/opt/damaged\n");
    device.write("etc/installations.d/readme.txt", "[Installation \"no\"]\nPath=/opt/no\n");
    ASSERT_EQ(mkfifo(device.path("etc/installations.d/40-fifo.conf").c_str(), 0600), 0);
    EXPECT_EQ(from({{"FLATPAK_CONFIG_DIR", device.path("etc")}}).flatpakSystemDirs,
              (Names{"/var/lib/flatpak", "/opt/extra", "/opt/more"}));
}

TEST(RegistrySourcesTest, TakeTheLanguagesOfTheFirstVariableThatNamesAny) {
    using Environment = std::map<std::string, std::string>;
    struct Row {
        Environment environment;
        Names languages;
    };
    for (const Row& row : std::vector<Row>{
             {{{"LANG", "de_DE.UTF-8"}}, {"de_DE.UTF-8"}},
             {{{"LANG", "C"}, {"LC_MESSAGES", "fr_FR"}}, {"fr_FR"}},
             {{{"LC_ALL", "it"}, {"LC_MESSAGES", "fr_FR"}}, {"it"}},
             {{{"LANGUAGE", "de_AT:de:en"}, {"LC_ALL", "it"}}, {"de_AT", "de", "en"}},
             {{{"LANGUAGE", ""}, {"LANG", "sv"}}, {"sv"}},
         }) {
        EXPECT_EQ(from(row.environment).languages, row.languages) << row.environment.begin()->first;
    }
}

}  // namespace
}  // namespace tarnwell::registry
