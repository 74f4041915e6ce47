#include "platform/filesystem/Roots.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <thread>

#include "tests/filesystem/Sandbox.h"

namespace tarnwell {
namespace {

using filesystem::inChild;
using filesystem::Sandbox;

std::string escaped(const std::string& path) {
    std::string result;
    for (const char c : path) result += c == '/' ? "%2F" : c == '%' ? "%25" : std::string(1, c);
    return result;
}

bool isFolder(int descriptor, const std::string& path) {
    struct stat a{}, b{};
    return ::fstat(descriptor, &a) == 0 && ::stat(path.c_str(), &b) == 0 && a.st_ino == b.st_ino &&
           a.st_dev == b.st_dev;
}

/// The place as "name|relative", or "nothing".
std::string placeText(const Roots& roots, std::string_view path) {
    const auto place = roots.locate(path);
    return place ? place->root->name + "|" + place->relative : "nothing";
}

TEST(Roots, NamesTheStorageRootByItsRealPathOrMakesANameUp) {
    struct Row {
        std::string folder;
        bool ownName;
    };
    const Row rows[] = {
        {"home/Documents", true},
        {"home/Dokumente", false},
        {"Documents/home/Documents", false},
        {"home/Documents/Documents", false},
        {"home/Documents/sub", false},
        {"home/100%/a%2Fb", false},
        {"home/Documents2", false},
        {"DocumentsOld/Documents", true},
        {"home/documents", false},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.folder);
        const Sandbox sandbox;
        const std::string real = sandbox.folder(row.folder);
        Roots roots;
        const auto root = roots.addStorage(real);
        ASSERT_TRUE(root) << describe(root.error());
        EXPECT_EQ((*root)->kind, Root::Kind::storage);
        EXPECT_EQ((*root)->realPath, real);
        EXPECT_EQ((*root)->name, row.ownName ? real : "/.tarnwell/" + escaped(real) + "/Documents");
        EXPECT_TRUE(isFolder((*root)->directory.get(), real));
        EXPECT_EQ(roots.storage(), *root);
        EXPECT_EQ(placeText(roots, (*root)->name + "/a"), (*root)->name + "|a");
    }
}

TEST(Roots, FollowsALinkToTheStorageRootOnlyOnce) {
    const Sandbox sandbox;
    const std::string first = sandbox.folder("first/Documents");
    const std::string second = sandbox.folder("second/Documents");
    const std::string link = sandbox.link("link", first);
    Roots roots;
    const auto root = roots.addStorage(link);
    ASSERT_TRUE(root);
    EXPECT_EQ((*root)->realPath, first);
    ASSERT_EQ(::unlink(link.c_str()), 0);
    sandbox.link("link", second);
    EXPECT_TRUE(isFolder(roots.storage()->directory.get(), first));
    EXPECT_EQ(roots.realPath((*root)->name), first);
}

TEST(Roots, TakesOneStorageRoot) {
    const Sandbox sandbox;
    const std::string real = sandbox.folder("Documents");
    const std::string other = sandbox.folder("other");
    Roots roots;
    EXPECT_EQ(roots.storage(), nullptr);
    const auto root = roots.addStorage(real);
    ASSERT_TRUE(root);
    EXPECT_EQ(roots.addStorage(real + "/../Documents/"), root);
    const auto refused = roots.addStorage(other);
    ASSERT_FALSE(refused);
    EXPECT_TRUE(refused.error().is(ErrorDomain::posix, EEXIST));
    EXPECT_EQ(refused.error().userInfo.at(kErrorMessage), "there is a storage root already: " + real);
    EXPECT_EQ(roots.all().size(), 1U);
}

TEST(Roots, RefusesWhatIsNoFolder) {
    const Sandbox sandbox;
    struct Row {
        std::string path;
        int code;
    };
    const Row rows[] = {
        {sandbox.path("missing"), ENOENT},
        {sandbox.file("file"), ENOTDIR},
        {sandbox.link("dangling", "nowhere"), ENOENT},
        {sandbox.link("loop", "loop"), ELOOP},
        {sandbox.fifo("fifo"), ENOTDIR},
        {"relative", EINVAL},
        {"", EINVAL},
        {sandbox.path() + std::string("\0x", 2), EINVAL},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.path);
        Roots roots;
        const auto storage = roots.addStorage(row.path);
        ASSERT_FALSE(storage);
        EXPECT_EQ(storage.error().code, row.code);
        const auto container = roots.addContainer(row.path);
        ASSERT_FALSE(container);
        EXPECT_EQ(container.error().code, row.code);
        EXPECT_TRUE(roots.all().empty());
    }
}

TEST(Roots, RefusesWhatLiesWhereNamesAreMadeUp) {
    const Sandbox sandbox;
    sandbox.folder(".tarnwell/home/Documents");
    sandbox.folder(".tarnwell2/Documents");
    const std::string result = inChild([&]() -> std::string {
        if (const auto reason = filesystem::becomeOwnerOfMounts()) return "skip: " + *reason;
        if (::chroot(sandbox.path().c_str()) != 0) return "skip: chroot: " + std::string(std::strerror(errno));
        Roots roots;
        std::string codes;
        for (const char* path : {"/.tarnwell", "/.tarnwell/home/Documents"}) {
            const auto root = roots.addStorage(path);
            codes += root ? "added " : errnoName(static_cast<int>(root.error().code)) + " ";
        }
        const auto container = roots.addContainer("/.tarnwell/home");
        codes += container ? "added " : errnoName(static_cast<int>(container.error().code)) + " ";
        const auto beside = roots.addStorage("/.tarnwell2/Documents");
        return codes + (beside ? (*beside)->name : describe(beside.error()));
    });
    if (result.starts_with("skip: ")) GTEST_SKIP() << result;
    EXPECT_EQ(result, "EINVAL EINVAL EINVAL /.tarnwell2/Documents");
}

TEST(Roots, NamesAContainerThatIsNoRoot) {
    const Sandbox sandbox;
    sandbox.folder("plain/Documents");
    sandbox.folder("Documents/inner/Documents");
    Roots roots;
    const auto plain = roots.addContainer(sandbox.path("plain"));
    ASSERT_TRUE(plain) << describe(plain.error());
    EXPECT_EQ(plain->path(), sandbox.path("plain"));
    const auto inner = roots.addContainer(sandbox.path("Documents/inner"));
    ASSERT_TRUE(inner) << describe(inner.error());
    EXPECT_EQ(inner->path(), "/.tarnwell/" + escaped(sandbox.path("Documents/inner/Documents")));

    for (const URL& container : {*plain, *inner}) {
        SCOPED_TRACE(container.path());
        EXPECT_EQ(placeText(roots, container.path()), "nothing");
        EXPECT_EQ(placeText(roots, container.path() + "/Library"), "nothing");
        const std::string name = container.appending("Documents").path();
        EXPECT_EQ(placeText(roots, name), name + "|");
        EXPECT_EQ(roots.locate(name)->root->kind, Root::Kind::library);
    }
}

TEST(Roots, GivesTheSameURLForAContainerThatIsAddedAgain) {
    const Sandbox sandbox;
    sandbox.folder("app/Documents");
    sandbox.link("current", "app");
    Roots roots;
    const auto first = roots.addContainer(sandbox.path("app"));
    ASSERT_TRUE(first);
    EXPECT_EQ(roots.addContainer(sandbox.path("app")), first);
    EXPECT_EQ(roots.addContainer(sandbox.path("current")), first);
    EXPECT_EQ(roots.all().size(), 1U);
    std::filesystem::remove(sandbox.path("app/Documents"));
    EXPECT_EQ(roots.addContainer(sandbox.path("app")), first);
}

TEST(Roots, AVersionGivesWayToTheNextUnderTheNameOfTheLink) {
    for (const std::string home : {"home", "Documents/home"}) {  // with a name of its own, and with one made up
        SCOPED_TRACE(home);
        const Sandbox sandbox;
        sandbox.folder(home + "/app/1/Documents");
        sandbox.folder(home + "/app/2/Documents");
        sandbox.folder(home + "/app/3");
        sandbox.link(home + "/app/current", "1");
        Roots roots;
        const auto lead = [&](const std::string& version) {
            std::filesystem::remove(sandbox.path(home + "/app/current"));
            sandbox.link(home + "/app/current", version);
            return roots.addVersionedContainer(sandbox.path(home + "/app/current"));
        };
        const auto first = lead("1");
        ASSERT_TRUE(first);
        const std::string name = first->appending("Documents").path();
        const auto former = roots.locate(name)->root;
        EXPECT_TRUE(former->isVersion);
        EXPECT_EQ(former->realPath, sandbox.path(home + "/app/1/Documents"));
        std::uint64_t generation = roots.generation();
        EXPECT_EQ(lead("1"), first);
        EXPECT_EQ(roots.generation(), generation);

        EXPECT_EQ(lead("2"), first);
        EXPECT_GT(roots.generation(), generation);
        const auto next = roots.locate(name + "/file")->root;
        EXPECT_EQ(next->realPath, sandbox.path(home + "/app/2/Documents"));
        EXPECT_NE(next->inode, former->inode);
        EXPECT_EQ(roots.all(), (std::vector{next}));
        EXPECT_TRUE(roots.isRoot(next->directory.get()));
        EXPECT_EQ(roots.urlForRealPath(sandbox.path(home + "/app/2/Documents/file")).path(), name + "/file");

        generation = roots.generation();
        EXPECT_FALSE(lead("3")) << "it has no Documents";
        EXPECT_EQ(roots.generation(), generation);
        EXPECT_EQ(lead("1"), first);
        EXPECT_EQ(roots.locate(name)->root->realPath, sandbox.path(home + "/app/1/Documents"));
        EXPECT_EQ(roots.all().size(), 1U);
    }
}

TEST(Roots, AFolderThatIsMadeAgainIsTheRootFromThenOn) {
    for (const std::string home : {"home", "Documents/home"}) {  // with a name of its own, and with one made up
        SCOPED_TRACE(home);
        const Sandbox sandbox;
        const std::string documents = home + "/app/Documents";
        sandbox.folder(documents);
        Roots roots;
        const auto url = roots.addContainer(sandbox.path(home + "/app"));
        ASSERT_TRUE(url);
        const std::string name = url->appending("Documents").path();
        const auto former = roots.locate(name)->root;
        std::uint64_t generation = roots.generation();

        // Gone, it is held open for as long as nothing stands in its place.
        std::filesystem::remove(sandbox.path(documents));
        EXPECT_EQ(roots.addContainer(sandbox.path(home + "/app")), url);
        EXPECT_EQ(roots.generation(), generation);
        EXPECT_EQ(roots.locate(name)->root, former);
        std::filesystem::create_symlink("..", sandbox.path(documents));
        EXPECT_EQ(roots.addContainer(sandbox.path(home + "/app")), url);
        EXPECT_EQ(roots.locate(name)->root, former) << "a link is no folder";
        std::filesystem::remove(sandbox.path(documents));

        sandbox.folder(documents);
        EXPECT_EQ(roots.addContainer(sandbox.path(home + "/app")), url);
        EXPECT_GT(roots.generation(), generation);
        const auto next = roots.locate(name + "/file")->root;
        EXPECT_NE(next, former);
        EXPECT_EQ(roots.formersOf(name), (std::vector{former}));
        EXPECT_NE(next->number, former->number);
        EXPECT_FALSE(next->isVersion);
        EXPECT_EQ(roots.all(), (std::vector{next}));
        EXPECT_TRUE(roots.isRoot(next->directory.get()));
        EXPECT_FALSE(roots.isRoot(former->directory.get()));
        roots.letGo(former);
        EXPECT_TRUE(roots.formersOf(name).empty());
        EXPECT_EQ(former.use_count(), 1) << "somebody holds it open still";
        EXPECT_EQ(roots.urlForRealPath(sandbox.path(documents + "/file")).path(), name + "/file");

        // Moved away, and brought back.
        std::filesystem::rename(sandbox.path(documents), sandbox.path(home + "/app/aside"));
        sandbox.folder(documents);
        EXPECT_EQ(roots.addContainer(sandbox.path(home + "/app")), url);
        EXPECT_NE(roots.locate(name)->root, next);
        std::filesystem::remove(sandbox.path(documents));
        std::filesystem::rename(sandbox.path(home + "/app/aside"), sandbox.path(documents));
        EXPECT_EQ(roots.addContainer(sandbox.path(home + "/app")), url);
        EXPECT_EQ(roots.locate(name)->root->inode, next->inode);
        generation = roots.generation();
        EXPECT_EQ(roots.addContainer(sandbox.path(home + "/app")), url);
        EXPECT_EQ(roots.generation(), generation);
    }
}

TEST(Roots, AFolderThatIsMovedToAnotherLibraryIsThatOnes) {
    const Sandbox sandbox;
    sandbox.folder("one/Documents");
    sandbox.folder("two/Documents");
    Roots roots;
    const auto one = roots.addContainer(sandbox.path("one"));
    const auto two = roots.addContainer(sandbox.path("two"));
    ASSERT_TRUE(one && two);
    const std::string nameOfOne = one->appending("Documents").path(), nameOfTwo = two->appending("Documents").path();
    const auto folder = roots.locate(nameOfOne)->root;
    std::filesystem::remove(sandbox.path("two/Documents"));
    std::filesystem::rename(sandbox.path("one/Documents"), sandbox.path("two/Documents"));
    const std::uint64_t generation = roots.generation();
    EXPECT_EQ(roots.addContainer(sandbox.path("two")), two);
    EXPECT_GT(roots.generation(), generation);
    EXPECT_EQ(roots.locate(nameOfTwo)->root->inode, folder->inode);
    EXPECT_EQ(roots.locate(nameOfOne), std::nullopt);
    EXPECT_FALSE(roots.addContainer(sandbox.path("one"))) << "it has no Documents any more";
    EXPECT_EQ(roots.all().size(), 1U);
    EXPECT_EQ(folder.use_count(), 1) << "somebody holds it open still";

    sandbox.folder("one/Documents");
    EXPECT_EQ(roots.addContainer(sandbox.path("one")), one);
    EXPECT_NE(roots.locate(nameOfOne)->root->inode, folder->inode);
    EXPECT_EQ(roots.all().size(), 2U);
}

TEST(Roots, AContainerThatIsMovedAndLeavesALinkIsOneLibraryAtItsNewPlace) {
    const Sandbox sandbox;
    sandbox.folder("old/Documents");
    Roots roots;
    const auto before = roots.addContainer(sandbox.path("old"));
    ASSERT_TRUE(before);
    std::filesystem::rename(sandbox.path("old"), sandbox.path("new"));
    sandbox.link("old", "new");
    // Asked for by either name, in either order.
    const auto after = roots.addContainer(sandbox.path("old"));
    ASSERT_TRUE(after);
    EXPECT_EQ(after->path(), sandbox.path("new"));
    EXPECT_EQ(roots.addContainer(sandbox.path("new")), after);
    EXPECT_EQ(roots.addContainer(sandbox.path("old")), after);
    EXPECT_EQ(roots.all().size(), 1U);
    EXPECT_EQ(roots.locate(sandbox.path("old/Documents")), std::nullopt);
    EXPECT_EQ(roots.locate(sandbox.path("new/Documents"))->root->realPath, sandbox.path("new/Documents"));
}

TEST(Roots, AVersionMayLieInNoOtherRoot) {
    const Sandbox sandbox;
    sandbox.folder("app/1/Documents");
    sandbox.folder("Documents/2/Documents");
    sandbox.link("app/current", "1");
    Roots roots;
    ASSERT_TRUE(roots.addStorage(sandbox.path("Documents")));
    const auto first = roots.addVersionedContainer(sandbox.path("app/current"));
    ASSERT_TRUE(first);
    std::filesystem::remove(sandbox.path("app/current"));
    sandbox.link("app/current", "../Documents/2");
    const auto refused = roots.addVersionedContainer(sandbox.path("app/current"));
    ASSERT_FALSE(refused);
    EXPECT_TRUE(refused.error().is(ErrorDomain::posix, EXDEV));
    EXPECT_EQ(roots.locate(first->appending("Documents").path())->root->realPath, sandbox.path("app/1/Documents"));
}

TEST(Roots, WantsARealDocumentsFolderInAContainer) {
    const Sandbox sandbox;
    sandbox.folder("none");
    sandbox.file("file/Documents");
    sandbox.folder("linked");
    sandbox.folder("elsewhere");
    sandbox.link("linked/Documents", "../elsewhere");
    Roots roots;
    for (const auto& [name, code] : {std::pair{"none", ENOENT}, {"file", ENOTDIR}, {"linked", ENOTDIR}}) {
        SCOPED_TRACE(name);
        const auto added = roots.addContainer(sandbox.path(name));
        ASSERT_FALSE(added);
        EXPECT_TRUE(added.error().is(ErrorDomain::posix, code)) << describe(added.error());
    }
    EXPECT_TRUE(roots.all().empty());
}

TEST(Roots, RefusesRootsThatLieInOneAnother) {
    struct Row {
        std::string storage;    ///< added first unless empty
        std::string container;  ///< then this
        std::string later;      ///< refused: a container after the storage root, a storage root after a container
        std::string message;
    };
    const Row rows[] = {
        {"S", "", "S/app", "%/S/app lies in %/S, which belongs to another root"},
        {"S", "", "S", "%/S lies in %/S, which belongs to another root"},
        {"app/data/S", "", "app", "%/app contains %/app/data/S, which belongs to another root"},
        {"app/Documents", "", "app", "%/app contains %/app/Documents, which belongs to another root"},
        {"", "app", "app/data", "%/app/data lies in %/app, which belongs to another root"},
        {"", "home/app", "home", "%/home contains %/home/app, which belongs to another root"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.storage + row.container + " then " + row.later);
        const Sandbox sandbox;
        for (const auto& name : {row.storage, row.container, row.later}) {
            if (!name.empty()) sandbox.folder(name + "/Documents");
        }
        Roots roots;
        std::optional<Error> error;
        if (row.container.empty()) {
            ASSERT_TRUE(roots.addStorage(sandbox.path(row.storage)));
            const auto refused = roots.addContainer(sandbox.path(row.later));
            if (!refused) error = refused.error();
        } else {
            ASSERT_TRUE(roots.addContainer(sandbox.path(row.container)));
            const auto refused = roots.addStorage(sandbox.path(row.later));
            if (!refused) error = refused.error();
        }
        ASSERT_TRUE(error);
        EXPECT_EQ(error->code, EXDEV);
        std::string message = row.message;
        for (std::size_t at; (at = message.find('%')) != std::string::npos;) message.replace(at, 1, sandbox.path());
        EXPECT_EQ(error->userInfo.at(kErrorMessage), message);
        EXPECT_EQ(roots.all().size(), 1U);
    }
}

TEST(Roots, KeepsLibrariesApart) {
    const Sandbox sandbox;
    sandbox.folder("app/Documents/inner/Documents");
    sandbox.folder("app/beside/Documents");
    Roots roots;
    ASSERT_TRUE(roots.addContainer(sandbox.path("app")));
    EXPECT_TRUE(roots.addContainer(sandbox.path("app/beside")));
    const auto refused = roots.addContainer(sandbox.path("app/Documents/inner"));
    ASSERT_FALSE(refused);
    EXPECT_TRUE(refused.error().is(ErrorDomain::posix, EXDEV));

    Roots reversed;
    ASSERT_TRUE(reversed.addContainer(sandbox.path("app/Documents/inner")));
    const auto outer = reversed.addContainer(sandbox.path("app"));
    ASSERT_FALSE(outer);
    EXPECT_TRUE(outer.error().is(ErrorDomain::posix, EXDEV));
}

TEST(Roots, ListsTheStorageRootFirst) {
    const Sandbox sandbox;
    Roots roots;
    for (const char* name : {"b", "a"}) {
        sandbox.folder(std::string(name) + "/Documents");
        ASSERT_TRUE(roots.addContainer(sandbox.path(name)));
    }
    EXPECT_EQ(roots.storage(), nullptr);
    ASSERT_TRUE(roots.addStorage(sandbox.folder("S")));
    std::vector<std::string> paths;
    for (const auto& root : roots.all()) paths.push_back(root->realPath);
    EXPECT_EQ(paths, (std::vector{sandbox.path("S"), sandbox.path("b/Documents"), sandbox.path("a/Documents")}));
    EXPECT_EQ(roots.storage()->realPath, sandbox.path("S"));
}

TEST(Roots, LocatesPathsBelowARoot) {
    const Sandbox sandbox;
    const std::string name = sandbox.folder("home/Documents");
    Roots roots;
    ASSERT_TRUE(roots.addStorage(name));
    struct Row {
        std::string path, place;
    };
    const Row rows[] = {
        {name, name + "|"},
        {name + "/a", name + "|a"},
        {name + "/a/Documents/b", name + "|a/Documents/b"},
        {name + "/.Trash/..x/...", name + "|.Trash/..x/..."},
        {name + "/\xff", name + "|\xff"},
        {name + "/", "nothing"},
        {name + "/a/", "nothing"},
        {name + "//a", "nothing"},
        {name + "/a//b", "nothing"},
        {name + "/..", "nothing"},
        {name + "/a/../b", "nothing"},
        {name + "/a/..", "nothing"},
        {name + "/./a", "nothing"},
        {name + "/a/.", "nothing"},
        {name + std::string("/a\0b", 4), "nothing"},
        {name + "x", "nothing"},
        {sandbox.path("home"), "nothing"},
        {sandbox.path("home/x/Documents/a"), "nothing"},
        {sandbox.path("home/Documents2/a"), "nothing"},
        {sandbox.path("home/../home/Documents/a"), "nothing"},
        {name.substr(1) + "/a", "nothing"},
        {"/Documents/a", "nothing"},
        {"/", "nothing"},
        {"", "nothing"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.path);
        EXPECT_EQ(placeText(roots, row.path), row.place);
    }
}

TEST(Roots, TranslatesBetweenNamesAndRealPaths) {
    const Sandbox sandbox;
    sandbox.folder("Documents/app/Documents");
    sandbox.folder("plain/Documents");
    sandbox.folder("S%");
    Roots roots;
    const auto storage = roots.addStorage(sandbox.path("S%"));
    ASSERT_TRUE(storage);
    const std::string storageName = (*storage)->name;
    const auto app = roots.addContainer(sandbox.path("Documents/app"));
    ASSERT_TRUE(app);
    ASSERT_TRUE(roots.addContainer(sandbox.path("plain")));

    struct Row {
        std::string name, real;
    };
    const Row both[] = {
        {storageName, sandbox.path("S%")},
        {storageName + "/a/b", sandbox.path("S%/a/b")},
        {storageName + "/Documents", sandbox.path("S%/Documents")},
        {app->path(), sandbox.path("Documents/app")},
        {app->path() + "/Documents", sandbox.path("Documents/app/Documents")},
        {app->path() + "/Documents/x", sandbox.path("Documents/app/Documents/x")},
        {sandbox.path("plain"), sandbox.path("plain")},
        {sandbox.path("plain/Documents/x"), sandbox.path("plain/Documents/x")},
        {sandbox.path("elsewhere"), sandbox.path("elsewhere")},
        {sandbox.path("S%x/a"), sandbox.path("S%x/a")},
        {sandbox.path("Documents"), sandbox.path("Documents")},
        {"/", "/"},
        {sandbox.path("S%/../x"), sandbox.path("S%/../x")},
        {sandbox.path("S%/.."), sandbox.path("S%/..")},
    };
    for (const auto& row : both) {
        SCOPED_TRACE(row.name);
        EXPECT_EQ(roots.realPath(row.name), row.real);
        EXPECT_EQ(roots.urlForRealPath(row.real), URL::file(row.name));
    }
    EXPECT_EQ(roots.urlForRealPath(sandbox.path("S%") + "//a/./b/"), URL::file(storageName + "/a/b"));
    EXPECT_EQ(roots.realPath(app->path() + "/Library/x"), sandbox.path("Documents/app/Library/x"));
    EXPECT_EQ(roots.realPath(storageName + "/a/../b"), storageName + "/a/../b");
    EXPECT_EQ(roots.realPath("/.tarnwell/%2Funknown/Documents/a"), "/.tarnwell/%2Funknown/Documents/a");
    EXPECT_EQ(roots.realPath("/.tarnwell/"), "/.tarnwell/");
}

TEST(Roots, TakesTheWholeFileSystemAsStorageRoot) {
    Roots roots;
    const auto root = roots.addStorage("/");
    ASSERT_TRUE(root) << describe(root.error());
    EXPECT_EQ((*root)->name, "/.tarnwell/%2F/Documents");
    EXPECT_EQ(roots.realPath((*root)->name), "/");
    EXPECT_EQ(roots.realPath((*root)->name + "/etc/x"), "/etc/x");
    EXPECT_EQ(roots.urlForRealPath("/").path(), (*root)->name);
    EXPECT_EQ(roots.urlForRealPath("/etc").path(), (*root)->name + "/etc");
}

TEST(Roots, AnswersWhileRootsAreAdded) {
    const Sandbox sandbox;
    constexpr int kRoots = 300;
    for (int i = 0; i < kRoots; ++i) sandbox.folder(std::to_string(i) + "/Documents");
    Roots roots;
    std::atomic<int> added{0};
    std::thread reader([&] {
        int last = 0;
        while (last < kRoots) {
            last = added.load();
            for (int i = 0; i < last; ++i) {
                const std::string name = sandbox.path(std::to_string(i) + "/Documents");
                ASSERT_EQ(placeText(roots, name + "/x"), name + "|x");
                ASSERT_EQ(roots.realPath(name), name);
            }
        }
    });
    std::thread other([&] {
        for (int i = kRoots - 1; i >= 0; --i) EXPECT_TRUE(roots.addContainer(sandbox.path(std::to_string(i))));
    });
    for (int i = 0; i < kRoots; ++i) {
        EXPECT_TRUE(roots.addContainer(sandbox.path(std::to_string(i))));
        added = i + 1;
    }
    other.join();
    reader.join();
    EXPECT_EQ(roots.all().size(), static_cast<std::size_t>(kRoots));
}

}  // namespace
}  // namespace tarnwell
