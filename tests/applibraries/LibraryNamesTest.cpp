#include "applibraries/LibraryNames.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include "platform/filesystem/PlainFile.h"
#include "testing/CapturingLog.h"
#include "testing/TemporaryDirectory.h"

namespace tarnwell::applibraries {
namespace {

class LibraryNamesTest : public ::testing::Test {
protected:
    LibraryNames names() { return {programLog_, URL::file(path())}; }
    std::string path() const { return directory_.path("data/app-library-names.plist"); }
    Bytes bytes() const { return filesystem::readFile(path(), 1 << 20).value_or(Bytes{}); }
    void write(const Bytes& content) const {
        ASSERT_TRUE(filesystem::writeFileAtomically(path(), content, filesystem::Durability::none));
    }

    testing::TemporaryDirectory directory_;
    testing::CapturingLog log_;
    std::shared_ptr<dispatch::ThreadPool> pool_ = dispatch::ThreadPool::create();
    items::ProgramLog programLog_{log_, pool_};
};

TEST_F(LibraryNamesTest, AreOthersOnceTheyWereNotedAndChanged) {
    EXPECT_FALSE(names().areOthers("de:", {{"#a", "Notizen"}}));
    names().note("de:", {{"#a", "Notizen"}, {"#b", "Karten"}});
    EXPECT_FALSE(names().areOthers("de:", {{"#a", "Notizen"}, {"#b", "Karten"}}));
    EXPECT_TRUE(names().areOthers("de:", {{"#a", "Notizbuch"}, {"#b", "Karten"}}));
    EXPECT_FALSE(names().areOthers("de:", {{"#a", "Notizen"}})) << "one less is told otherwise";
    EXPECT_FALSE(names().areOthers("de:", {{"#a", "Notizen"}, {"#c", "Neu"}})) << "so is one more";
    EXPECT_FALSE(names().areOthers("fr:", {{"#a", "Cahier"}}));
}

TEST_F(LibraryNamesTest, ComeBackAsTheyWereWhateverTheyHold) {
    const LibraryNames::Names odd{{"#a", "caf\xe9"}, {"#b", ""}, {"#c", std::string("a\0b", 3)}, {"#d", "名"}};
    names().note("", odd);
    EXPECT_FALSE(names().areOthers("", odd));
    EXPECT_TRUE(names().areOthers("", {{"#a", "caf\xef\xbf\xbd"}}));
}

TEST_F(LibraryNamesTest, TheSameAreNotWrittenAgain) {
    auto noted = names();
    noted.note("de:", {{"#a", "Notizen"}});
    struct stat before{}, after{};
    ASSERT_EQ(::stat(path().c_str(), &before), 0);
    noted.note("de:", {{"#a", "Notizen"}});
    names().note("de:", {{"#a", "Notizen"}});
    ASSERT_EQ(::stat(path().c_str(), &after), 0);
    EXPECT_EQ(before.st_ino, after.st_ino);
    // Nor where two languages take turns.
    noted.note("fr:", {{"#a", "Cahier"}});
    ASSERT_EQ(::stat(path().c_str(), &before), 0);
    for (int turn = 0; turn < 3; ++turn) {
        names().note("de:", {{"#a", "Notizen"}});
        names().note("fr:", {{"#a", "Cahier"}});
    }
    ASSERT_EQ(::stat(path().c_str(), &after), 0);
    EXPECT_EQ(before.st_ino, after.st_ino);
}

TEST_F(LibraryNamesTest, OfTheLanguagesThatWereNotedLongestAgoAreForgotten) {
    for (std::size_t i = 0; i <= LibraryNames::kMostLanguages; ++i) {
        names().note(std::to_string(i), {{"#a", "name"}});
    }
    EXPECT_FALSE(names().areOthers("0", {{"#a", "another"}}));
    for (std::size_t i = 1; i <= LibraryNames::kMostLanguages; ++i) {
        EXPECT_TRUE(names().areOthers(std::to_string(i), {{"#a", "another"}})) << i;
    }
}

TEST_F(LibraryNamesTest, AFileThatIsCutOrChangedIsAsIfItSaidSomethingElseOrNothing) {
    names().note("de:", {{"#a", "Notizen"}, {"#b", "Karten"}});
    const Bytes whole = bytes();
    ASSERT_FALSE(whole.empty());
    for (std::size_t length = 0; length < whole.size(); ++length) {
        write(Bytes(whole.begin(), whole.begin() + static_cast<std::ptrdiff_t>(length)));
        EXPECT_FALSE(names().areOthers("de:", {{"#a", "other"}})) << "cut at " << length;
    }
    for (std::size_t at = 0; at < whole.size(); ++at) {
        Bytes changed = whole;
        changed[at] ^= 0x55;
        write(changed);
        (void)names().areOthers("de:", {{"#a", "Notizen"}, {"#b", "Karten"}});
        auto again = names();
        again.note("de:", {{"#a", "Notizen"}});
        EXPECT_FALSE(names().areOthers("de:", {{"#a", "Notizen"}})) << "changed at " << at;
    }
}

TEST_F(LibraryNamesTest, WhatCannotBeWrittenIsSaidAndNotTakenForWritten) {
    ASSERT_TRUE(filesystem::createDirectories(path()));  // a folder stands where the file should
    auto noted = names();
    noted.note("de:", {{"#a", "Notizen"}});
    EXPECT_FALSE(noted.areOthers("de:", {{"#a", "other"}}));
    const auto lines = log_.texts();
    ASSERT_FALSE(lines.empty());
    EXPECT_NE(lines.back().find("can't save the names of app libraries; "), std::string::npos) << lines.back();
}

}  // namespace
}  // namespace tarnwell::applibraries
