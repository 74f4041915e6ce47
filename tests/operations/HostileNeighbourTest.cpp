#include <fcntl.h>
#include <signal.h>
#include <stdio.h>
#include <sys/mman.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <filesystem>
#include <functional>
#include <set>
#include <sstream>

#include "testing/InChild.h"
#include "testing/LongRun.h"
#include "tests/operations/OperationsFixture.h"

/// A second process exchanges files, folders, parents, targets and the trash with links that lead outside, as fast as
/// it can, while one operation runs again and again. Nothing outside may be read into the storage or changed, and
/// nothing that was put into the storage may be lost.
namespace tarnwell::operations {
namespace {

using Clock = std::chrono::steady_clock;
constexpr std::string_view kCanary = "canary: this lies outside";

/// Everything that may be told of a tree: times (but for reading), owners, attributes, contents.
std::string portraitOf(const std::string& path) {
    std::set<std::string> lines;
    const auto add = [&](const std::string& entry) {
        struct stat status{};
        if (::lstat(entry.c_str(), &status) != 0) return;
        std::ostringstream line;
        line << entry << ' ' << status.st_ino << ' ' << status.st_mode << ' ' << status.st_uid << ' ' << status.st_gid
             << ' ' << status.st_nlink << ' ' << status.st_size << ' ' << status.st_mtim.tv_sec << '.'
             << status.st_mtim.tv_nsec << ' ' << status.st_ctim.tv_sec << '.' << status.st_ctim.tv_nsec;
        std::string names(1024, '\0');
        const ssize_t size = ::llistxattr(entry.c_str(), names.data(), names.size());
        line << ' ' << (size > 0 ? names.substr(0, static_cast<std::size_t>(size)) : "");
        if (S_ISREG(status.st_mode)) line << ' ' << testing::readFile(entry);
        lines.insert(line.str());
    };
    add(path);
    for (const auto& entry : std::filesystem::recursive_directory_iterator(path)) add(entry.path().string());
    std::string all;
    for (const std::string& line : lines) all += line + "\n";
    return all;
}

Descriptor folderAt(const std::string& path) {
    return Descriptor(::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
}

/// What two places exchange in one folder, which is held open: the swapper itself never goes through a link.
struct Pair {
    int folder;
    std::string name, link;
    std::string target;
};

/// The places, what was put into them, and the process that exchanges them.
class Rig {
public:
    explicit Rig(const std::string& base) : at(base) {
        for (const std::string below : {"outside/folder/tree/inner", "outside/tree/inner", "outside/empty"}) {
            testing::makeDirectories(base + "/" + below);
        }
        for (const std::string below :
             {"secret.txt", "item", "folder/secret.txt", "folder/item", "folder/tree/secret.txt",
              "folder/tree/inner/secret.txt", "tree/secret.txt", "tree/inner/secret.txt"}) {
            testing::writeFile(base + "/outside/" + below, kCanary);
        }
        for (const std::string below : {"stage/folder", "stage/target", "stage/kept", ".Trash", "other"}) {
            at.folder(below);
        }
        root_ = folderAt(at.path());
        stage_ = folderAt(at.path("stage"));
        folder = folderAt(at.path("stage/folder"));
        target = folderAt(at.path("stage/target"));
        put(folder.get(), "secret.txt");
        const std::string outside = at.outside("folder");
        pairs_ = {{stage_.get(), "folder", "link to folder", outside},
                  {stage_.get(), "target", "link to target", outside},
                  {root_.get(), ".Trash", "link to trash", outside},
                  {root_.get(), "stage", "link to stage", at.outside()},
                  {folder.get(), "secret.txt", "link to secret", at.outside("secret.txt")},
                  {folder.get(), "item", "link to item", at.outside("item")}};
        makeTree(folder.get(), true);
        testing::makeDirectories(base + "/documents");
        documents_ = folderAt(base + "/documents");
        makeTree(documents_.get(), true);
        for (const std::string& token : documentTokens_) tokens_.erase(token);
        before_ = portraitOf(at.outside());
        begin();
    }
    ~Rig() { end(); }

    /// A file that must not be lost.
    void put(int where, const std::string& name) {
        const std::string token = "inside " + std::to_string(++made_);
        const Descriptor file(
            ::openat(where, name.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0644));
        if (!file.valid()) return;
        if (::write(file.get(), token.data(), token.size()) != static_cast<ssize_t>(token.size())) std::abort();
        tokens_.insert(token);
    }
    /// A folder "tree" with a file and a folder in it; within it a folder is exchanged with a link, too.
    void makeTree(int where, bool isSwapped = false) {
        if (::mkdirat(where, "tree", 0755) != 0) return;
        Descriptor tree(::openat(where, "tree", O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
        if (!tree.valid() || ::mkdirat(tree.get(), "inner", 0755) != 0) return;
        const Descriptor inner(::openat(tree.get(), "inner", O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
        put(tree.get(), "secret.txt");
        if (inner.valid()) put(inner.get(), "secret.txt");
        if (!isSwapped) return;
        if (where == documents_.get())
            documentTokens_ = {"inside " + std::to_string(made_ - 1), "inside " + std::to_string(made_)};
        pairs_.push_back({tree.get(), "inner", "link to inner", at.outside("tree/inner")});
        pairs_.push_back({tree.get(), "secret.txt", "link to secret", at.outside("secret.txt")});
        held_.push_back(std::move(tree));
    }

    std::uint64_t swaps() const { return counter_->load(); }
    std::string documents(const std::string& name) const { return at.base + "/documents/" + name; }

    /// Whether something of outside was changed or came in. What is wrong, "" for nothing.
    std::string escape() const {
        if (portraitOf(at.outside()) != before_) return "something outside was changed";
        for (const std::string& content : contents()) {
            if (content.find(kCanary) != std::string::npos) return "something outside was read";
        }
        return {};
    }
    /// Of what was put in, how much is nowhere.
    std::size_t lost() const {
        const auto there = contents();
        std::size_t count = 0;
        for (const std::string& token : tokens_) count += there.contains(token) ? 0 : 1;
        return count;
    }
    void begin() {
        if (counter_ != nullptr) return fork();
        void* shared = ::mmap(nullptr, sizeof(*counter_), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
        if (shared == MAP_FAILED) std::abort();
        counter_ = new (shared) std::atomic<std::uint64_t>(0);
        fork();
    }
    void end() {
        if (swapper_ <= 0) return;
        ::kill(swapper_, SIGKILL);
        ::waitpid(swapper_, nullptr, 0);
        swapper_ = -1;
    }
    /// Everything stands under its own name again. What an operation left in a folder is found by the folder's place,
    /// or by what an index knows of it, and here is none.
    void putBack() const {
        for (const Pair& pair : pairs_) {
            struct stat status{};
            if (::fstatat(pair.folder, pair.name.c_str(), &status, AT_SYMLINK_NOFOLLOW) != 0) continue;
            if (!S_ISLNK(status.st_mode)) continue;
            (void)::renameat2(pair.folder, pair.name.c_str(), pair.folder, pair.link.c_str(), RENAME_EXCHANGE);
        }
    }

    Workplace at;
    Descriptor folder, target;

private:
    void fork() {
        swapper_ = ::fork();
        if (swapper_ != 0) return;
        // Nobody else would end it if this process fails.
        ::prctl(PR_SET_PDEATHSIG, SIGKILL);
        for (std::uint64_t random = 1;; ++*counter_) {
            random = random * 6364136223846793005ULL + 1442695040888963407ULL;
            const Pair& pair = pairs_[(random >> 33) % pairs_.size()];
            if (::renameat2(pair.folder, pair.name.c_str(), pair.folder, pair.link.c_str(), RENAME_EXCHANGE) == 0) {
                continue;
            }
            if (errno == ENOENT) (void)::symlinkat(pair.target.c_str(), pair.folder, pair.link.c_str());
        }
    }
    std::set<std::string> contents() const {
        std::set<std::string> found;
        std::error_code ignored;
        using Iterator = std::filesystem::recursive_directory_iterator;
        for (auto entry = Iterator(at.path(), ignored); entry != Iterator(); entry.increment(ignored)) {
            if (!entry->is_symlink(ignored) && entry->is_regular_file(ignored)) {
                found.insert(testing::readFile(entry->path().string()));
            }
        }
        return found;
    }

    Descriptor root_, stage_, documents_;
    std::vector<Descriptor> held_;
    std::vector<Pair> pairs_;
    std::set<std::string> tokens_, documentTokens_;
    std::uint64_t made_ = 0;
    std::string before_;
    std::atomic<std::uint64_t>* counter_ = nullptr;
    pid_t swapper_ = -1;
};

struct Operation {
    std::string name;
    /// One time; the number of what it deleted or made for the test alone, nothing when it failed.
    std::function<bool(Rig& rig, const std::string& number)> run;
    /// The same by paths, each looked at for links before.
    std::function<void(Rig& rig, const std::string& number)> byPath;
    std::size_t deletesAtMost = 0;  ///< files, each time
};

/// What whoever goes by paths believes to be enough.
bool isNoLink(const Rig& rig, std::initializer_list<const char*> places) {
    for (const char* place : places) {
        struct stat status{};
        if (::lstat(rig.at.path(place).c_str(), &status) != 0 || S_ISLNK(status.st_mode)) return false;
    }
    // Then something else comes first, as in any program that has more to do.
    ::usleep(50);
    return true;
}

void copyByPath(const std::string& from, const std::string& to) {
    std::string text(100, '\0');
    const Descriptor source(::open(from.c_str(), O_RDONLY | O_CLOEXEC));
    const ssize_t size = source.valid() ? ::read(source.get(), text.data(), text.size()) : -1;
    const Descriptor copy(::open(to.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0644));
    if (size > 0 && copy.valid() && ::write(copy.get(), text.data(), static_cast<std::size_t>(size)) < 0) std::abort();
}

void takeAway(int folder, const char* name) {
    std::error_code ignored;
    std::filesystem::remove_all("/proc/self/fd/" + std::to_string(folder) + "/" + name, ignored);
}

/// The copies in the target, before they are taken away.
bool isInsideOnly(Rig& rig, const char* name) {
    const std::string path = "/proc/self/fd/" + std::to_string(rig.target.get()) + "/" + name;
    std::error_code ignored;
    if (std::filesystem::is_directory(path, ignored)) {
        for (const auto& [entry, text] : treeOf(path)) {
            if (text.find(kCanary) != std::string::npos) return false;
        }
        return true;
    }
    return std::filesystem::is_symlink(path, ignored) || testing::readFile(path).find(kCanary) == std::string::npos;
}

const std::vector<Operation>& operations() {
    static const std::vector<Operation> all{
        {"import a file",
         [](Rig& rig, const std::string&) {
             const auto done =
                 importItem(*rig.at.context, rig.at.path("stage/folder/secret.txt"), rig.at.place("stage/target"));
             EXPECT_TRUE(!done || isInsideOnly(rig, "secret.txt")) << "a file from outside was imported";
             takeAway(rig.target.get(), "secret.txt");
             return done.has_value();
         },
         [](Rig& rig, const std::string& number) {
             if (!isNoLink(rig, {"stage", "stage/folder", "stage/folder/secret.txt", "stage/target"})) return;
             copyByPath(rig.at.path("stage/folder/secret.txt"), rig.at.path("stage/target/" + number));
         }},
        {"import a folder",
         [](Rig& rig, const std::string& number) {
             const bool isBelow = number.back() % 2 == 0;
             const auto done =
                 importItem(*rig.at.context, isBelow ? rig.at.path("stage/folder/tree") : rig.documents("tree"),
                            rig.at.place("stage/target"));
             EXPECT_TRUE(!done || isInsideOnly(rig, "tree")) << "something from outside was imported";
             takeAway(rig.target.get(), "tree");
             return done.has_value();
         },
         [](Rig& rig, const std::string& number) {
             if (!isNoLink(rig, {"stage", "stage/folder", "stage/folder/tree", "stage/folder/tree/inner",
                                 "stage/folder/tree/inner/secret.txt"})) {
                 return;
             }
             copyByPath(rig.at.path("stage/folder/tree/inner/secret.txt"), rig.at.path("stage/target/" + number));
         }},
        {"make a folder",
         [](Rig& rig, const std::string& number) {
             return makeFolder(*rig.at.context, rig.at.place("stage/target"), number).has_value();
         },
         [](Rig& rig, const std::string& number) {
             if (!isNoLink(rig, {"stage", "stage/target"})) return;
             (void)::mkdir(rig.at.path("stage/target/" + number).c_str(), 0755);
         }},
        {"rename",
         [](Rig& rig, const std::string& number) {
             rig.put(rig.folder.get(), "item");
             return renameItem(*rig.at.context, rig.at.place("stage/folder/item"), number).has_value();
         },
         [](Rig& rig, const std::string& number) {
             rig.put(rig.folder.get(), "item");
             if (!isNoLink(rig, {"stage", "stage/folder", "stage/folder/item"})) return;
             (void)::rename(rig.at.path("stage/folder/item").c_str(), rig.at.path("stage/folder/" + number).c_str());
         }},
        {"move",
         [](Rig& rig, const std::string& number) {
             rig.put(rig.folder.get(), "item");
             return moveItem(*rig.at.context, rig.at.place("stage/folder/item"), rig.at.place("stage/target"), number)
                 .has_value();
         },
         [](Rig& rig, const std::string& number) {
             rig.put(rig.folder.get(), "item");
             if (!isNoLink(rig, {"stage", "stage/folder", "stage/folder/item", "stage/target"})) return;
             (void)::rename(rig.at.path("stage/folder/item").c_str(), rig.at.path("stage/target/" + number).c_str());
         }},
        {"move to another file system",
         [](Rig& rig, const std::string& number) {
             const bool isTree = number.back() % 2 == 0;
             if (isTree) rig.makeTree(rig.folder.get());
             if (!isTree) rig.put(rig.folder.get(), "item");
             return moveItem(*rig.at.context, rig.at.place(isTree ? "stage/folder/tree" : "stage/folder/item"),
                             rig.at.place("other"), number)
                 .has_value();
         },
         [](Rig& rig, const std::string& number) {
             rig.put(rig.folder.get(), "item");
             if (!isNoLink(rig, {"stage", "stage/folder", "stage/folder/item"})) return;
             copyByPath(rig.at.path("stage/folder/item"), rig.at.path("other/" + number));
             (void)::unlink(rig.at.path("stage/folder/item").c_str());
         }},
        {"trash",
         [](Rig& rig, const std::string& number) {
             rig.put(rig.folder.get(), "item");
             const auto trashed = trashItem(*rig.at.context, rig.at.place("stage/folder/item"), rig.at.place(".Trash"));
             // Makes room for the next one.
             if (trashed) (void)moveOutOfTrash(*rig.at.context, *trashed, rig.at.place("stage/kept"), number);
             return trashed.has_value();
         },
         [](Rig& rig, const std::string& number) {
             rig.put(rig.folder.get(), "item");
             if (!isNoLink(rig, {"stage", "stage/folder", "stage/folder/item", ".Trash"})) return;
             (void)::rename(rig.at.path("stage/folder/item").c_str(), rig.at.path(".Trash/" + number).c_str());
         }},
        {"out of the trash",
         [](Rig& rig, const std::string& number) {
             rig.put(rig.folder.get(), "item");
             const auto trashed = trashItem(*rig.at.context, rig.at.place("stage/folder/item"), rig.at.place(".Trash"));
             return trashed &&
                    moveOutOfTrash(*rig.at.context, *trashed, rig.at.place("stage/target"), number).has_value();
         },
         [](Rig& rig, const std::string& number) {
             rig.put(rig.folder.get(), "item");
             if (!isNoLink(rig, {"stage", ".Trash", "stage/folder", "stage/folder/item", "stage/target"})) return;
             (void)::rename(rig.at.path("stage/folder/item").c_str(), rig.at.path(".Trash/item").c_str());
             (void)::rename(rig.at.path(".Trash/item").c_str(), rig.at.path("stage/target/" + number).c_str());
         }},
        {"delete a file",
         [](Rig& rig, const std::string&) {
             rig.put(rig.folder.get(), "item");
             return removeItem(*rig.at.context, rig.at.place("stage/folder/item")).has_value();
         },
         [](Rig& rig, const std::string&) {
             rig.put(rig.folder.get(), "item");
             if (!isNoLink(rig, {"stage", "stage/folder", "stage/folder/item"})) return;
             (void)::unlink(rig.at.path("stage/folder/item").c_str());
         },
         1},
        {"delete a folder",
         [](Rig& rig, const std::string&) {
             rig.makeTree(rig.folder.get());
             return removeItem(*rig.at.context, rig.at.place("stage/folder/tree")).has_value();
         },
         [](Rig& rig, const std::string&) {
             rig.makeTree(rig.folder.get());
             if (!isNoLink(rig, {"stage", "stage/folder", "stage/folder/tree", "stage/folder/tree/inner"})) return;
             (void)::unlink(rig.at.path("stage/folder/tree/inner/secret.txt").c_str());
         },
         2},
    };
    return all;
}

/// On a file system of its own, with another one in it.
std::string onTwoFileSystems(const std::function<std::string(const std::string& base)>& body) {
    const testing::TemporaryDirectory directory;
    return testing::inChild([&]() -> std::string {
        if (const auto reason = testing::becomeOwnerOfMounts()) return "skip: " + *reason;
        testing::makeDirectories(directory.path("Documents/other"));
        if (::mount("tarnwell", directory.path("Documents/other").c_str(), "tmpfs", 0, nullptr) != 0) {
            return "skip: no tmpfs";
        }
        const std::string found = body(directory.path());
        return found + (::testing::Test::HasFailure() ? "; see above" : "");
    });
}

class HostileNeighbour : public ::testing::TestWithParam<std::size_t> {};

TEST_P(HostileNeighbour, GetsNothingInOrOutAndLosesNothing) {
    const Operation& operation = operations()[GetParam()];
    const std::string found = onTwoFileSystems([&](const std::string& base) -> std::string {
        Rig rig(base);
        const auto end = Clock::now() + std::chrono::milliseconds(testing::isLongRun() ? 3000 : 300);
        std::size_t rounds = 0, done = 0;
        while (Clock::now() < end ||
               ((done < 3 || rig.swaps() < 300) && Clock::now() < end + std::chrono::seconds(60))) {
            done += operation.run(rig, std::to_string(1000 + rounds)) ? 1 : 0;
            ++rounds;
        }
        rig.end();
        std::printf("%s: %zu of %zu rounds done, %llu exchanges\n", operation.name.c_str(), done, rounds,
                    static_cast<unsigned long long>(rig.swaps()));
        std::fflush(stdout);
        if (done < 3) return "it was never done";
        std::string wrong = rig.escape();
        rig.putBack();
        cleanUp(*rig.at.context);
        if (wrong.empty()) wrong = rig.escape();
        if (rig.lost() > rounds * operation.deletesAtMost) {
            wrong += "; " + std::to_string(rig.lost()) + " files are lost";
        }
        // A deletion that failed deletes nothing.
        if (operation.deletesAtMost == 1 && rig.lost() > done) wrong += "; more files are gone than were deleted";
        if (rig.at.records() != 0) wrong += "; a record is left";
        for (const std::string& left : temporariesBelow(rig.at.path())) wrong += "; left: " + left;
        return wrong;
    });
    if (found.starts_with("skip: ")) GTEST_SKIP() << found.substr(6);
    EXPECT_EQ(found, "");
}

TEST_P(HostileNeighbour, IsCaughtWithWhoGoesByPaths) {
    const Operation& operation = operations()[GetParam()];
    const std::string found = onTwoFileSystems([&](const std::string& base) -> std::string {
        Rig rig(base);
        const auto end = Clock::now() + std::chrono::seconds(60);
        for (std::size_t round = 0; Clock::now() < end; ++round) {
            operation.byPath(rig, std::to_string(1000 + round));
            if (round % 500 != 499) continue;
            rig.end();
            if (!rig.escape().empty()) return {};
            rig.begin();
        }
        return "whoever goes by paths is not caught, so nobody would be";
    });
    if (found.starts_with("skip: ")) GTEST_SKIP() << found.substr(6);
    EXPECT_EQ(found, "");
}

INSTANTIATE_TEST_SUITE_P(Operations, HostileNeighbour, ::testing::Range<std::size_t>(0, 10), [](const auto& row) {
    std::string name = operations()[row.param].name;
    std::replace(name.begin(), name.end(), ' ', '_');
    return name;
});

}  // namespace
}  // namespace tarnwell::operations
