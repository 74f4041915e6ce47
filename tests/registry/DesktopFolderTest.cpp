#include <fcntl.h>
#include <gtest/gtest.h>

#include "tests/registry/RegistryDevice.h"

namespace tarnwell::registry {
namespace {

class DesktopFolderTest : public ::testing::Test {
protected:
    static std::string withContainer(const std::string& name, const std::string& lines = "") {
        return RegistryDevice::entry(name, "X-Tarnwell-DataContainer=~/Apps/" + name + "\n" + lines);
    }
    void install(const std::string& file, const std::string& content) {
        device_.write("home/.local/share/applications/" + file, content);
    }
    std::string file(const std::string& name) { return device_.path("home/.local/share/applications/" + name); }
    RegistryDevice device_;
};

TEST_F(DesktopFolderTest, OnlyEntriesThatNameAContainerCount) {
    install("org.example.Maps.desktop", withContainer("Maps"));
    install("org.example.Terminal.desktop", RegistryDevice::entry("Terminal", "Exec=term %F\nMimeType=text/plain;\n"));
    install("org.example.Link.desktop",
            "[Desktop Entry]\nType=Link\nName=Link\nX-Tarnwell-DataContainer=~/Apps/Link\n");
    install("notes.txt", withContainer("Text"));
    install(".desktop", withContainer("Nameless"));
    EXPECT_EQ(device_.userApplications(), Names{"org.example.Maps"});
    EXPECT_EQ(device_.log.texts(), Names{});
}

TEST_F(DesktopFolderTest, TheContainerIsAbsoluteOrBelowTheHome) {
    device_.makeFolder("home/Apps/Maps/Documents");
    const std::string real = device_.path("home/Apps/Maps");
    struct Row {
        std::string written;
        bool usable;
    };
    for (const Row& row : std::vector<Row>{{"~/Apps/Maps", true},
                                           {"~/Apps/../Apps/Maps/", true},
                                           {real, true},
                                           {"Apps/Maps", false},
                                           {"~", false},
                                           {"~somebody/Apps/Maps", false},
                                           {"$HOME/Apps/Maps", false},
                                           {"", false}}) {
        SCOPED_TRACE(row.written);
        device_.log.clear();
        install("org.example.Maps.desktop",
                RegistryDevice::entry("Maps", "X-Tarnwell-DataContainer=" + row.written + "\n"));
        const BundleRecordPtr record = device_.record("org.example.Maps");
        ASSERT_EQ(record != nullptr, row.usable);
        if (row.usable) {
            EXPECT_EQ(record->dataContainerURL(), URL::file(real));
            continue;
        }
        EXPECT_EQ(device_.log.texts(), Names{"[DEBUG] skipped the application \"org.example.Maps\" of \"" +
                                             file("org.example.Maps.desktop") + "\"; its data container \"" +
                                             row.written + "\" begins neither with \"/\" nor with \"~/\""});
    }
}

TEST_F(DesktopFolderTest, AFaultIsToldAgainOnlyWhenItChanged) {
    install("a.desktop", RegistryDevice::entry("A", "X-Tarnwell-DataContainer=x\n"));
    for (int i = 0; i < 3; ++i) device_.userApplications();
    EXPECT_EQ(device_.log.lines().size(), 1u);
    install("a.desktop", RegistryDevice::entry("A", "X-Tarnwell-DataContainer=y\n"));
    for (int i = 0; i < 3; ++i) device_.userApplications();
    EXPECT_EQ(device_.log.lines().size(), 2u);
    install("a.desktop", withContainer("A"));
    device_.userApplications();
    install("a.desktop", RegistryDevice::entry("A", "X-Tarnwell-DataContainer=y\n"));
    device_.userApplications();
    EXPECT_EQ(device_.log.lines().size(), 3u);
}

TEST_F(DesktopFolderTest, TheFirstFolderThatHasAnIdentifierCounts) {
    device_.write("usr/local/applications/a.desktop", withContainer("Local"));
    device_.write("usr/applications/a.desktop", withContainer("Distribution"));
    device_.write("usr/local/applications/b.desktop", withContainer("B", "Hidden=true\n"));
    device_.write("usr/applications/b.desktop", withContainer("B"));
    device_.write("usr/applications/c.desktop", withContainer("C"));
    install("c.desktop", withContainer("C", "Hidden=true\n"));
    device_.write("usr/applications/d.desktop", withContainer("D"));
    install("d.desktop", withContainer("D", "NoDisplay=true\n"));
    EXPECT_EQ(device_.systemApplications(), Names{"a"});
    EXPECT_EQ(device_.record("a")->localizedName(), "Local");
    EXPECT_EQ(device_.record("b"), nullptr);
    EXPECT_EQ(device_.record("c"), nullptr);
    EXPECT_EQ(device_.userApplications(), Names{"d"});
}

TEST_F(DesktopFolderTest, SubFoldersArePartOfTheIdentifier) {
    install("vendor/maps.desktop", withContainer("Maps"));
    install("1/2/3/4/deep.desktop", withContainer("Deep"));
    install("1/2/3/4/5/deeper.desktop", withContainer("Deeper"));
    std::filesystem::create_directory_symlink("..", file("loop"));
    install("folder.desktop/inner.desktop", withContainer("Inner"));
    EXPECT_EQ(device_.userApplications(), (Names{"1-2-3-4-deep", "folder.desktop-inner", "vendor-maps"}));
    EXPECT_NE(device_.record("vendor-maps"), nullptr);
}

TEST_F(DesktopFolderTest, ListsByTheIdentifiersBytes) {
    for (const char* name : {"b", "a", "B", "ä", "a-b", "a.b"})
        install(std::string(name) + ".desktop", withContainer("X"));
    EXPECT_EQ(device_.userApplications(), (Names{"B", "a", "a-b", "a.b", "b", "ä"}));
}

TEST_F(DesktopFolderTest, AFifoIsSkippedWithoutWaitingForAWriter) {
    device_.makeFolder("home/.local/share/applications");
    ASSERT_EQ(mkfifo(file("x.desktop").c_str(), 0600), 0);
    install("y.desktop", withContainer("Y"));
    EXPECT_EQ(device_.userApplications(), Names{"y"});
    EXPECT_EQ(device_.log.texts(),
              Names{"[DEBUG] skipped the desktop file \"" + file("x.desktop") + "\"; not a regular file"});
}

TEST_F(DesktopFolderTest, AFileAboveTheLimitIsSkippedUnread) {
    install("huge.desktop", withContainer("Huge"));
    std::filesystem::resize_file(file("huge.desktop"), 100u << 20);
    const std::string full = withContainer("Full");
    install("full.desktop", full + "#" + std::string((1u << 20) - full.size() - 2, 'x') + "\n");
    install("over.desktop", full + "#" + std::string((1u << 20) - full.size() - 1, 'x') + "\n");
    EXPECT_EQ(device_.userApplications(), Names{"full"});
    EXPECT_EQ(device_.log.texts(),
              (Names{"[DEBUG] skipped the desktop file \"" + file("huge.desktop") + "\"; more than 1048576 bytes",
                     "[DEBUG] skipped the desktop file \"" + file("over.desktop") + "\"; more than 1048576 bytes"}));
}

TEST_F(DesktopFolderTest, ADamagedFileIsSkippedWithOneLine) {
    install("damaged.desktop", "X-Tarnwell-DataContainer=/x\nnonsense\n");
    install("other.desktop", "[Other]\nX-Tarnwell-DataContainer=/x\n");
    install("unrelated.desktop", "nonsense without the key that would make it ours");
    EXPECT_EQ(device_.userApplications(), Names{});
    EXPECT_EQ(
        device_.log.texts(),
        (Names{"[DEBUG] skipped the desktop file \"" + file("damaged.desktop") + "\"; not a key file",
               "[DEBUG] skipped the desktop file \"" + file("other.desktop") + "\"; no group \"Desktop Entry\""}));
}

TEST_F(DesktopFolderTest, AFileNameThatIsNotUtf8NamesNoApplication) {
    install("caf\xE9.desktop", withContainer("Cafe"));
    EXPECT_EQ(device_.userApplications(), Names{});
    const std::string folder = device_.path("home/.local/share/applications");
    EXPECT_EQ(device_.log.texts(), Names{"[DEBUG] skipped the application \"caf\\xe9\" of \"" + folder +
                                         "/caf\\xe9.desktop\"; its identifier cannot name an app library"});
}

TEST_F(DesktopFolderTest, AnEditThatKeepsTheSizeIsSeenAtOnce) {
    for (int i = 0; i < 200; ++i) {
        const std::string name(1, static_cast<char>('a' + i % 26));
        install("x.desktop", withContainer(name));
        ASSERT_EQ(device_.record("x")->localizedName(), name) << "edit " << i;
    }
}

TEST_F(DesktopFolderTest, AContainerThatHoldsTheStorageRootIsNone) {
    device_.makeFolder("home/Documents");
    ASSERT_TRUE(device_.roots.addStorage(device_.path("home/Documents")).has_value());
    install("home.desktop", RegistryDevice::entry("Home", "X-Tarnwell-DataContainer=~/\n"));
    EXPECT_EQ(device_.record("home")->dataContainerURL(), std::nullopt);
}

TEST_F(DesktopFolderTest, AnArchivedContainerThatIsNoAbsolutePathIsNone) {
    for (const char* path : {"", "Apps/Maps", "~/Apps/Maps"}) {
        const BundleRecordPtr record =
            device_.registry().recordFromArchive({"x", path, Origin::desktopEntry, ApplicationType::user});
        EXPECT_EQ(record->dataContainerURL(), std::nullopt) << path;
    }
    EXPECT_EQ(device_.log.texts(), Names{});
}

TEST_F(DesktopFolderTest, RecordsLiveOnAfterTheirRegistry) {
    device_.makeFolder("home/Apps/Maps/Documents");
    install("maps.desktop", withContainer("Maps"));
    auto registry = LinuxAppRegistry::create(device_.sources, device_.roots, device_.log);
    const BundleRecordPtr installed = registry->recordForBundleIdentifier("maps");
    const BundleRecordPtr archived = registry->recordFromArchive(installed->archived());
    registry.reset();
    EXPECT_EQ(installed->dataContainerURL(), URL::file(device_.path("home/Apps/Maps")));
    EXPECT_EQ(archived->localizedName(), "Maps");
}

TEST_F(DesktopFolderTest, NamesFollowTheLanguages) {
    struct Row {
        std::vector<std::string> languages;
        std::string name;
    };
    install("maps.desktop",
            withContainer("Maps",
                          "Name[de]=Karten\nName[de_AT]=Landkarten\nName[sr@latin]=Karte\nName[fr]=\xFF\nName[it]=\n"));
    for (const Row& row : std::vector<Row>{{{}, "Maps"},
                                           {{"de"}, "Karten"},
                                           {{"de_DE.UTF-8"}, "Karten"},
                                           {{"de_AT.UTF-8"}, "Landkarten"},
                                           {{"sr_RS@latin"}, "Karte"},
                                           {{"sv", "de"}, "Karten"},
                                           {{"fr", "de"}, "Karten"},
                                           {{"it"}, "Maps"},
                                           {{"C", "de"}, "Maps"},
                                           {{"en_GB.UTF-8"}, "Maps"}}) {
        RegistrySources sources = device_.sources;
        sources.languages = row.languages;
        auto registry = LinuxAppRegistry::create(sources, device_.roots, device_.log);
        EXPECT_EQ(registry->recordForBundleIdentifier("maps")->localizedName(), row.name)
            << (row.languages.empty() ? "no language" : row.languages.front());
    }
}

}  // namespace
}  // namespace tarnwell::registry
