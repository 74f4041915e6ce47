#include <gtest/gtest.h>

#include "platform/registry/BundleIdentifier.h"
#include "platform/registry/DesktopEntry.h"
#include "platform/registry/FlatpakMetadata.h"

namespace tarnwell::registry {
namespace {

TEST(BundleIdentifierTest, RefusesWhatCannotNameALibraryAndAFolder) {
    struct Row {
        std::string identifier;
        bool usable;
    };
    for (const Row& row : std::vector<Row>{{"org.example.Notes", true},
                                           {"notes", true},
                                           {"Notizbuch für alle", true},
                                           {"#x", true},
                                           {std::string(255, 'x'), true},
                                           {std::string(256, 'x'), false},
                                           {"", false},
                                           {".", false},
                                           {"..", false},
                                           {"a..b", false},
                                           {"a/b", false},
                                           {"/", false},
                                           {"fid=7", false},
                                           {"(null)", false},
                                           {"a\nb", false},
                                           {std::string("a\0b", 3), false},
                                           {"a\x7F", false},
                                           {"a\xC2\x9B", false},
                                           {"caf\xE9", false}}) {
        EXPECT_EQ(isUsableIdentifier(row.identifier), row.usable) << row.identifier;
    }
}

TEST(BundleIdentifierTest, SnapNamesGoThereAndBack) {
    EXPECT_EQ(snapIdentifier("notes_work"), "snap.notes_work");
    EXPECT_EQ(snapInstanceOf("snap.notes_work"), "notes_work");
    for (const char* other :
         {"snap.", "snap.a.b", "snapnotes", "org.example.Notes", "snap.a_", "snap.a_b_c", "snap.Ä"}) {
        EXPECT_EQ(snapInstanceOf(other), std::nullopt) << other;
    }
    EXPECT_TRUE(isSnapInstanceName(std::string(250, 'x')));
    EXPECT_FALSE(isSnapInstanceName(std::string(251, 'x')));
}

TEST(DesktopEntryTest, KnowsTheFieldCodesThatStandForFiles) {
    struct Row {
        std::string exec;
        bool takes;
    };
    for (const Row& row : std::vector<Row>{{"view %f", true},
                                           {"view %F", true},
                                           {"view %u", true},
                                           {"view %U", true},
                                           {"flatpak run --file-forwarding org.example.Notes @@u %U @@", true},
                                           {"view --file=%f --more", true},
                                           {"%f", true},
                                           {"view", false},
                                           {"", false},
                                           {"%", false},
                                           {"view %", false},
                                           {"view %i %c %k", false},
                                           {"view %%f", false},
                                           {"view %%%f", true},
                                           {"view 100%% %d", false}}) {
        EXPECT_EQ(takesFiles(row.exec), row.takes) << row.exec;
    }
}

TEST(DesktopEntryTest, OpensDocumentsOnlyWithBothACodeAndAType) {
    struct Row {
        std::string lines;
        bool opens;
    };
    for (const Row& row : std::vector<Row>{{"Exec=a %u\nMimeType=text/plain;\n", true},
                                           {"Exec=a %u\nMimeType=text/plain\n", true},
                                           {"Exec=a %u\nMimeType=\n", false},
                                           {"Exec=a %u\nMimeType=;\n", false},
                                           {"Exec=a %u\n", false},
                                           {"Exec=a\nMimeType=text/plain;\n", false},
                                           {"MimeType=text/plain;\n", false}}) {
        const auto entry = parseDesktopEntry("[Desktop Entry]\n" + row.lines, {});
        ASSERT_TRUE(entry.has_value()) << row.lines;
        EXPECT_EQ(entry->opensDocuments, row.opens) << row.lines;
    }
}

TEST(DesktopEntryTest, ABooleanThatIsNoneIsNotDeclared) {
    struct Row {
        std::string value;
        std::optional<bool> declared;
    };
    for (const Row& row : std::vector<Row>{
             {"true", true}, {"false", false}, {"1", true}, {"0", false}, {"yes", std::nullopt}, {"", std::nullopt}}) {
        const auto entry =
            parseDesktopEntry("[Desktop Entry]\nX-Tarnwell-SupportsDocumentBrowser=" + row.value + "\n", {});
        ASSERT_TRUE(entry.has_value());
        EXPECT_EQ(entry->supportsDocumentBrowser, row.declared) << row.value;
    }
    EXPECT_EQ(parseDesktopEntry("[Desktop Entry]\n", {})->supportsDocumentBrowser, std::nullopt);
}

TEST(DesktopEntryTest, ANameThatCannotBeShownIsNone) {
    const auto nameOf = [](const std::string& name) {
        return parseDesktopEntry("[Desktop Entry]\nName=" + name + "\n", {})->localizedName;
    };
    EXPECT_EQ(nameOf(std::string(1024, 'n')), std::string(1024, 'n'));
    EXPECT_EQ(nameOf(std::string(1025, 'n')), std::nullopt);
    EXPECT_EQ(nameOf("two\\nlines"), std::nullopt);
    EXPECT_EQ(nameOf("caf\xE9"), std::nullopt);
    EXPECT_EQ(nameOf(""), std::nullopt);
    EXPECT_EQ(nameOf("Größe \\s"), "Größe  ");
}

TEST(DesktopEntryTest, TextThatIsNoDesktopFileIsRefused) {
    for (const std::string& text : {std::string("Name=x\n"), std::string("[unclosed\n"),
                                    std::string("\x7F"
                                                "ELF\x02\x01"),
                                    std::string("[Desktop Entry]\nno value\n")}) {
        const auto entry = parseDesktopEntry(text, {});
        ASSERT_FALSE(entry.has_value()) << text;
        EXPECT_EQ(entry.error(), posixError(EBADMSG, "not a key file")) << text;
    }
    for (const std::string& text : {std::string(), std::string("\0\0\0\0", 4), std::string("\n# only a comment\n"),
                                    std::string("[Desktop Action x]\nName=y\n")}) {
        const auto entry = parseDesktopEntry(text, {});
        ASSERT_FALSE(entry.has_value()) << text;
        EXPECT_EQ(entry.error(), posixError(EBADMSG, "no group \"Desktop Entry\"")) << text;
    }
}

TEST(DesktopEntryTest, IsReadAtEveryCutWithoutHarm) {
    const std::string whole =
        "[Desktop Entry]\nType=Application\nName=Maps\nName[de]=Karten\nExec=maps %U\nMimeType=text/x;\n"
        "X-Tarnwell-DataContainer=~/Apps/Maps\nX-SnapInstanceName=maps\nX-Flatpak=org.example.Maps\nHidden=true\n";
    for (std::size_t length = 0; length < whole.size(); ++length) {
        const auto entry = parseDesktopEntry(std::string_view(whole).substr(0, length), {"de"});
        if (entry && entry->localizedName) {
            EXPECT_TRUE(std::string_view("Maps").starts_with(*entry->localizedName) ||
                        std::string_view("Karten").starts_with(*entry->localizedName))
                << length;
        }
    }
    EXPECT_EQ(parseDesktopEntry(whole, {"de"})->localizedName, "Karten");
}

TEST(FlatpakMetadataTest, ListsTheInstallationsOfAConfigurationFile) {
    const auto paths = parseFlatpakInstallations(
        "[Installation \"extra\"]\nPath=/opt/flatpak\nDisplayName=Extra\n[Installation \"second\"]\nPath=/srv/flatpak\n"
        "[Installation \"relative\"]\nPath=srv\n[Installation \"none\"]\n[Other]\nPath=/other\n");
    ASSERT_TRUE(paths.has_value());
    EXPECT_EQ(*paths, (std::vector<std::string>{"/opt/flatpak", "/srv/flatpak"}));
    EXPECT_FALSE(parseFlatpakInstallations("Path=/x\n").has_value());
}

}  // namespace
}  // namespace tarnwell::registry
