#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cctype>
#include <cerrno>
#include <cstdio>
#include <filesystem>
#include <functional>
#include <set>

#include "items/TWPFileObjectIdentifier.h"
#include "testing/Sanitized.h"
#include "testing/TestDevice.h"

namespace tarnwell::files {
namespace {

using testing::TestDevice;
using testing::writeFile;

std::string identifierOf(TestDevice& device, const std::string& relative) {
    return items::TWPFileObjectIdentifier(device.environment()).itemIdentifier(device.url(relative)).value_or("none");
}

std::string placeOf(TestDevice& device, const std::string& identifier) {
    auto url = items::TWPFileObjectIdentifier(device.environment()).fileURLWithItemIdentifier(identifier);
    if (!url) return "nowhere";
    std::string root = device.url().path();
    return url->path().size() > root.size() ? url->path().substr(root.size() + 1) : url->path();
}

void renameIn(TestDevice& device, const std::string& from, const std::string& to) {
    ASSERT_EQ(0, ::rename(device.path(from).c_str(), device.path(to).c_str()));
}

/// What happens to two files while the program is off, and who is who afterwards.
struct Row {
    const char* title;
    std::vector<std::string> before;
    std::function<void(TestDevice&)> happens;
    /// Where the identifier that stood at a path before stands afterwards; "nowhere" when it names nothing.
    std::vector<std::pair<std::string, std::string>> afterwards;
};

std::ostream& operator<<(std::ostream& out, const Row& row) { return out << row.title; }

const std::vector<Row> kRows = {
    {"rename", {"a.txt"}, [](TestDevice& d) { renameIn(d, "a.txt", "b.txt"); }, {{"a.txt", "b.txt"}}},
    {"move to another folder",
     {"a.txt", "sub/x.txt"},
     [](TestDevice& d) { renameIn(d, "a.txt", "sub/a.txt"); },
     {{"a.txt", "sub/a.txt"}, {"sub/x.txt", "sub/x.txt"}}},
    {"move of a parent",
     {"one/two/a.txt", "one/b.txt", "other/c.txt"},
     [](TestDevice& d) { renameIn(d, "one", "other/moved"); },
     {{"one/two/a.txt", "other/moved/two/a.txt"},
      {"one/b.txt", "other/moved/b.txt"},
      {"one/two", "other/moved/two"},
      {"one", "other/moved"}}},
    {"rename over a document by one that was known",
     {"a.txt", "b.txt"},
     [](TestDevice& d) { renameIn(d, "b.txt", "a.txt"); },
     {{"a.txt", "a.txt"}, {"b.txt", "nowhere"}}},
    {"rename over a document by one from another folder",
     {"a.txt", "sub/b.txt"},
     [](TestDevice& d) { renameIn(d, "sub/b.txt", "a.txt"); },
     {{"a.txt", "a.txt"}, {"sub/b.txt", "nowhere"}}},
    {"safe-save by a new file renamed over",
     {"a.txt", "b.txt"},
     [](TestDevice& d) {
         writeFile(d.path(".a.txt.tmp"), "second version");
         renameIn(d, ".a.txt.tmp", "a.txt");
     },
     {{"a.txt", "a.txt"}, {"b.txt", "b.txt"}}},
    {"exchange of two documents",
     {"a.txt", "b.txt"},
     [](TestDevice& d) {
         ASSERT_EQ(0, renameat2(AT_FDCWD, d.path("a.txt").c_str(), AT_FDCWD, d.path("b.txt").c_str(), RENAME_EXCHANGE));
     },
     {{"a.txt", "a.txt"}, {"b.txt", "b.txt"}}},
    {"exchange of two documents in different folders",
     {"a.txt", "sub/b.txt"},
     [](TestDevice& d) {
         ASSERT_EQ(
             0, renameat2(AT_FDCWD, d.path("a.txt").c_str(), AT_FDCWD, d.path("sub/b.txt").c_str(), RENAME_EXCHANGE));
     },
     {{"a.txt", "a.txt"}, {"sub/b.txt", "sub/b.txt"}}},
    {"exchange of two folders",
     {"one/a.txt", "two/b.txt"},
     [](TestDevice& d) {
         ASSERT_EQ(0, renameat2(AT_FDCWD, d.path("one").c_str(), AT_FDCWD, d.path("two").c_str(), RENAME_EXCHANGE));
     },
     {{"one", "two"}, {"two", "one"}, {"one/a.txt", "two/a.txt"}, {"two/b.txt", "one/b.txt"}}},
    {"moved aside for good, then made anew",
     {"a.txt"},
     [](TestDevice& d) {
         renameIn(d, "a.txt", "elsewhere.txt");
         writeFile(d.path("a.txt"), "another document");
     },
     {{"a.txt", "elsewhere.txt"}}},
    {"moved to another folder, then made anew",
     {"a.txt", "sub/x.txt"},
     [](TestDevice& d) {
         renameIn(d, "a.txt", "sub/a.txt");
         writeFile(d.path("a.txt"), "another document");
     },
     {{"a.txt", "sub/a.txt"}}},
    {"moved to a backup name, then made anew",
     {"a.txt"},
     [](TestDevice& d) {
         renameIn(d, "a.txt", "a.txt~");
         writeFile(d.path("a.txt"), "second version");
     },
     {{"a.txt", "a.txt"}}},
    {"removed, then made anew",
     {"a.txt"},
     [](TestDevice& d) {
         ASSERT_EQ(0, unlink(d.path("a.txt").c_str()));
         writeFile(d.path("a.txt"), "second version");
     },
     {{"a.txt", "a.txt"}}},
    {"removed",
     {"a.txt", "sub/b.txt"},
     [](TestDevice& d) { ASSERT_EQ(0, unlink(d.path("a.txt").c_str())); },
     {{"a.txt", "nowhere"}, {"sub/b.txt", "sub/b.txt"}}},
    {"three renamed in a circle",
     {"a.txt", "b.txt", "c.txt"},
     [](TestDevice& d) {
         renameIn(d, "a.txt", "t");
         renameIn(d, "c.txt", "a.txt");
         renameIn(d, "b.txt", "c.txt");
         renameIn(d, "t", "b.txt");
     },
     {{"a.txt", "b.txt"}, {"b.txt", "c.txt"}, {"c.txt", "a.txt"}}},
    {"hidden and shown again under another name",
     {"one/a.txt"},
     [](TestDevice& d) {
         renameIn(d, "one", ".one");
         renameIn(d, ".one", "two");
     },
     {{"one/a.txt", "two/a.txt"}, {"one", "two"}}},
    {"the first name of a file with two is removed",
     {"a.txt"},
     [](TestDevice& d) {
         ASSERT_EQ(0, link(d.path("a.txt").c_str(), d.path("second.txt").c_str()));
         ASSERT_EQ(0, unlink(d.path("a.txt").c_str()));
     },
     {{"a.txt", "second.txt"}}},
};

class IdentityAcrossTimeOff : public ::testing::TestWithParam<Row> {};

TEST_P(IdentityAcrossTimeOff, KeepsIdentifiersWithTheirObjects) {
    TestDevice device;
    for (const std::string& file : GetParam().before) {
        if (auto slash = file.rfind('/'); slash != std::string::npos) {
            testing::makeDirectories(device.path(file.substr(0, slash)));
        }
        writeFile(device.path(file), "content of " + file);
    }
    device.settle();
    std::vector<std::pair<std::string, std::string>> expected;
    for (const auto& [before, after] : GetParam().afterwards) {
        expected.emplace_back(identifierOf(device, before), after);
        ASSERT_NE("none", expected.back().first) << before;
    }

    GetParam().happens(device);
    device.restart();

    for (const auto& [identifier, after] : expected) EXPECT_EQ(after, placeOf(device, identifier)) << identifier;
    for (const auto& [identifier, after] : expected) {
        if (after != "nowhere") {
            EXPECT_EQ(identifier, identifierOf(device, after)) << after;
        }
    }
    device.settle();
    device.restart();
    for (const auto& [identifier, after] : expected) EXPECT_EQ(after, placeOf(device, identifier)) << "settled";
}

/// Ends the comparison after some folders, as a program does that is asked to end.
class GivesUp : public FolderWatch {
public:
    GivesUp(Comparer& comparer, std::size_t after) : comparer_(comparer), left_(after) {}
    bool isWatched(FileID) const override { return false; }
    void watch(int, FileID) override {
        if (--left_ == 0) comparer_.giveUp();
    }
    bool isLive() const override { return false; }
    bool isComplete() const override { return false; }
    void forget(FileID) override {}

private:
    Comparer& comparer_;
    std::size_t left_;
};

TEST_P(IdentityAcrossTimeOff, KeepsThemThroughComparisonsThatAreCutOff) {
    TestDevice device;
    for (const std::string& file : GetParam().before) {
        testing::makeDirectories(device.path(std::filesystem::path(file).parent_path()));
        writeFile(device.path(file), "content of " + file);
    }
    device.settle();
    std::vector<std::pair<std::string, std::string>> expected;
    for (const auto& [before, after] : GetParam().afterwards)
        expected.emplace_back(identifierOf(device, before), after);
    GetParam().happens(device);
    bool isWhole = false;
    for (std::size_t folders = 1; !isWhole; ++folders) {
        ASSERT_LT(folders, 20u);
        device.restart();
        GivesUp watch(device.comparer(), folders);
        device.comparer().setWatch(&watch);
        const auto compared = device.comparer().compare({}, Detail::everything);
        device.comparer().setWatch(nullptr);
        isWhole = compared.has_value();
        if (!isWhole) {
            EXPECT_TRUE(compared.error().is(ErrorDomain::posix, ECANCELED)) << describe(compared.error());
        }
    }
    device.restart();
    for (const auto& [identifier, after] : expected) EXPECT_EQ(after, placeOf(device, identifier)) << identifier;
}

TEST(Identity, ADocumentSavedTwiceWhileComparisonsAreCutOffStaysTheSame) {
    TestDevice device;
    writeFile(device.path("a.txt"), "first");
    testing::makeDirectories(device.path("folder"));
    device.settle();
    const std::string identifier = identifierOf(device, "a.txt");
    for (const char* version : {"second", "third", "fourth"}) {
        writeFile(device.path(".a.txt.tmp"), version);
        renameIn(device, ".a.txt.tmp", "a.txt");
        device.restart();
        GivesUp watch(device.comparer(), 1);
        device.comparer().setWatch(&watch);
        EXPECT_FALSE(device.comparer().compare({}, Detail::everything));
        device.comparer().setWatch(nullptr);
    }
    device.restart();
    device.settle();
    EXPECT_EQ(identifierOf(device, "a.txt"), identifier);
    EXPECT_EQ(placeOf(device, identifier), "a.txt");
}

INSTANTIATE_TEST_SUITE_P(Rows, IdentityAcrossTimeOff, ::testing::ValuesIn(kRows), [](const auto& row) {
    std::string name;
    for (const char* c = row.param.title; *c != '\0'; ++c)
        name += std::isalnum(static_cast<unsigned char>(*c)) ? *c : '_';
    return name;
});

/// Whether somebody looks at a copy before it is told to be the object that it was copied from.
class CarriedOver : public ::testing::TestWithParam<bool> {};

TEST_P(CarriedOver, ACopyThatTakesThePlaceOfItsSourceKeepsItsIdentifiers) {
    TestDevice device;
    testing::makeDirectories(device.path("from/folder"));
    writeFile(device.path("from/folder/a.txt"), "text");
    testing::makeDirectories(device.path("to"));
    device.settle();
    const std::string folder = identifierOf(device, "from/folder"), file = identifierOf(device, "from/folder/a.txt");
    std::filesystem::copy(device.path("from/folder"), device.path("to/folder"),
                          std::filesystem::copy_options::recursive);
    std::string met;
    if (GetParam()) {
        device.settle();
        met = identifierOf(device, "to/folder/a.txt");
        EXPECT_NE(met, file);
    }
    for (const char* path : {"folder", "folder/a.txt"}) {
        const Descriptor source(::open(device.path(std::string("from/") + path).c_str(), O_PATH | O_CLOEXEC));
        const Descriptor copy(::open(device.path(std::string("to/") + path).c_str(), O_PATH | O_CLOEXEC));
        ASSERT_TRUE(device.comparer().carryOver(*filesystem::statusOf(source.get()), copy.get()));
    }
    std::filesystem::remove_all(device.path("from/folder"));
    EXPECT_EQ(placeOf(device, file), "to/folder/a.txt");
    EXPECT_EQ(placeOf(device, folder), "to/folder");
    device.restart();
    device.settle();
    EXPECT_EQ(identifierOf(device, "to/folder/a.txt"), file);
    EXPECT_EQ(identifierOf(device, "to/folder"), folder);
    if (GetParam()) {
        EXPECT_EQ(placeOf(device, met), "nowhere");
    }
}

INSTANTIATE_TEST_SUITE_P(Met, CarriedOver, ::testing::Bool());

TEST(Identity, ACopyGetsAnIdentifierOfItsOwn) {
    TestDevice device;
    writeFile(device.path("a.txt"), "text");
    std::string original = identifierOf(device, "a.txt");
    writeFile(device.path("copy.txt"), "text");
    device.restart();
    EXPECT_EQ(original, identifierOf(device, "a.txt"));
    EXPECT_NE(original, identifierOf(device, "copy.txt"));
}

TEST(Identity, AFileWithTwoNamesIsOneDocumentAtItsOldestName) {
    TestDevice device;
    writeFile(device.path("first.txt"), "text");
    std::string identifier = identifierOf(device, "first.txt");
    ASSERT_EQ(0, link(device.path("first.txt").c_str(), device.path("second.txt").c_str()));
    device.restart();
    EXPECT_EQ(identifier, identifierOf(device, "second.txt"));
    EXPECT_EQ("first.txt", placeOf(device, identifier));
}

/// Everything below the storage root that listings show.
std::set<std::string> listed(TestDevice& device) {
    std::set<std::string> paths;
    auto walker = device.files().walk(device.url(), kSkipHiddenFiles | kSkipPackageDescendants, {});
    if (!walker) {
        ADD_FAILURE() << describe(walker.error());
        return paths;
    }
    while (auto url = (*walker)->next()) paths.insert(url->path().substr(device.url().path().size() + 1));
    return paths;
}

TEST(Identity, AFileHiddenWithItsFolderIsTheOneUnderItsOtherName) {
    TestDevice device;
    testing::makeDirectories(device.path("folder"));
    writeFile(device.path("folder/file.txt"), "");
    device.settle();
    const auto documentAt = [&](const char* relative) {
        return device.generationStore().permanentStorage(URL::file(device.url(relative).path())).value().value();
    };
    const auto document = documentAt("folder/file.txt");
    ASSERT_EQ(0, link(device.path("folder/file.txt").c_str(), device.path("other.txt").c_str()));
    device.settle();
    // The folder becomes hidden, and the name in it goes: nothing but the other name is left.
    ASSERT_EQ(0, rename(device.path("folder").c_str(), device.path(".folder").c_str()));
    ASSERT_EQ(0, unlink(device.path(".folder/file.txt").c_str()));
    device.settle();
    EXPECT_EQ(listed(device), (std::set<std::string>{"other.txt"}));
    EXPECT_EQ(documentAt("other.txt"), document);
}

TEST(Identity, AFileComesInAgainWithItsFolderThatWasHidden) {
    TestDevice device;
    testing::makeDirectories(device.path("above/folder"));
    testing::makeDirectories(device.path(".elsewhere"));
    writeFile(device.path("above/folder/file.txt"), "");
    device.settle();
    ASSERT_EQ(0, link(device.path("above/folder/file.txt").c_str(), device.path(".elsewhere/other").c_str()));
    device.settle();
    // What was above it becomes hidden and leaves with all that was known in it; the folder stands elsewhere by now.
    ASSERT_EQ(0, rename(device.path("above/folder").c_str(), device.path("folder").c_str()));
    ASSERT_EQ(0, rename(device.path("above").c_str(), device.path(".above").c_str()));
    device.settle();
    EXPECT_EQ(listed(device), (std::set<std::string>{"folder", "folder/file.txt"}));
}

TEST(Identity, WhatIsMovedIntoARootThatWasMadeAnewKeepsItsIdentity) {
    TestDevice device;
    testing::makeDirectories(device.path("folder/sub"));
    writeFile(device.path("folder/sub/inner.txt"), "");
    writeFile(device.path("a.txt"), "");
    writeFile(device.path("stays behind.txt"), "");
    device.settle();
    const auto numbers = [&](const std::string& relative) {
        return std::pair(device.files().resourceValue(device.url(relative), ResourceKey::fileID).value(),
                         device.files().resourceValue(device.url(relative), ResourceKey::documentID).value());
    };
    const auto folder = numbers("folder"), inner = numbers("folder/sub/inner.txt"), file = numbers("a.txt");
    const auto gone = std::get<std::uint64_t>(numbers("stays behind.txt").second);
    const std::string root = device.path(), aside = root + ".aside";
    ASSERT_EQ(0, rename(root.c_str(), aside.c_str()));
    ASSERT_EQ(0, mkdir(root.c_str(), 0755));
    for (const char* name : {"/folder", "/a.txt"}) ASSERT_EQ(0, rename((aside + name).c_str(), (root + name).c_str()));
    device.restart();

    EXPECT_EQ(listed(device), (std::set<std::string>{"a.txt", "folder", "folder/sub", "folder/sub/inner.txt"}));
    EXPECT_EQ(numbers("folder"), folder);
    EXPECT_EQ(numbers("folder/sub/inner.txt"), inner);
    EXPECT_EQ(numbers("a.txt"), file);
    // What stays in the former root is unavailable, neither shown nor told as gone, until that one is back.
    const DocumentID behind{static_cast<std::uint32_t>(gone)};
    EXPECT_FALSE(device.generationStore().fileIDForDocumentID(behind, device.device()).has_value());
    for (const char* name : {"/folder", "/a.txt"}) ASSERT_EQ(0, rename((root + name).c_str(), (aside + name).c_str()));
    ASSERT_EQ(0, rmdir(root.c_str()));
    ASSERT_EQ(0, rename(aside.c_str(), root.c_str()));
    device.restart();
    device.settle();
    EXPECT_EQ(std::get<std::uint64_t>(numbers("stays behind.txt").second), gone);
    EXPECT_EQ(numbers("folder/sub/inner.txt"), inner);
    EXPECT_EQ(numbers("a.txt"), file);
}

TEST(Identity, NoIdentifierComesBackForAnotherObjectWhereInodeNumbersAreReused) {
    TestDevice device;
    writeFile(device.path("folder-probe"), "");
    std::set<std::string> files, folders;
    std::set<std::uint64_t> inodes;
    constexpr int kRounds = testing::kIsSanitized ? 1'000 : 10'000;
    for (int i = 0; i < kRounds; ++i) {
        std::string name = "round" + std::to_string(i % 7);
        bool folder = i % 2 == 0;
        if (folder) {
            ASSERT_EQ(0, mkdir(device.path(name).c_str(), 0755));
        } else {
            writeFile(device.path(name), "x");
        }
        struct stat status{};
        ASSERT_EQ(0, ::stat(device.path(name).c_str(), &status));
        inodes.insert(status.st_ino);
        std::string identifier = identifierOf(device, name);
        ASSERT_TRUE((folder ? folders : files).insert(identifier).second) << identifier << " in round " << i;
        if (folder) {
            ASSERT_EQ(0, rmdir(device.path(name).c_str()));
        } else {
            ASSERT_EQ(0, unlink(device.path(name).c_str()));
            // A new file under the name of a document that went is that document: let its end be seen first.
            device.settle();
        }
    }
    RecordProperty("distinctInodes", static_cast<int>(inodes.size()));
    EXPECT_EQ(static_cast<std::size_t>(kRounds) / 2, folders.size());
    EXPECT_EQ(static_cast<std::size_t>(kRounds) / 2, files.size());
}

/// Something happens when a comparison comes to the folder.
class HappensAt : public FolderWatch {
public:
    HappensAt(FileID folder, std::function<void()> happens) : folder_(folder), happens_(std::move(happens)) {}
    bool isWatched(FileID) const override { return false; }
    void watch(int, FileID folder) override {
        if (folder == folder_) happens_();
    }
    bool isLive() const override { return false; }
    bool isComplete() const override { return false; }
    void forget(FileID) override {}

private:
    FileID folder_;
    std::function<void()> happens_;
};

TEST(IdentityWhileItMoves, ALookKnowsTheFolderThatItFoundTheObjectIn) {
    TestDevice device;
    testing::makeDirectories(device.path("folder"));
    writeFile(device.path("folder/file"), "x");
    const std::string folder = identifierOf(device, "folder"), file = identifierOf(device, "folder/file");
    const URL looked = device.url("folder/file");
    ASSERT_TRUE(device.files().resourceValue(looked, ResourceKey::typeIdentifier));
    // Another folder and another file have the names by the next look.
    renameIn(device, "folder", "moved");
    testing::makeDirectories(device.path("folder"));
    writeFile(device.path("folder/file"), "y");
    const items::TWPFileObjectIdentifier identifiers(device.environment());
    EXPECT_EQ(identifiers.itemIdentifier(looked), file);
    EXPECT_EQ(identifiers.itemIdentifier(looked.deletingLastPathComponent()), folder);
    EXPECT_NE(identifierOf(device, "folder"), folder);
}

/// A new version takes a document over, and goes on to that place before the comparison comes there: the document is
/// gone from where clients knew it, once, and its ID is nobody's.
void expectGoneWhenItsSuccessorGoesOnTo(const std::string& place) {
    TestDevice device;
    writeFile(device.path("a.txt"), "first version");
    testing::makeDirectories(device.path("later"));
    const EventID since = device.settle();
    const std::string document = identifierOf(device, "a.txt");
    const auto folder = device.comparer().rowAt(*device.roots().locate(device.url("later").path()));
    ASSERT_TRUE(folder);
    writeFile(device.path(".new"), "second version");
    renameIn(device, ".new", "a.txt");
    HappensAt watch(folder->fileID, [&] { renameIn(device, "a.txt", place); });
    device.comparer().setWatch(&watch);
    ASSERT_TRUE(device.comparer().compare({}, Detail::everything));
    device.comparer().setWatch(nullptr);
    EXPECT_EQ(placeOf(device, document), "nowhere");
    store::Session session(device.store());
    std::vector<std::string> departed;
    for (const auto& record : session.journal().recordsAfter(raw(since), 100, true)) {
        if (!record.departure->documentID) continue;
        EXPECT_EQ(record.departure->folder, folder->parent);
        departed.push_back(items::TWPFileObjectIdentifier::fromDocumentID(raw(*record.departure->documentID)));
    }
    EXPECT_EQ(departed, std::vector<std::string>{document});
}

TEST(IdentityWhileItMoves, ADocumentWhoseSuccessorIsHiddenByTheEndOfTheComparisonIsGone) {
    expectGoneWhenItsSuccessorGoesOnTo("later/.a.txt");
}

TEST(IdentityWhileItMoves, ADocumentWhoseSuccessorWentOnDuringTheComparisonIsGone) {
    expectGoneWhenItsSuccessorGoesOnTo("later/b.txt");
}

}  // namespace
}  // namespace tarnwell::files
