#include <sys/mount.h>

#include <chrono>
#include <cstring>
#include <filesystem>
#include <stdexcept>
#include <thread>

#include "testing/InChild.h"
#include "tests/host/RootFollower.h"
#include "tests/host/SessionFixture.h"

/// A container on another file system, which is mounted over a folder of the home, goes and comes back: in a child
/// with mounts of its own.
namespace tarnwell::host {
namespace {

namespace disk = std::filesystem;

/// Ends the child's test with a sentence.
void require(bool isTrue, const std::string& otherwise) {
    if (!isTrue) throw std::runtime_error(otherwise);
}

/// A home with the application Notes, and a file system beside it that can be mounted over its container.
class Home {
public:
    enum class Below { nothing, documents };
    explicit Home(Below below) {
        makeDirectories(home_ + "/Documents");
        makeDirectories(home_ + "/.local/share/applications");
        writeFile(home_ + "/.local/share/applications/Notes.desktop",
                  "[Desktop Entry]\nType=Application\nName=Notes\nExec=true\nX-Tarnwell-DataContainer=~/Notes\n"
                  "X-Tarnwell-SupportsDocumentBrowser=true\n");
        makeDirectories(home_ + "/Notes");
        if (below == Below::documents) {
            makeDirectories(home_ + "/Notes/Documents");
            writeFile(home_ + "/Notes/Documents/Below.txt", "text");
        }
        makeDirectories(directory_.path("other"));
        if (::mount("tarnwell", directory_.path("other").c_str(), "tmpfs", 0, nullptr) != 0) {
            throw std::runtime_error("skip: no tmpfs can be mounted");
        }
        makeDirectories(directory_.path("other/Documents/folder"));
        writeFile(directory_.path("other/Documents/Mounted.txt"), "text");
    }
    ~Home() {
        end();
        while (::umount2((home_ + "/Notes").c_str(), MNT_DETACH) == 0) {
        }
        ::umount2(directory_.path("other").c_str(), MNT_DETACH);
    }

    /// The file system stays the same: it is also mounted elsewhere.
    void mount() const {
        const int failed =
            ::mount(directory_.path("other").c_str(), (home_ + "/Notes").c_str(), nullptr, MS_BIND, nullptr);
        require(failed == 0, "cannot mount: " + std::string(std::strerror(errno)));
    }
    /// As `umount --lazy` does it.
    void unmount() const { require(::umount2((home_ + "/Notes").c_str(), MNT_DETACH) == 0, "cannot unmount"); }
    void start() {
        const auto settings =
            Settings::from(testing::variables({{"HOME", home_}, {"XDG_DATA_DIRS", home_ + "/system"}}), std::nullopt);
        auto context = ProgramContext::create(*settings, log_);
        require(context.has_value(), context ? "" : describe(context.error()));
        context_ = std::move(*context);
        require(context_->watchForChanges().has_value(), "nothing is watched");
        context_->prepareForRequests();
        session_ = std::make_unique<LocalSession>(*context_);
    }
    void end() {
        session_.reset();
        context_.reset();
    }
    LocalSession& session() { return *session_; }

    std::string path(const std::string& relative) const { return home_ + "/Notes/Documents/" + relative; }
    std::string identifierOf(const std::string& relative) {
        return onlyOne(session().identifiersAtPaths({path(relative)}, session::PathUse::lookUp)).value_or("none");
    }
    /// What of the library's documents is listed, folders left out.
    std::set<std::string> listed() {
        std::set<std::string> names;
        const auto page = session().enumerate("#Notes", std::nullopt);
        if (!page) return {describe(page.error())};
        for (const auto& item : page->items) {
            if (!item.isFolder) names.insert(item.filename);
        }
        return names;
    }
    bool isAvailable() {
        const auto status = session().status();
        require(status.has_value(), "no status");
        return std::ranges::all_of(status->roots, [](const auto& root) { return root.isAvailable; });
    }
    /// Once that is so, or it is too late for it.
    static bool isSoon(const std::function<bool()>& isTrue) {
        const auto last = std::chrono::steady_clock::now() + soon();
        while (!isTrue()) {
            if (std::chrono::steady_clock::now() > last) return false;
            std::this_thread::yield();
        }
        return true;
    }

private:
    testing::TemporaryDirectory directory_;
    const std::string home_ = directory_.path("home");
    testing::CapturingLog log_;
    std::unique_ptr<ProgramContext> context_;
    std::unique_ptr<LocalSession> session_;
};

void expectInChild(const std::function<void()>& body) {
    const std::string said = testing::inChild([&]() -> std::string {
        if (const auto reason = testing::becomeOwnerOfMounts()) return "skip: " + *reason;
        try {
            body();
        } catch (const std::exception& failure) {
            return failure.what();
        }
        return ::testing::Test::HasFailure() ? "a check failed" : "";
    });
    if (said.starts_with("skip: ")) GTEST_SKIP() << said.substr(6);
    EXPECT_EQ(said, "");
}

using Names = std::set<std::string>;

TEST(MountedContainer, IsALibraryLikeAnyOther) {
    expectInChild([] {
        Home home(Home::Below::nothing);
        home.mount();
        home.start();
        require(home.listed() == Names{"Mounted.txt"}, "it is not listed");
        const std::string identifier = home.identifierOf("Mounted.txt");
        {
            RootFollower follower(home.session());
            writeFile(home.path("New.txt"), "text");
            const std::string fresh = home.identifierOf("New.txt");
            require(follower.nameOnceTold(fresh, "New.txt") == "New.txt", "a new file is not told");
            disk::rename(home.path("New.txt"), home.path("folder/Moved.txt"));
            require(follower.nameOnceTold(fresh, "Moved.txt") == "Moved.txt", "a moved file is not told");
        }
        home.end();
        home.start();
        require(home.identifierOf("Mounted.txt") == identifier, "the identifier changed with a restart");
    });
}

TEST(MountedContainer, IsUnavailableWhileItIsUnmounted) {
    expectInChild([] {
        Home home(Home::Below::nothing);
        home.mount();
        home.start();
        const std::string identifier = home.identifierOf("Mounted.txt");
        {
            RootFollower follower(home.session());
            home.unmount();
            require(!home.isAvailable(), "an unmounted root counts as available");
            // A change that is told behind whatever is told of the mount.
            const std::string own = disk::path(home.path("")).parent_path().parent_path().parent_path();
            writeFile(own + "/Documents/Own.txt", "text");
            const auto found =
                onlyOne(home.session().identifiersAtPaths({own + "/Documents/Own.txt"}, session::PathUse::lookUp));
            require(found && follower.nameOnceTold(*found, "Own.txt") == "Own.txt", "nothing is told any more");
            require(follower.deleted().empty(), "something is told to be gone");

            home.mount();
            require(home.isAvailable(), "a root that is mounted again is not available");
            require(home.identifierOf("Mounted.txt") == identifier, "the identifier changed");
            writeFile(home.path("Later.txt"), "text");
            const std::string later = home.identifierOf("Later.txt");
            require(follower.nameOnceTold(later, "Later.txt") == "Later.txt", "a later file is not told");
            require(follower.deleted().empty(), "something is told to be gone");
        }
        // Restarted without it, the application has no documents; its identifiers wait for it.
        home.end();
        home.unmount();
        home.start();
        require(home.identifierOf("Mounted.txt") == "none", "it is found while it is not mounted");
        {
            RootFollower follower(home.session());
            home.mount();
            require(follower.nameOnceTold("#Notes", "Notes") == "Notes", "a mount is not told");
            require(follower.nameOnceTold(identifier, "Mounted.txt") == "Mounted.txt", "its documents are not told");
            require(home.identifierOf("Mounted.txt") == identifier, "the identifier changed over a restart");
        }
        home.end();
        home.start();
        require(home.identifierOf("Mounted.txt") == identifier, "the identifier changed with a restart");
    });
}

TEST(MountedContainer, CoversTheDocumentsBelowForAsLongAsItIsMounted) {
    expectInChild([] {
        Home home(Home::Below::documents);
        home.start();
        const std::string below = home.identifierOf("Below.txt");
        std::string mounted;
        {
            RootFollower follower(home.session());
            for (int round = 0; round < 2; ++round) {
                home.mount();
                require(Home::isSoon([&] { return home.listed() == Names{"Mounted.txt"}; }), "a mount is not met");
                if (mounted.empty()) mounted = home.identifierOf("Mounted.txt");
                require(home.identifierOf("Mounted.txt") == mounted, "the identifier of what is mounted changed");
                require(follower.nameOnceTold(mounted, "Mounted.txt") == "Mounted.txt", "what is mounted is not told");
                home.unmount();
                require(Home::isSoon([&] { return home.listed() == Names{"Below.txt"}; }), "an unmount is not met");
                require(home.identifierOf("Below.txt") == below, "the identifier of what is below changed");
            }
            require(follower.deleted().empty(), "something is told to be gone");
        }
        for (int round = 0; round < 2; ++round) {
            home.end();
            home.mount();
            home.start();
            require(home.identifierOf("Mounted.txt") == mounted, "what is mounted changed with a restart");
            home.end();
            home.unmount();
            home.start();
            require(home.identifierOf("Below.txt") == below, "what is below changed with a restart");
        }
    });
}

}  // namespace
}  // namespace tarnwell::host
