#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>
#include <map>

#include "testing/TestDevice.h"

namespace tarnwell::files {
namespace {

namespace disk = std::filesystem;
using testing::TestDevice;
using testing::writeFile;

/// A library whose container is a link to one of several versions of it, each copied from the one before with its
/// times, as Snaps keep their data.
class VersionsTest : public ::testing::TestWithParam<bool> {
protected:
    VersionsTest() {
        const std::string documents = device_.makeContainer("app/1") + "/Documents";
        container_ = disk::path(documents).parent_path().parent_path();
        disk::create_directories(documents + "/folder/inner");
        writeFile(documents + "/letter.txt", "text");
        writeFile(documents + "/folder/note.txt", "a note");
        writeFile(documents + "/folder/inner/deep.txt", "deep");
        writeFile(documents + "/left.txt", "left out");
        disk::create_symlink("1", container_ + "/current");
        if (GetParam()) device_.watch();
        meet();
    }

    void meet() {
        const auto url = device_.roots().addVersionedContainer(container_ + "/current");
        ASSERT_TRUE(url) << describe(url.error());
        name_ = url->appending("Documents").path();
        device_.settle();
    }
    /// What a snap's refresh does: a copy, then the link.
    void copyVersion(const std::string& from, const std::string& to) {
        const std::string command = "cp -a '" + container_ + "/" + from + "' '" + container_ + "/" + to + "'";
        ASSERT_EQ(std::system(command.c_str()), 0);
    }
    void lead(const std::string& version) {
        disk::remove(container_ + "/current");
        disk::create_symlink(version, container_ + "/current");
    }
    std::string in(const std::string& version, const std::string& relative) const {
        return container_ + "/" + version + "/Documents/" + relative;
    }
    std::string identifierOf(const std::string& relative) {
        const auto row = device_.comparer().rowAt(*device_.roots().locate(name_ + "/" + relative));
        if (!row) return "none";
        return row->isDocument() ? "did=" + std::to_string(raw(*row->documentID))
                                 : "fid=" + std::to_string(raw(row->fileID));
    }
    std::map<std::string, std::string> identifiers() {
        std::map<std::string, std::string> all;
        for (const char* path :
             {"letter.txt", "folder", "folder/note.txt", "folder/inner", "folder/inner/deep.txt", "left.txt"}) {
            all[path] = identifierOf(path);
            EXPECT_NE(all[path], "none") << path;
        }
        return all;
    }
    std::string placeOf(const std::string& identifier) {
        const auto number = std::stoull(identifier.substr(4));
        store::Session session(device_.store());
        const auto row = identifier.starts_with("did=")
                             ? session.index().byDocumentID(DocumentID{static_cast<std::uint32_t>(number)})
                             : session.index().byFileID(FileID{number});
        if (!row || row->state != store::ObjectState::live) return "nowhere";
        const auto place = device_.comparer().placeOf(session, *row);
        return place ? "/" + place->relative : "nowhere";
    }

    TestDevice device_;
    std::string container_, name_;
};

INSTANTIATE_TEST_SUITE_P(Sources, VersionsTest, ::testing::Bool(),
                         [](const auto& given) { return given.param ? "Watching" : "Comparing"; });

TEST_P(VersionsTest, KeepEveryIdentifier) {
    const auto before = identifiers();
    copyVersion("1", "2");
    lead("2");
    meet();
    EXPECT_EQ(identifiers(), before);
    // It is the new version that is looked at from now on.
    disk::rename(in("2", "letter.txt"), in("2", "folder/moved.txt"));
    writeFile(in("1", "letter.txt"), "nobody looks here");
    device_.settle();
    EXPECT_EQ(placeOf(before.at("letter.txt")), "/folder/moved.txt");
    EXPECT_EQ(identifierOf("letter.txt"), "none");
}

TEST_P(VersionsTest, KeepThemOverARestartWithTimeOff) {
    const auto before = identifiers();
    copyVersion("1", "2");
    lead("2");
    device_.restart();
    meet();
    EXPECT_EQ(identifiers(), before);
    disk::remove_all(container_ + "/1");
    copyVersion("2", "3");
    disk::remove_all(container_ + "/2");
    lead("3");
    device_.restart();
    meet();
    EXPECT_EQ(identifiers(), before);
}

TEST_P(VersionsTest, KeepThemWhenTheOldOneComesBack) {
    const auto before = identifiers();
    copyVersion("1", "2");
    lead("2");
    meet();
    lead("1");
    meet();
    EXPECT_EQ(identifiers(), before);
    lead("2");
    device_.restart();
    meet();
    EXPECT_EQ(identifiers(), before);
}

TEST_P(VersionsTest, WhatChangedWithTheVersionChanged) {
    const auto before = identifiers();
    copyVersion("1", "2");
    writeFile(in("2", "folder/note.txt"), "another note, under the same name");
    disk::remove(in("2", "left.txt"));
    writeFile(in("2", "new.txt"), "new");
    disk::remove_all(in("2", "folder/inner"));
    writeFile(in("2", "folder/inner"), "a file where a folder was");
    lead("2");
    meet();
    EXPECT_EQ(placeOf(before.at("letter.txt")), "/letter.txt");
    EXPECT_EQ(placeOf(before.at("folder")), "/folder");
    EXPECT_EQ(placeOf(before.at("folder/note.txt")), "/folder/note.txt") << "a document stays with its name";
    for (const char* gone : {"left.txt", "folder/inner", "folder/inner/deep.txt"}) {
        EXPECT_EQ(placeOf(before.at(gone)), "nowhere") << gone;
    }
    for (const auto& [path, identifier] : before) EXPECT_NE(identifierOf("new.txt"), identifier) << path;
    EXPECT_NE(identifierOf("folder/inner"), before.at("folder/inner"));
}

TEST_P(VersionsTest, AnEmptyOneHasNothingOfTheOldOne) {
    const auto before = identifiers();
    disk::create_directories(container_ + "/2/Documents");
    lead("2");
    meet();
    for (const auto& [path, identifier] : before) EXPECT_EQ(placeOf(identifier), "nowhere") << path;
    EXPECT_EQ(identifierOf("letter.txt"), "none");
}

}  // namespace
}  // namespace tarnwell::files
