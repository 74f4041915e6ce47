#include <cerrno>
#include <thread>

#include "ItemsFixture.h"

namespace tarnwell::items {
namespace {

using archive::Integer;
using log::Level;
using Line = testing::CapturingLog::Line;

class PutBackTest : public ItemsTest {
protected:
    Library notes = addLibrary("notes", "org.example.notes", "Notes");

    /// A trashed file of the library that remembers this place.
    std::shared_ptr<LocalItem> trashed(const std::string& stored) {
        testing::makeDirectories(notes.path + "/.Trash");
        testing::writeFile(notes.path + "/.Trash/a.txt", "");
        setArchivedAttribute(notes.path + "/.Trash/a.txt", LocalItem::xattrTrashPutBackName, {stored});
        return item(notes.root.appending(".Trash").appending("a.txt"));
    }
    /// The log lines without what differs from object to object: the address in a description.
    std::vector<Line> linesWithoutAddresses() {
        auto lines = loggedLines();
        for (Line& line : lines)
            for (auto at = line.text.find(":0x"); at != std::string::npos; at = line.text.find(":0x", at + 1))
                line.text.erase(at + 1, line.text.find(' ', at) - at - 1);
        return lines;
    }
    static Line found(const std::string& stored) {
        return {Level::debug, "[DEBUG] putback: '" + stored +
                                  "' library: '<LocalAppLibraryItem: #org.example.notes name:\"Notes\" parent:root "
                                  "type:inode/directory>'"};
    }
    static Line notFound(const LocalItem& made) {
        return {Level::error, "[ERROR] couldn't find putback xattr for " + made.description()};
    }
    const Line notComputed{Level::error, "[ERROR] couldn't compute putback url"};
};

TEST_F(PutBackTest, IsTheFolderThatHeldTheItem) {
    const struct {
        std::string stored;
        std::string folder;
    } rows[] = {
        {"a.txt", ""},
        {"Folder/a.txt", "/Folder"},
        {"Folder/Sub/a b%20.txt", "/Folder/Sub"},
        {"..Folder/a..txt", "/..Folder"},
        {"Folder/.../a.txt", "/Folder/..."},
        {"F\xC3\xB6lder/a\n.txt", "/F\xC3\xB6lder"},
        {std::string(200, 'd') + "/" + std::string(200, 'f'), "/" + std::string(200, 'd')},
    };
    for (const auto& row : rows) {
        auto made = trashed(row.stored);
        ASSERT_TRUE(made);
        EXPECT_EQ(logged(), Texts{});
        EXPECT_EQ(made->putBackURL(), URL::file(notes.root.path() + row.folder)) << row.stored;
        EXPECT_EQ(linesWithoutAddresses(), std::vector<Line>{found(row.stored)});
    }
}

TEST_F(PutBackTest, NeverLeadsOutOfTheLibrary) {
    for (const std::string& stored :
         {std::string(), std::string("."), std::string("./"), std::string("/"), std::string("//a/b"),
          std::string("/etc/passwd"), notes.root.path() + "/a.txt", std::string(".."), std::string("../x"),
          std::string("../../x"), std::string("Folder/../../x"), std::string("Folder/.."), std::string("Folder/../x"),
          std::string("a\0/../b", 7), std::string("Folder/a\0", 9), std::string(2900, '/'),
          "../Documents/" + std::string(1000, 'x')}) {
        auto made = trashed(stored);
        ASSERT_TRUE(made);
        logged();
        EXPECT_FALSE(made->putBackURL()) << stored;
        EXPECT_EQ(linesWithoutAddresses(), (std::vector<Line>{found(stored), notComputed})) << stored;
    }
}

TEST_F(PutBackTest, IsAbsentWithoutAnAttributeThatDecodes) {
    auto made = trashed("a.txt");
    const URL url = made->fileURL();
    const std::string path = notes.path + "/.Trash/a.txt";

    setArchivedAttribute(path, LocalItem::xattrTrashPutBackName, {Integer::fromUnsigned(4)});
    const Bytes number = archive::archiveRoot({Integer::fromUnsigned(4)});
    EXPECT_FALSE(made->putBackURL());
    EXPECT_EQ(loggedLines(),
              (std::vector<Line>{
                  {Level::error, "[ERROR] got " + describe(archive::unarchiveString(number).error()) +
                                     " while unarchiving object from " + std::to_string(number.size()) + " bytes"},
                  notFound(*made)}));

    testing::writeFile(notes.path + "/b.txt", "");
    auto other = item(notes.root.appending("b.txt"));
    EXPECT_FALSE(other->putBackURL());
    EXPECT_EQ(loggedLines(), std::vector<Line>{notFound(*other)});

    made = item(url);
    files.fail(Operation::getAttribute, EIO);
    EXPECT_FALSE(made->putBackURL());
    EXPECT_EQ(loggedLines(), (std::vector<Line>{{Level::error,
                                                 "[ERROR] can't get xattr com.vellum.trash.putback#PS; "
                                                 "POSIX EIO (Input/output error)"},
                                                notFound(*made)}));
}

TEST_F(PutBackTest, IsAbsentWhereNoLibraryHoldsTheItem) {
    testing::makeDirectories(device.path(".Trash"));
    testing::writeFile(device.path(".Trash/a.txt"), "");
    setArchivedAttribute(device.path(".Trash/a.txt"), LocalItem::xattrTrashPutBackName, {std::string("a.txt")});
    auto stored = item(device.url(".Trash/a.txt"));
    EXPECT_FALSE(stored->putBackURL());
    EXPECT_EQ(loggedLines(), std::vector<Line>{notComputed});

    setArchivedAttribute(notes.path, LocalItem::xattrTrashPutBackName, {std::string("a.txt")});
    auto library = LocalAppLibraryItem::initFrom(environment, *notes.record);
    ASSERT_TRUE(library);
    EXPECT_FALSE(library->putBackURL());
    EXPECT_EQ(loggedLines(), std::vector<Line>{notComputed});

    auto made = trashed("a.txt");
    environment.appLibraries = nullptr;
    EXPECT_FALSE(made->putBackURL());
    EXPECT_EQ(loggedLines(), std::vector<Line>{notComputed});
}

TEST_F(PutBackTest, IsAbsentWhereTheLibraryCannotBeMade) {
    auto made = trashed("a.txt");
    auto gone = installApplication(std::nullopt, "org.example.gone", std::nullopt);
    ListedAppLibraries broken;
    broken.add(notes.root, gone);
    environment.appLibraries = &broken;
    EXPECT_FALSE(made->putBackURL());
    EXPECT_EQ(
        loggedLines(),
        (std::vector<Line>{{Level::error, "[ERROR] can't create an app library item without a data container URL"},
                           notComputed}));
}

TEST_F(PutBackTest, IsComputedOnceAlsoWhenItIsAbsent) {
    auto made = trashed("Folder/a.txt");
    auto none = trashed("../a.txt");
    files.clear();
    EXPECT_FALSE(none->putBackURL());
    EXPECT_GT(files.calls(), 0u);
    files.clear();
    logged();
    EXPECT_FALSE(none->putBackURL());
    EXPECT_EQ(files.calls(), 0u);
    EXPECT_EQ(logged(), Texts{});

    auto there = trashed("Folder/a.txt");
    EXPECT_EQ(there->putBackURL(), notes.root.appending("Folder"));
    setArchivedAttribute(notes.path + "/.Trash/a.txt", LocalItem::xattrTrashPutBackName, {std::string("Other/a.txt")});
    EXPECT_EQ(there->putBackURL(), notes.root.appending("Folder"));
    EXPECT_EQ(made->putBackURL(), notes.root.appending("Other")) << "the first read, not the making, is what counts";
}

TEST_F(PutBackTest, IsReplacedByItsSetter) {
    auto made = trashed("Folder/a.txt");
    files.clear();
    made->setPutBackURL(device.url("Set"));
    EXPECT_EQ(made->putBackURL(), device.url("Set"));
    made->setPutBackURL(std::nullopt);
    EXPECT_EQ(made->putBackURL(), std::nullopt);
    EXPECT_EQ(files.calls(), 0u);
    auto other = trashed("Folder/a.txt");
    EXPECT_EQ(other->putBackURL(), notes.root.appending("Folder"));
    other->setPutBackURL(device.url("Set"));
    EXPECT_EQ(other->putBackURL(), device.url("Set"));
}

TEST_F(PutBackTest, IsTheSameForReadersOfManyThreads) {
    auto made = trashed("Folder/a.txt");
    std::vector<std::optional<URL>> seen(8);
    {
        std::vector<std::jthread> threads;
        for (auto& url : seen) threads.emplace_back([&] { url = made->putBackURL(); });
    }
    for (const auto& url : seen) EXPECT_EQ(url, notes.root.appending("Folder"));
}

TEST_F(PutBackTest, AnItemOfALibraryFetchesTheLibrary) {
    testing::makeDirectories(notes.path + "/Folder/Sub");
    auto library = item(notes.root.appending("Folder").appending("Sub"))->fetchAppLibraryItem();
    ASSERT_TRUE(library);
    EXPECT_EQ(library->itemIdentifier(), "#org.example.notes");
    EXPECT_EQ(library->fileURL(), notes.root);
    EXPECT_EQ(library->fetchAppLibraryItem(), nullptr);
    EXPECT_EQ(item(device.url())->fetchAppLibraryItem(), nullptr);
    environment.appLibraries = nullptr;
    EXPECT_EQ(item(device.url())->fetchAppLibraryItem(), nullptr);
    EXPECT_EQ(logged(), Texts{});
}

}  // namespace
}  // namespace tarnwell::items
