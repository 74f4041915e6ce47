#include <fcntl.h>
#include <tarnwell/client.h>

#include <algorithm>
#include <atomic>

#include "tests/service/ServedDevice.h"
#include "tour/ChildProcess.h"

/// The library for other programs, and the examples, as they are used.
namespace tarnwell::service {
namespace {

using client::Client;
using Kind = client::Error::Kind;

class ClientLibraryTest : public ServedDevice {
protected:
    void SetUp() override {
        ServedDevice::SetUp();
        host_ = std::make_unique<Client>(bus_.address());
    }
    void TearDown() override {
        host_.reset();
        ServedDevice::TearDown();
    }

    template <typename Work>
    static std::optional<Kind> failureOf(Work work) {
        try {
            work();
        } catch (const client::Error& error) {
            return error.kind();
        }
        return std::nullopt;
    }

    std::unique_ptr<Client> host_;
};

TEST_F(ClientLibraryTest, AnItemIsWhatIsOnTheDisk) {
    testing::writeFile(note("caf\xe9.txt"), "seven!!");
    const client::Item item = host_->itemAtPath(note("caf\xe9.txt"));
    EXPECT_EQ(item.filename, "caf\xe9.txt");
    EXPECT_EQ(item.path, note("caf\xe9.txt"));
    EXPECT_EQ(item.size, 7U);
    EXPECT_EQ(item.parent, "#org.example.Notes");
    EXPECT_EQ(item.application, "org.example.Notes");
    EXPECT_FALSE(item.isFolder);
    EXPECT_TRUE(item.created && item.modified && item.documentID && item.fileID);
    EXPECT_EQ(host_->item(item.identifier).path, item.path);
    EXPECT_TRUE(host_->item("#org.example.Notes").isLibrary);
}

TEST_F(ClientLibraryTest, ErrorsAreToldApartWithoutReadingThem) {
    EXPECT_EQ(failureOf([&] { host_->item("did=4242424"); }), Kind::noSuchItem);
    EXPECT_EQ(failureOf([&] { host_->itemAtPath("/nothing"); }), Kind::noSuchItem);
    EXPECT_EQ(failureOf([&] { host_->changes("RootContainer", {1, 2, 3}); }), Kind::anchorExpired);
    host_->createFolder("Twice", "#org.example.Notes");
    EXPECT_EQ(failureOf([&] { host_->createFolder("Twice", "#org.example.Notes"); }), Kind::nameTaken);
    EXPECT_EQ(failureOf([&] { host_->rename("#org.example.Notes", "x"); }), Kind::denied);
    try {
        host_->createFolder("Twice", "#org.example.Notes");
        FAIL();
    } catch (const client::Error& error) {
        EXPECT_EQ(error.name(), "org.tarnwell.Error.FilenameCollision");
        EXPECT_NE(std::string(error.what()).find("already in"), std::string::npos) << error.what();
    }
    client_.reset();
    service_.reset();
    EXPECT_EQ(failureOf([&] { host_->item("RootContainer"); }), Kind::unavailable);
}

TEST_F(ClientLibraryTest, PagesAndAllOfThem) {
    const client::Item many = host_->itemAtPath(document("Many"));
    client::Page page = host_->list(many.identifier);
    EXPECT_FALSE(page.next.empty());
    std::size_t count = page.items.size();
    while (!page.next.empty()) {
        page = host_->list(many.identifier, page.next);
        count += page.items.size();
    }
    EXPECT_EQ(count, tour::kManyEntries);
    EXPECT_EQ(host_->listAll(many.identifier).size(), tour::kManyEntries);
}

TEST_F(ClientLibraryTest, ItemsAreChanged) {
    const client::Item folder = host_->createFolder("Desk", "#org.example.Notes");
    testing::writeFile(directory_.path("in.txt"), "in");
    int told = 0;
    const auto imported = host_->import({directory_.path("in.txt"), directory_.path("none")}, folder.identifier,
                                        [&](const client::Progress&) { return ++told > 0; });
    ASSERT_EQ(imported.size(), 2U);
    ASSERT_TRUE(imported[0].item);
    EXPECT_EQ(imported[1].error->kind(), Kind::noSuchItem);
    const std::string id = imported[0].item->identifier;
    EXPECT_EQ(host_->rename(id, "zebra.txt").filename, "zebra.txt");
    EXPECT_EQ(host_->setTags(id, {"a", "b"}).tags, (std::vector<std::string>{"a", "b"}));
    EXPECT_EQ(host_->setFavoriteRank(id, 4).favoriteRank, 4U);
    const client::Time date(std::chrono::nanoseconds(1'700'000'000'000'000'000));
    EXPECT_EQ(host_->setLastUsed(id, date).lastUsed, date);
    EXPECT_EQ(host_->move({id}, "#org.example.Sketches").at(0).item->parent, "#org.example.Sketches");
    EXPECT_TRUE(host_->trash({id}).at(0).item->isTrashed);
    EXPECT_FALSE(host_->restore({id}).at(0).item->isTrashed);
    const auto found = host_->search("zebra");
    ASSERT_EQ(found.size(), 1U);
    EXPECT_EQ(found[0].identifier, id);
    EXPECT_FALSE(host_->remove({id, folder.identifier}).at(0).error);
    EXPECT_EQ(failureOf([&] { host_->item(id); }), Kind::noSuchItem);
}

TEST_F(ClientLibraryTest, FilesAreOpenedAndIconsDrawn) {
    const client::Item letter = host_->itemAtPath(document("Letter.txt"));
    const client::File file = host_->open(letter.identifier);
    std::string text(64, '\0');
    const auto got = ::pread(file.descriptor(), text.data(), text.size(), 0);
    ASSERT_GT(got, 0);
    text.resize(static_cast<std::size_t>(got));
    EXPECT_EQ(text, testing::readFile(document("Letter.txt")));
    EXPECT_NE(::pwrite(file.descriptor(), "x", 1, 0), 1);
    client::File writable = host_->open(letter.identifier, true);
    EXPECT_EQ(::pwrite(writable.descriptor(), "X", 1, 0), 1);
    EXPECT_EQ(testing::readFile(document("Letter.txt"))[0], 'X');
    const auto icon = host_->icon("#org.example.Notes", 32);
    ASSERT_GT(icon.size(), 8U);
    EXPECT_EQ(std::string(icon.begin() + 1, icon.begin() + 4), "PNG");
    EXPECT_FALSE(host_->libraries().empty());
}

TEST_F(ClientLibraryTest, AWatchTellsToLook) {
    std::atomic<bool> isTold = false;
    std::optional<client::Watch> watch = host_->watch(client::kWorkingSet, [&] { isTold = true; });
    client::Bytes anchor = host_->anchor(client::kWorkingSet);
    // Once at the beginning, whereupon everybody asks.
    EXPECT_TRUE(soon([&] { return isTold.load(); }));
    while (isTold.exchange(false)) {
        anchor = host_->changes(client::kWorkingSet, anchor).anchor;
        ::usleep(300'000);
    }
    testing::writeFile(note("new.txt"), "");
    EXPECT_TRUE(soon([&] { return isTold.load(); }));
    const client::Changes news = host_->changes(client::kWorkingSet, anchor);
    EXPECT_TRUE(std::ranges::any_of(
        news.changes, [](const client::Change& change) { return change.item && change.item->filename == "new.txt"; }));
}

/// Runs an example, and changes what it mirrors.
void expectMirror(const std::vector<std::string>& command, const std::string& bus, const std::string& folder) {
    auto program = tour::FollowedProgram::start(command, {{"DBUS_SESSION_BUS_ADDRESS", bus}});
    ASSERT_TRUE(program) << describe(program.error());
    const auto sees = [&](const std::string& text) {
        // Whatever else it says before.
        for (int i = 0; i < 200; ++i) {
            const auto line = program->line(std::chrono::seconds(10));
            if (!line) return false;
            if (line->find(text) != std::string::npos) return true;
        }
        return false;
    };
    EXPECT_TRUE(sees("ideas.txt"));
    testing::writeFile(folder + "/mirrored.txt", "");
    EXPECT_TRUE(sees("mirrored.txt"));
    // And again: it is told more than once.
    testing::writeFile(folder + "/once more.txt", "");
    EXPECT_TRUE(sees("once more.txt"));
}

TEST_F(ClientLibraryTest, TheExampleInCppMirrorsALibrary) {
    testing::writeFile(note("ideas.txt"), "");
    expectMirror({TARNWELL_EXAMPLE, "#org.example.Notes"}, bus_.address(), note(""));
}

TEST_F(ClientLibraryTest, TheExampleInPythonMirrorsALibrary) {
    testing::writeFile(note("ideas.txt"), "");
    if (::system("/usr/bin/python3 -c 'import gi' 2>/dev/null") != 0) GTEST_SKIP() << "python3-gi is not installed";
    expectMirror({"/usr/bin/python3", TARNWELL_SOURCE_DIR "/examples/mirror.py", "#org.example.Notes"}, bus_.address(),
                 note(""));
}

}  // namespace
}  // namespace tarnwell::service
