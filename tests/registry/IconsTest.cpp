#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <future>

#include "platform/registry/IconFinder.h"
#include "tests/registry/RegistryDevice.h"

namespace tarnwell::registry {
namespace {

using icons::IconData;
using Type = IconThemeDirectory::Type;

const std::string kSvg = "<svg xmlns=\"http://www.w3.org/2000/svg\"><!--";
/// An icon whose data says where it is from.
std::string iconNamed(const std::string& mark) { return kSvg + mark + "--></svg>"; }
std::string markOf(const Result<IconData>& icon) {
    if (!icon) return "none";
    if (icon->source == "built in") return "generic";
    std::string text(textOf(icon->bytes));
    return text.substr(kSvg.size(), text.find("--></svg>") - kSvg.size());
}

// Index files.

TEST(IconThemes, AreReadFromTheirIndex) {
    const auto theme = parseIconTheme(
        "[Icon Theme]\nName=Test\nInherits=other, hicolor ,,..,a/b\n"
        "Directories=48x48/apps,scalable/apps, 64x64@2/apps,,missing,48x48/apps\nScaledDirectories=x@3\n"
        "[48x48/apps]\nSize=48\nContext=Applications\n"
        "[scalable/apps]\nSize=128\nMinSize=8\nMaxSize=512\nType=Scalable\n"
        "[64x64@2/apps]\nSize=64\nScale=2\nType=Fixed\n"
        "[x@3]\nSize=10\nScale=3\nThreshold=5\nType=Threshold\n");
    ASSERT_TRUE(theme) << describe(theme.error());
    EXPECT_EQ(theme->parents, (Names{"other", "hicolor"}));
    EXPECT_EQ(theme->directories, (std::vector<IconThemeDirectory>{{"48x48/apps", Type::threshold, 48, 1, 48, 48, 2},
                                                                   {"scalable/apps", Type::scalable, 128, 1, 8, 512, 2},
                                                                   {"64x64@2/apps", Type::fixed, 64, 2, 64, 64, 2},
                                                                   {"x@3", Type::threshold, 10, 3, 10, 10, 5}}));
}

TEST(IconThemes, LeaveOutFoldersThatAreElsewhereOrMakeNoSense) {
    for (const std::string& path : Names{"/etc", "../x", "a/../../x", ".hidden", "a/./b", std::string(2000, 'x')}) {
        const auto theme = parseIconTheme("[Icon Theme]\nDirectories=" + path + "\n[" + path + "]\nSize=48\n");
        ASSERT_TRUE(theme) << path;
        EXPECT_TRUE(theme->directories.empty()) << path;
    }
    for (const std::string& lines :
         Names{"", "Size=0\n", "Size=-1\n", "Size=48x\n", "Size=99999999999999\n", "Size=48\nScale=0\n",
               "Size=48\nScale=x\n", "Size=48\nMinSize=60\nMaxSize=50\n", "Size=48\nThreshold=-3\n"}) {
        const auto theme = parseIconTheme("[Icon Theme]\nDirectories=a\n[a]\n" + lines);
        ASSERT_TRUE(theme) << lines;
        EXPECT_TRUE(theme->directories.empty()) << lines;
    }
}

TEST(IconThemes, AreBounded) {
    std::string directories, groups, parents;
    for (std::size_t i = 0; i < kMaxThemeDirectories + 50; ++i) {
        directories += "d" + std::to_string(i) + ",";
        groups += "[d" + std::to_string(i) + "]\nSize=16\n";
        parents += "p" + std::to_string(i) + ",";
    }
    const auto theme =
        parseIconTheme("[Icon Theme]\nDirectories=" + directories + "\nInherits=" + parents + "\n" + groups);
    ASSERT_TRUE(theme);
    EXPECT_EQ(theme->directories.size(), kMaxThemeDirectories);
    EXPECT_EQ(theme->parents.size(), kMaxThemeParents);
}

TEST(IconThemes, WithoutTheirGroupAreNone) {
    for (const std::string& text : {std::string(), std::string("[Other]\na=b\n"), std::string("no key file"),
                                    std::string("\0\xff", 2), std::string("[Icon Theme\n")}) {
        const auto theme = parseIconTheme(text);
        ASSERT_FALSE(theme) << text;
        EXPECT_EQ(theme.error().code, EBADMSG);
    }
}

TEST(IconThemes, TellHowFarADirectoryIsFromWhatIsWanted) {
    struct Row {
        IconThemeDirectory directory;
        int points, scale, expected;
    };
    const IconThemeDirectory fixed{"f", Type::fixed, 48, 1, 48, 48, 2}, near{"t", Type::threshold, 48, 1, 48, 48, 2},
        scalable{"s", Type::scalable, 128, 1, 8, 512, 2}, twice{"2", Type::fixed, 48, 2, 48, 48, 2};
    for (const Row& row : {Row{fixed, 48, 1, -1},
                           {fixed, 48, 2, 48},
                           {fixed, 64, 1, 16},
                           {fixed, 32, 1, 16},
                           {near, 50, 1, -1},
                           {near, 46, 1, -1},
                           {near, 45, 1, 1},
                           {near, 52, 1, 2},
                           {scalable, 48, 1, -1},
                           {scalable, 48, 3, 0},
                           {scalable, 4, 1, 4},
                           {scalable, 600, 1, 88},
                           {twice, 48, 2, -1},
                           {twice, 48, 1, 48},
                           {twice, 96, 1, 0}}) {
        EXPECT_EQ(distance(row.directory, row.points, row.scale), row.expected)
            << row.directory.path << " " << row.points << "@" << row.scale;
    }
}

// Looking for icons.

class IconsTest : public ::testing::Test {
protected:
    IconsTest() {
        device_.sources.iconDirs = {device_.path("home/icons"), device_.path("usr/icons")};
        device_.sources.pixmapDirs = {device_.path("usr/pixmaps")};
        device_.sources.themeSettings = {{device_.path("home/settings.ini"), "Settings", "gtk-icon-theme-name"},
                                         {device_.path("home/kdeglobals"), "Icons", "Theme"}};
    }
    void icon(const std::string& path, const std::string& mark) const { device_.write(path, iconNamed(mark)); }
    void theme(const std::string& name, const std::string& inherits,
               const std::vector<std::pair<std::string, std::string>>& folders) const {
        std::string directories, groups;
        for (const auto& [path, lines] : folders) {
            directories += path + ",";
            groups += "[" + path + "]\n" + lines;
        }
        device_.write("usr/icons/" + name + "/index.theme",
                      "[Icon Theme]\nName=x\nInherits=" + inherits + "\nDirectories=" + directories + "\n" + groups);
    }
    void choose(const std::string& theme) const {
        device_.write("home/settings.ini", "[Settings]\ngtk-icon-theme-name=" + theme + "\n");
    }
    Result<IconData> find(const std::string& name, int variant = 0, const std::vector<std::string>& further = {}) {
        return IconFinder(device_.sources).find(name, further, *icons::iconVariant(variant));
    }
    /// What an application with that icon gets.
    Result<IconData> ofApplication(const std::string& name, int variant) {
        device_.write("home/.local/share/applications/app.desktop",
                      RegistryDevice::entry("App", "X-Tarnwell-DataContainer=~/App\nIcon=" + name + "\n"));
        return device_.record("app")->iconData(variant);
    }
    RegistryDevice device_;
};

TEST_F(IconsTest, TheNearestSizeOfATheme) {
    theme("hicolor", "",
          {{"32/apps", "Size=32\nType=Fixed\n"},
           {"48/apps", "Size=48\nType=Fixed\n"},
           {"48@2/apps", "Size=48\nScale=2\nType=Fixed\n"},
           {"256/apps", "Size=256\nType=Fixed\n"}});
    for (const std::string size : {"32", "48", "48@2", "256"}) icon("usr/icons/hicolor/" + size + "/apps/a.svg", size);
    EXPECT_EQ(markOf(find("a", 0)), "48");
    EXPECT_EQ(markOf(find("a", 15)), "48@2");
    EXPECT_EQ(markOf(find("a", 32)), "48@2");  // 96 of 144
    EXPECT_EQ(markOf(find("a", 1)), "48");     // 48 of 64
    EXPECT_EQ(find("a", 24)->pixels, 128u);
    icon("usr/icons/hicolor/32/apps/small.svg", "32");
    EXPECT_EQ(markOf(find("small", 32)), "32");
}

TEST_F(IconsTest, AScalableOneBeforeASmallerOne) {
    theme("hicolor", "",
          {{"48/apps", "Size=48\n"}, {"scalable/apps", "Size=64\nType=Scalable\nMinSize=8\nMaxSize=512\n"}});
    icon("usr/icons/hicolor/48/apps/a.svg", "48");
    icon("usr/icons/hicolor/scalable/apps/a.svg", "scalable");
    EXPECT_EQ(markOf(find("a", 0)), "48");
    EXPECT_EQ(markOf(find("a", 15)), "scalable");
}

TEST_F(IconsTest, ThePersonsThemeItsParentsTheLastThemeAndThenIconsWithoutATheme) {
    const std::string size = "Size=48\n";
    theme("mine", "parent", {{"apps", size}});
    theme("parent", "grandparent,hicolor", {{"apps", size}});
    theme("grandparent", "", {{"apps", size}});
    theme("hicolor", "", {{"apps", size}});
    choose("mine");
    icon("usr/pixmaps/a.svg", "pixmap");
    EXPECT_EQ(markOf(find("a")), "pixmap");
    icon("home/icons/a.svg", "unthemed");
    EXPECT_EQ(markOf(find("a")), "unthemed");
    for (const std::string name : {"hicolor", "grandparent", "parent", "mine"}) {
        icon("usr/icons/" + name + "/apps/a.svg", name);
        EXPECT_EQ(markOf(find("a")), name);
    }
    icon("home/icons/mine/apps/a.svg", "person's own");
    EXPECT_EQ(markOf(find("a")), "person's own");
    icon("flatpak/icons/mine/apps/a.svg", "installation's");
    EXPECT_EQ(markOf(find("a", 0, {device_.path("flatpak/icons")})), "installation's");
}

TEST_F(IconsTest, TheFirstSettingThatNamesAThemeCounts) {
    theme("kde", "", {{"apps", "Size=48\n"}});
    icon("usr/icons/kde/apps/a.svg", "kde");
    EXPECT_EQ(markOf(find("a")), "none");
    device_.write("home/kdeglobals", "[Icons]\nTheme=kde\n");
    EXPECT_EQ(markOf(find("a")), "kde");
    choose("../../etc");
    EXPECT_EQ(markOf(find("a")), "kde");
    choose("absent");
    EXPECT_EQ(markOf(find("a")), "none");
}

TEST_F(IconsTest, ThemesThatInheritFromEachOtherInCirclesEnd) {
    theme("a", "b", {{"apps", "Size=48\n"}});
    theme("b", "c,b", {{"apps", "Size=48\n"}});
    theme("c", "a", {{"apps", "Size=48\n"}});
    choose("a");
    EXPECT_EQ(markOf(find("x")), "none");
    icon("usr/icons/c/apps/x.svg", "c");
    EXPECT_EQ(markOf(find("x")), "c");
    for (int i = 0; i < 100; ++i) theme("t" + std::to_string(i), "t" + std::to_string(i + 1), {{"apps", "Size=48\n"}});
    choose("t0");
    icon("usr/icons/t20/apps/y.svg", "near");
    icon("usr/icons/t99/apps/z.svg", "far");
    EXPECT_EQ(markOf(find("y")), "near");
    EXPECT_EQ(markOf(find("z")), "none");
}

TEST_F(IconsTest, AnIndexThatIsTooLargeOrNoneIsNotRead) {
    theme("hicolor", "", {{"apps", "Size=48\n"}});
    icon("usr/icons/hicolor/apps/a.svg", "a");
    EXPECT_EQ(markOf(find("a")), "a");
    const std::string index = device_.path("usr/icons/hicolor/index.theme");
    ASSERT_EQ(::truncate(index.c_str(), kMaxParsedFileBytes + 1), 0);
    EXPECT_EQ(markOf(find("a")), "none");
    ASSERT_EQ(::unlink(index.c_str()), 0);
    ASSERT_EQ(::mkfifo(index.c_str(), 0600), 0);
    EXPECT_EQ(markOf(find("a")), "none");
}

TEST_F(IconsTest, WithoutAnyIndexTheLastThemeHasItsUsualFolders) {
    icon("usr/icons/hicolor/48x48/apps/a.svg", "48");
    icon("usr/icons/hicolor/64x64/apps/a.svg", "64");
    icon("usr/icons/hicolor/scalable/apps/a.svg", "scalable");
    EXPECT_EQ(markOf(find("a", 0)), "48");
    EXPECT_EQ(markOf(find("a", 1)), "64");
    EXPECT_EQ(markOf(find("a", 32)), "scalable");
}

TEST_F(IconsTest, PngBeforeSvgAndWhatIsUnusableCountsAsMissing) {
    const std::string folder = "usr/icons/hicolor/48x48/apps/";
    device_.write(folder + "a.png", std::string("\x89PNG\r\n\x1a\n", 8));
    icon(folder + "a.svg", "svg");
    EXPECT_EQ(find("a")->format, icons::IconFormat::png);
    device_.write(folder + "a.png", "no picture");
    EXPECT_EQ(markOf(find("a")), "svg");
    device_.write(folder + "b.png", "no picture");
    EXPECT_EQ(find("b").error().code, EINVAL);
    ASSERT_EQ(::mkfifo(device_.path(folder + "c.png").c_str(), 0600), 0);
    auto waiting = std::async(std::launch::async, [&] { return find("c").error().code; });
    ASSERT_EQ(waiting.wait_for(std::chrono::seconds(10)), std::future_status::ready);
    EXPECT_EQ(waiting.get(), EINVAL);
    EXPECT_EQ(find("d").error().code, ENOENT);
}

TEST_F(IconsTest, APathIsReadAsItIs) {
    icon("opt/app/logo.svg", "logo");
    icon("opt/app/logo", "bare");
    EXPECT_EQ(markOf(find(device_.path("opt/app/logo.svg"))), "logo");
    EXPECT_EQ(markOf(find(device_.path("opt/app/logo"))), "bare");
    EXPECT_EQ(find(device_.path("opt/app/none.svg")).error().code, ENOENT);
    EXPECT_EQ(find("/dev/zero").error().code, EINVAL);
    EXPECT_EQ(find("/etc/passwd").error().code, EINVAL);
}

TEST_F(IconsTest, ANameLeadsNowhereElse) {
    icon("usr/icons/hicolor/48x48/apps/a.svg", "a");
    icon("usr/secret.svg", "secret");
    EXPECT_EQ(markOf(find("a.svg")), "a");
    EXPECT_EQ(markOf(find("a.png")), "a");
    for (const std::string& name : {std::string("../secret"), std::string("../../secret"), std::string("x/../a"),
                                    std::string(".a"), std::string(), std::string(300, 'x'), std::string("a\0b", 3)}) {
        EXPECT_EQ(find(name).error().code, EINVAL) << name;
    }
}

// What applications get.

TEST_F(IconsTest, AnApplicationHasItsIconInEveryVariantAndElseTheGenericOneAtScale1) {
    icon("usr/icons/hicolor/scalable/apps/app.svg", "app");
    for (const int variant : {0, 15, 32, 1, 24}) {
        const auto found = ofApplication("app", variant);
        EXPECT_EQ(markOf(found), "app");
        EXPECT_EQ(found->pixels, icons::iconVariant(variant)->pixels());
    }
    for (const std::string& name : {std::string("none"), std::string("/none.png"), std::string("../app"), std::string(),
                                    std::string("a\\nb"), std::string(5000, 'x')}) {
        SCOPED_TRACE(name.substr(0, 20));
        for (const int variant : {0, 1}) EXPECT_EQ(markOf(ofApplication(name, variant)), "generic");
        for (const int variant : {15, 24, 32}) EXPECT_EQ(markOf(ofApplication(name, variant)), "none");
    }
    for (const int variant : {-1, 2, 33}) EXPECT_EQ(ofApplication("app", variant).error().code, EINVAL);
}

TEST_F(IconsTest, WhyAnIconIsMissingIsSaidOnceInTheLog) {
    for (const int variant : {32, 15, 0, 0}) (void)ofApplication("none", variant);
    const auto lines = device_.log.texts();
    EXPECT_EQ(std::ranges::count_if(lines, [](const auto& line) { return line.starts_with("[DEBUG] no icon of"); }), 1);
    EXPECT_NE(std::ranges::find(lines,
                                "[DEBUG] no icon of \"app\"; POSIX ENOENT (No such file or directory): there is "
                                "no icon \"none\""),
              lines.end());
}

TEST_F(IconsTest, AFlatpakAndASnapHaveTheirsInTheirInstallation) {
    device_.installFlatpak(kUserFlatpaks, "org.example.Notes",
                           RegistryDevice::entry("Notes", "Icon=org.example.Notes\n"));
    icon(std::string(kUserFlatpaks) + "/exports/share/icons/hicolor/scalable/apps/org.example.Notes.svg", "export");
    EXPECT_EQ(markOf(device_.record("org.example.Notes")->iconData(15)), "export");
    device_.write("var/snapd/desktop/applications/maps_maps.desktop",
                  RegistryDevice::entry("Maps", "Icon=snap.maps\n"));
    device_.write("var/snapd/desktop/applications/maps_a.desktop", RegistryDevice::entry("A", "Icon=other\n"));
    icon("var/snapd/desktop/icons/hicolor/scalable/apps/snap.maps.svg", "snap");
    EXPECT_EQ(markOf(device_.record("snap.maps")->iconData(15)), "snap");
}

TEST_F(IconsTest, ARecordFromAnArchiveHasTheIconThatIsThereNow) {
    icon("usr/icons/hicolor/scalable/apps/app.svg", "app");
    (void)ofApplication("app", 0);
    const auto archived = device_.record("app")->archived();
    const auto record = device_.registry().recordFromArchive(archived);
    EXPECT_EQ(markOf(record->iconData(15)), "app");
    icon("usr/icons/hicolor/scalable/apps/app.svg", "another");
    EXPECT_EQ(markOf(record->iconData(15)), "another");
    ASSERT_EQ(::unlink(device_.path("home/.local/share/applications/app.desktop").c_str()), 0);
    EXPECT_EQ(markOf(record->iconData(15)), "none");
    EXPECT_EQ(markOf(record->iconData(0)), "generic");
}

TEST(IconSources, ComeFromTheEnvironment) {
    const auto sources = RegistrySources::from([](const char* name) -> std::optional<std::string> {
        const std::string_view variable(name);
        if (variable == "HOME") return "/home/ada";
        if (variable == "XDG_DATA_DIRS") return "/a/share:relative:/b/share/";
        return std::nullopt;
    });
    EXPECT_EQ(sources.iconDirs,
              (Names{"/home/ada/.icons", "/home/ada/.local/share/icons", "/a/share/icons", "/b/share/icons"}));
    EXPECT_EQ(sources.pixmapDirs, (Names{"/a/share/pixmaps", "/b/share/pixmaps", "/usr/share/pixmaps"}));
    ASSERT_EQ(sources.themeSettings.size(), 3u);
    EXPECT_EQ(sources.themeSettings[0].path, "/home/ada/.config/gtk-4.0/settings.ini");
}

}  // namespace
}  // namespace tarnwell::registry
