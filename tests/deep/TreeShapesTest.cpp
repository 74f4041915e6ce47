#include <fcntl.h>
#include <grp.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <set>

#include "items/TarnwellError.h"
#include "platform/base/Descriptor.h"
#include "tests/deep/DeepDevice.h"

namespace tarnwell::deep {
namespace {

using testing::makeDirectories;
using testing::TemporaryDirectory;
using testing::writeFile;
using Names = std::vector<std::string>;

Names namesOf(const std::vector<host::ListedItem>& items) {
    Names names;
    for (const auto& listed : items) names.push_back(listed.path);
    std::ranges::sort(names);
    return names;
}

Names listed(DeepDevice& device, const std::string& container, host::Depth depth = host::Depth::direct) {
    const auto items = device.list(container, depth);
    EXPECT_TRUE(items.has_value()) << describe(items.error());
    return items ? namesOf(*items) : Names{};
}

/// At most so many descriptors for this process while it lives.
class FewDescriptors {
public:
    explicit FewDescriptors(rlim_t most) {
        ::getrlimit(RLIMIT_NOFILE, &before_);
        const rlimit few{std::min(most, before_.rlim_cur), before_.rlim_max};
        ::setrlimit(RLIMIT_NOFILE, &few);
    }
    ~FewDescriptors() { ::setrlimit(RLIMIT_NOFILE, &before_); }

private:
    rlimit before_{};
};

TEST(TreeShapes, ATreeFiveThousandDeepIsListedFromTheTopAndAtItsBottomWithFewDescriptors) {
    const FewDescriptors few(256);  // the folder's removal has to get by with them, too
    constexpr std::size_t kDepth = 5000;
    const std::string longName = std::string(251, 'f') + ".txt";
    DeepDevice device;
    // Made relative to the folder before, since the whole path is longer than a system call takes.
    Descriptor folder(::open(device.device().path().c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    for (std::size_t i = 0; i < kDepth; ++i) {
        ASSERT_EQ(::mkdirat(folder.get(), "d", 0755), 0);
        folder = Descriptor(::openat(folder.get(), "d", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
        ASSERT_TRUE(folder.valid());
    }
    Descriptor file(::openat(folder.get(), longName.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0644));
    ASSERT_EQ(::write(file.get(), "bottom", 6), 6);

    const auto all = device.list(hostframework::kAllDirectoriesContainer, host::Depth::direct);
    ASSERT_TRUE(all.has_value()) << describe(all.error());
    ASSERT_EQ(all->size(), kDepth);
    std::set<std::string> identifiers;
    std::string parent = hostframework::kRootContainer;
    for (const auto& [item, path] : *all) {
        ASSERT_EQ(item->parentItemIdentifier(), parent);
        ASSERT_EQ(item->childItemCount(), 1u);
        parent = item->itemIdentifier();
        ASSERT_TRUE(identifiers.insert(parent).second);
    }
    // Folder by folder where the path is longest, as somebody browses.
    for (std::size_t i = kDepth - 10; i < kDepth; ++i) {
        const auto items = device.list((*all)[i].item->itemIdentifier(), host::Depth::direct);
        ASSERT_TRUE(items.has_value()) << describe(items.error());
        ASSERT_EQ(items->size(), 1u);
        const auto& item = *items->front().item;
        const std::string expected = i + 1 < kDepth ? (*all)[i + 1].item->itemIdentifier() : item.itemIdentifier();
        EXPECT_EQ(item.itemIdentifier(), expected);
        EXPECT_EQ(item.filename(), i + 1 < kDepth ? "d" : longName);
    }
    const auto bottom = device.provider().itemForIdentifier(all->back().item->itemIdentifier());
    ASSERT_TRUE(bottom.has_value());
    const URL fileURL = (*bottom)->fileURL().appending(longName);
    EXPECT_EQ(fileURL.path().size(), device.device().url().path().size() + 2 * kDepth + 1 + longName.size());
    const auto identifier = device.provider().persistentIdentifierForItemAtURL(fileURL);
    ASSERT_TRUE(identifier.has_value());
    EXPECT_TRUE(identifier->starts_with("did="));
    const auto item = device.provider().itemForIdentifier(*identifier);
    ASSERT_TRUE(item.has_value());
    EXPECT_EQ((*item)->documentSize(), 6u);
    EXPECT_EQ((*item)->parentItemIdentifier(), (*bottom)->itemIdentifier());
}

TEST(TreeShapes, NamesOf255BytesOfEveryKindAreKeptAsTheyAre) {
    DeepDevice device;
    const std::string file = std::string(255, 'f'), folder = std::string(255, 'd'), link = std::string(255, 'l'),
                      pipe = std::string(255, 'p'), bytes = std::string(255, '\xff');
    writeFile(device.device().path(file), "1");
    makeDirectories(device.device().path(folder) + "/" + folder);
    ASSERT_EQ(::symlink(file.c_str(), device.device().path(link).c_str()), 0);
    ASSERT_EQ(::mkfifo(device.device().path(pipe).c_str(), 0644), 0);
    writeFile(device.device().path(bytes), "22");
    Names expected{file, folder, folder + "/" + folder, link, pipe, bytes};
    std::ranges::sort(expected);
    EXPECT_EQ(listed(device, hostframework::kRootContainer, host::Depth::recursive), expected);
    for (const auto& name : expected) {
        const auto identifier = device.identifierOf(name);
        ASSERT_TRUE(identifier.has_value());
        const auto item = device.provider().itemForIdentifier(*identifier);
        ASSERT_TRUE(item.has_value());
        EXPECT_EQ((*item)->fileURL(), device.device().url(name));
    }
}

TEST(TreeShapes, PipesSocketsAndLinksAreListedWithoutBeingOpenedOrFollowedOut) {
    const TemporaryDirectory outside;
    makeDirectories(outside.path("folder"));
    writeFile(outside.path("folder/secret.txt"), "secret");
    DeepDevice device;
    const auto path = [&](const char* name) { return device.device().path(name); };
    const auto link = [&](const std::string& target, const char* name) {
        ASSERT_EQ(::symlink(target.c_str(), path(name).c_str()), 0);
    };
    ASSERT_EQ(::mkfifo(path("pipe").c_str(), 0644), 0);
    const Descriptor socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    ASSERT_LT(path("socket").size(), sizeof address.sun_path);
    std::ranges::copy(path("socket"), address.sun_path);
    ASSERT_EQ(::bind(socket.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
    makeDirectories(path("inside"));
    writeFile(path("inside/file.txt"), "in");
    link(outside.path("folder"), "to a folder outside");
    link(outside.path("folder/secret.txt"), "to a file outside");
    link("../../../../../../../../etc", "up and out");
    link("/proc/self/root", "magic");
    link("/dev/zero", "endless");
    link("nowhere", "dangling");
    link("round", "round");
    link("inside", "to a folder inside");
    link("inside/file.txt", "to a file inside");
    link(".", "itself");

    const auto items = device.list(hostframework::kRootContainer, host::Depth::recursive);
    ASSERT_TRUE(items.has_value()) << describe(items.error());
    Names expected{"dangling",
                   "endless",
                   "inside",
                   "inside/file.txt",
                   "itself",
                   "magic",
                   "pipe",
                   "round",
                   "socket",
                   "to a file inside",
                   "to a file outside",
                   "to a folder inside",
                   "to a folder outside",
                   "up and out"};
    EXPECT_EQ(namesOf(*items), expected);
    const std::set<std::string> leadInside{"to a folder inside", "to a file inside", "itself"};
    for (const auto& [item, name] : *items) {
        SCOPED_TRACE(name);
        if (name.starts_with("inside")) continue;
        EXPECT_TRUE(item->itemIdentifier().starts_with("fid=")) << item->itemIdentifier();
        EXPECT_FALSE(item->isFolder());
        EXPECT_FALSE(item->documentSize().has_value());
        EXPECT_FALSE(item->childItemCount().has_value());
        EXPECT_EQ(item->fileID().has_value(), item->typeIdentifier() != "inode/symlink" || leadInside.contains(name));
        // Asked for as a container, it has nothing in it either.
        const auto page = device.page(item->itemIdentifier(), hostframework::kInitialPageSortedByName);
        EXPECT_EQ(page.finishes, 1);
        EXPECT_TRUE(page.items.empty());
        const auto again = device.provider().itemForIdentifier(item->itemIdentifier());
        ASSERT_TRUE(again.has_value());
        EXPECT_EQ((*again)->filename(), name);
    }
    for (const char* through : {"to a folder outside/secret.txt", "up and out/passwd", "magic/etc/passwd",
                                "to a folder inside/file.txt", "itself/inside"}) {
        EXPECT_FALSE(device.identifierOf(through).has_value()) << through;
    }
}

/// An application of that name whose data container is there.
testing::FakeAppRegistry::Application application(const std::string& container) {
    testing::FakeAppRegistry::Application application;
    application.bundleIdentifier = "org.example.App";
    application.containerPath = container;
    application.localizedName = "App";
    return application;
}

void lookAtApplications(DeepDevice& device) {
    device.appLibraries().refreshAppLibraries();
    device.appLibraries().sharedManager().upgradeFromMainCache(nullptr, applibraries::IndexCleanup::no);
}

TEST(TreeShapes, AnApplicationWhoseDocumentsAreALinkHasNoLibraryUntilTheyAreAFolder) {
    const TemporaryDirectory outside;
    writeFile(outside.path("secret.txt"), "secret");
    DeepDevice device;
    const std::string container = device.device().makeContainer("App");
    ASSERT_EQ(::rmdir((container + "/Documents").c_str()), 0);
    ASSERT_EQ(::symlink(outside.path().c_str(), (container + "/Documents").c_str()), 0);
    device.device().registry().setApplications({application(container)});
    lookAtApplications(device);
    EXPECT_EQ(listed(device, hostframework::kRootContainer, host::Depth::recursive), Names{});
    EXPECT_FALSE(device.provider().itemForIdentifier("#org.example.App").has_value());
    EXPECT_FALSE(device.provider().persistentIdentifierForItemAtURL(URL::file(container + "/Documents/secret.txt")));

    ASSERT_EQ(::unlink((container + "/Documents").c_str()), 0);
    makeDirectories(container + "/Documents");
    writeFile(container + "/Documents/own.txt", "own");
    lookAtApplications(device);
    EXPECT_EQ(listed(device, hostframework::kRootContainer, host::Depth::direct), Names{"App"});
    EXPECT_EQ(listed(device, "#org.example.App"), Names{"own.txt"});
}

TEST(TreeShapes, DocumentsThatBecomeALinkWhileTheProgramRunsAreNotFollowed) {
    const TemporaryDirectory outside;
    writeFile(outside.path("secret.txt"), "secret");
    DeepDevice device;
    const std::string container = device.device().makeContainer("App");
    writeFile(container + "/Documents/own.txt", "own");
    device.device().registry().setApplications({application(container)});
    lookAtApplications(device);
    ASSERT_EQ(listed(device, "#org.example.App"), Names{"own.txt"});
    std::filesystem::rename(container + "/Documents", container + "/aside");
    ASSERT_EQ(::symlink(outside.path().c_str(), (container + "/Documents").c_str()), 0);
    const Names now = listed(device, "#org.example.App");
    EXPECT_TRUE(std::ranges::find(now, "secret.txt") == now.end());
    const URL documents = device.device().roots().addContainer(container)->appending("Documents");
    EXPECT_FALSE(device.provider().persistentIdentifierForItemAtURL(documents.appending("secret.txt")).has_value());
}

/// Gives up the superuser's rights for good; does nothing for other users.
void becomeNobody() {
    if (::geteuid() != 0) return;
    if (::setgroups(0, nullptr) != 0 || ::setgid(65534) != 0 || ::setuid(65534) != 0) std::_Exit(3);
}

/// A device of somebody without any rights of his own, with folders that he may not read, enter or change.
int browseUnreadableFolders() {
    becomeNobody();
    const auto expect = [](bool holds, const char* what) {
        if (!holds) std::fprintf(stderr, "not so: %s\n", what);
        return holds ? 0 : 1;
    };
    int failed = 0;
    DeepDevice device;
    for (const char* name : {"open", "closed", "blind", "names only"}) {
        makeDirectories(device.device().path(name));
        writeFile(device.device().path(std::string(name) + "/file.txt"), "x");
    }
    writeFile(device.device().path("secret.txt"), "x");
    const auto before = device.list(hostframework::kRootContainer, host::Depth::recursive);
    failed += expect(before && before->size() == 9, "everything is listed while it may be");
    const auto namesOnly = device.identifierOf("names only");
    const auto closed = device.identifierOf("closed"), inClosed = device.identifierOf("closed/file.txt");
    const auto position = device.device().settle();
    ::chmod(device.device().path("closed").c_str(), 0);
    ::chmod(device.device().path("blind").c_str(), 0100);
    ::chmod(device.device().path("names only").c_str(), 0444);
    ::chmod(device.device().path("secret.txt").c_str(), 0);

    device.device().log().clear();
    const auto after = device.list(hostframework::kRootContainer, host::Depth::direct);
    failed += expect(after && after->size() == 5, "the folders themselves are listed");
    for (const auto& [item, name] : *after) {
        if (name == "closed" || name == "blind") {
            failed += expect(item->isFolder() && item->capabilities() == 1, "a closed folder may only be looked at");
        }
    }
    failed += expect(device.device().log().texts(log::Level::error).empty(), "which is no error yet");
    device.device().log().clear();
    const auto inside = device.page(*closed, hostframework::kInitialPageSortedByName);
    failed += expect(inside.finishes == 1 && inside.items.empty(), "a closed folder shows nothing");
    const auto errors = device.device().log().texts(log::Level::error);
    failed += expect(errors.size() == 1 && errors.front().find("closed") != std::string::npos, "one line says why");
    for (const auto& line : errors) std::fprintf(stderr, "logged: %s\n", line.c_str());
    device.device().log().clear();
    const auto named = device.page(*namesOnly, hostframework::kInitialPageSortedByName);
    failed += expect(named.finishes == 1 && named.items.empty(), "names alone make no items");
    const auto lines = device.device().log().texts(log::Level::error);
    failed += expect(lines.size() == 1 && lines.front().find("names only") != std::string::npos, "one line says why");
    const auto recursive = device.list(hostframework::kRootContainer, host::Depth::recursive);
    failed += expect(recursive && recursive->size() == 6, "the rest of the tree is listed");
    failed += expect(!device.provider().itemForIdentifier(*inClosed).has_value(), "what lies in it cannot be shown");

    // What cannot be read is not gone.
    const auto told = device.changesSince(position);
    failed += expect(told.has_value(), "the history is told");
    for (const auto& change : *told) failed += expect(!change.deleted, "nothing is told as deleted");
    ::chmod(device.device().path("closed").c_str(), 0755);
    ::chmod(device.device().path("blind").c_str(), 0755);
    ::chmod(device.device().path("names only").c_str(), 0755);
    failed += expect(device.identifierOf("closed/file.txt") == inClosed, "it is what it was when it may be seen again");
    device.waitUntilQuiet();
    return failed;
}

TEST(TreeShapesDeathTest, AFolderThatMayNotBeReadIsShownAndSaidAndNotTakenForEmpty) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(std::exit(browseUnreadableFolders() == 0 ? 0 : 1), ::testing::ExitedWithCode(0), "");
}

}  // namespace
}  // namespace tarnwell::deep
