#include "host/Settings.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <map>

#include "testing/TemporaryDirectory.h"

namespace tarnwell::host {
namespace {

using testing::TemporaryDirectory;
using Variables = std::map<std::string, std::string>;

Settings::Lookup lookupIn(Variables variables) {
    return [variables = std::move(variables)](const char* name) -> std::optional<std::string> {
        const auto found = variables.find(name);
        return found == variables.end() ? std::nullopt : std::optional(found->second);
    };
}

TEST(Settings, DefaultsLieBelowTheHome) {
    const auto settings = Settings::from(lookupIn({{"HOME", "/home/ada"}}), std::nullopt);
    ASSERT_TRUE(settings);
    EXPECT_EQ(settings->storageRoot, "/home/ada/Documents");
    EXPECT_EQ(settings->storageRootOrigin, "default");
    EXPECT_EQ(settings->applicationSupport, "/home/ada/.local/share");
    EXPECT_EQ(settings->stateDirectory, "/home/ada/.local/state/tarnwell");
    EXPECT_EQ(settings->cacheDirectory, "/home/ada/.cache/tarnwell");
    EXPECT_EQ(settings->runtimeDirectory, std::nullopt);
}

TEST(Settings, VariablesOfTheSessionMoveTheFolders) {
    const auto settings = Settings::from(lookupIn({{"HOME", "/home/ada"},
                                                   {"XDG_DATA_HOME", "/d"},
                                                   {"XDG_STATE_HOME", "/s"},
                                                   {"XDG_CACHE_HOME", "/c"},
                                                   {"XDG_RUNTIME_DIR", "/r"}}),
                                         std::nullopt);
    ASSERT_TRUE(settings);
    EXPECT_EQ(settings->applicationSupport, "/d");
    EXPECT_EQ(settings->stateDirectory, "/s/tarnwell");
    EXPECT_EQ(settings->cacheDirectory, "/c/tarnwell");
    EXPECT_EQ(settings->runtimeDirectory, "/r/tarnwell");
}

TEST(Settings, VariablesThatAreNotAbsoluteCountAsUnset) {
    const auto settings = Settings::from(
        lookupIn({{"HOME", "/home/ada"}, {"XDG_DATA_HOME", "data"}, {"XDG_STATE_HOME", ""}, {"XDG_RUNTIME_DIR", "r"}}),
        std::nullopt);
    ASSERT_TRUE(settings);
    EXPECT_EQ(settings->applicationSupport, "/home/ada/.local/share");
    EXPECT_EQ(settings->stateDirectory, "/home/ada/.local/state/tarnwell");
    EXPECT_EQ(settings->runtimeDirectory, std::nullopt);
}

TEST(Settings, TheOptionIsStrongerThanTheVariableAndThatThanTheSession) {
    TemporaryDirectory directory;
    testing::makeDirectories(directory.path("config"));
    testing::writeFile(directory.path("config/user-dirs.dirs"), "XDG_DOCUMENTS_DIR=\"$HOME/Papers\"\n");
    Variables variables{{"HOME", "/home/ada"}, {"XDG_CONFIG_HOME", directory.path("config")}};

    auto settings = Settings::from(lookupIn(variables), std::nullopt);
    ASSERT_TRUE(settings);
    EXPECT_EQ(settings->storageRoot, "/home/ada/Papers");
    EXPECT_EQ(settings->storageRootOrigin, "XDG_DOCUMENTS_DIR");

    variables["TARNWELL_STORAGE"] = "/srv/papers";
    settings = Settings::from(lookupIn(variables), std::nullopt);
    ASSERT_TRUE(settings);
    EXPECT_EQ(settings->storageRoot, "/srv/papers");
    EXPECT_EQ(settings->storageRootOrigin, "TARNWELL_STORAGE");

    settings = Settings::from(lookupIn(variables), "/mnt/papers");
    ASSERT_TRUE(settings);
    EXPECT_EQ(settings->storageRoot, "/mnt/papers");
    EXPECT_EQ(settings->storageRootOrigin, "--storage");
}

TEST(Settings, ARelativeOptionIsMeantFromTheWorkingDirectory) {
    const auto settings = Settings::from(lookupIn({{"HOME", "/home/ada"}}), "papers");
    ASSERT_TRUE(settings);
    EXPECT_TRUE(settings->storageRoot.starts_with('/'));
    EXPECT_TRUE(settings->storageRoot.ends_with("/papers"));
}

TEST(Settings, WhatCannotBeMeantIsRefusedWithASentence) {
    struct Row {
        Variables variables;
        std::optional<std::string> option;
        std::string message;
    };
    const Row rows[] = {
        {{}, std::nullopt, "this person's home folder is unknown; set HOME"},
        {{{"HOME", "ada"}}, std::nullopt, "this person's home folder is unknown; set HOME"},
        {{{"HOME", "/h"}}, "", "--storage needs the path of a folder"},
        {{{"HOME", "/h"}, {"TARNWELL_STORAGE", "x"}},
         std::nullopt,
         "TARNWELL_STORAGE has to be an absolute path, not \"x\""},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.message);
        const auto settings = Settings::from(lookupIn(row.variables), row.option);
        ASSERT_FALSE(settings);
        EXPECT_TRUE(settings.error().is(ErrorDomain::posix, EINVAL));
        EXPECT_EQ(settings.error().userInfo.at(kErrorMessage), row.message);
    }
}

TEST(DocumentsFolder, IsReadFromTheSessionsFile) {
    struct Row {
        const char* text;
        std::optional<std::string> folder;
    };
    const Row rows[] = {
        {"", std::nullopt},
        {"XDG_DOCUMENTS_DIR=\"$HOME/Dokumente\"\n", "/h/Dokumente"},
        {"XDG_DOCUMENTS_DIR=\"$HOME/Dokumente/\"", "/h/Dokumente"},
        {"  XDG_DOCUMENTS_DIR = \"/srv/docs\"\n", "/srv/docs"},
        {"# XDG_DOCUMENTS_DIR=\"/srv/docs\"\n", std::nullopt},
        {"XDG_DOCUMENTS_DIRS=\"/srv/docs\"\n", std::nullopt},
        {"XDG_MUSIC_DIR=\"/m\"\nXDG_DOCUMENTS_DIR=\"/one\"\nXDG_DOCUMENTS_DIR=\"/two\"\n", "/two"},
        {"XDG_DOCUMENTS_DIR=\"$HOME/\"\n", std::nullopt},
        {"XDG_DOCUMENTS_DIR=\"$HOME\"\n", std::nullopt},
        {"XDG_DOCUMENTS_DIR=\"$HOMEX/y\"\n", std::nullopt},
        {"XDG_DOCUMENTS_DIR=\"relative\"\n", std::nullopt},
        {"XDG_DOCUMENTS_DIR=/srv/unquoted\n", std::nullopt},
        {"XDG_DOCUMENTS_DIR=\"/never ends\n", std::nullopt},
        {"XDG_DOCUMENTS_DIR=\"/a \\\"b\\\"\"\n", "/a \"b\""},
        {"XDG_DOCUMENTS_DIR=", std::nullopt},
        {"XDG_DOCUMENTS_DIR", std::nullopt},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.text);
        EXPECT_EQ(documentsFolderOf(row.text, "/h"), row.folder);
    }
}

}  // namespace
}  // namespace tarnwell::host
