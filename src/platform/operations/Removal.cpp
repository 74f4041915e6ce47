#include "platform/operations/Removal.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <limits>
#include <unordered_set>

#include "platform/base/SystemCall.h"
#include "platform/operations/Announced.h"
#include "platform/operations/Naming.h"
#include "platform/operations/NoReplace.h"
#include "platform/operations/OperationErrors.h"
#include "platform/operations/Scratch.h"
#include "platform/operations/TreeSurvey.h"
#include "platform/operations/TreeWalk.h"

namespace tarnwell::operations {
namespace {

constexpr const char* kCannot = "be removed";

enum class Permissions { asTheyAre, madeSufficient };

/// A removal of what is ours takes everything.
constexpr std::int64_t kHoweverNew = std::numeric_limits<std::int64_t>::max();

class Remover : public TreeVisitor {
public:
    Remover(Permissions permissions, std::int64_t newest) : permissions_(permissions), newest_(newest) {}

    Result<void> enter(const std::string&, int folder, const filesystem::Status& status) override {
        if (auto refused = check(status); !refused) return refused;
        open(folder, status);
        tries_.push_back(0);
        return {};
    }
    Result<void> entry(int folder, const std::string& name, const filesystem::Status& status) override {
        if (auto refused = check(status); !refused) return refused;
        if (auto done = unlink(folder, name, 0); !done) return done;
        // The other names of the file have a new change time now.
        if (status.links > 1 && newest_ != kHoweverNew) {
            if (changedHere_.size() < kMostChangedHere) {
                changedHere_.insert(status.inode);
            } else {
                newest_ = kHoweverNew;
            }
        }
        return {};
    }
    Result<Leaving> leave(int parent, const std::string& name, int) override {
        auto done = unlink(parent, name, AT_REMOVEDIR);
        if (!done) {
            const bool isFilled =
                done.error().is(ErrorDomain::posix, ENOTEMPTY) || done.error().is(ErrorDomain::posix, EEXIST);
            // Some file systems leave entries out while others go, and somebody may add one.
            if (!isFilled || ++tries_.back() == kMostTries) return failure(done.error());
            return Leaving::again;
        }
        tries_.pop_back();
        return Leaving::done;
    }
    void open(int folder, const filesystem::Status& status) const {
        constexpr std::uint32_t kNeeded = S_IRWXU;
        if (permissions_ == Permissions::asTheyAre || (status.mode & kNeeded) == kNeeded) return;
        (void)::fchmod(folder, (status.mode & 07777) | kNeeded);
    }

    std::uint64_t removed = 0;
    bool foundNewer = false;

private:
    static constexpr int kMostTries = 8;
    /// Bounds the memory for a tree of nothing but files with several names; what comes into one past it is not told
    /// from the rest.
    static constexpr std::size_t kMostChangedHere = 1'000'000;

    Result<void> check(const filesystem::Status& status) {
        if (status.changed <= newest_ || changedHere_.contains(status.inode)) return {};
        foundNewer = true;
        return failure(posixError(EBUSY, "it came or was changed after the removal had begun"));
    }

    Result<void> unlink(int folder, const std::string& name, int flags) {
        if (untilNotInterrupted([&] { return ::unlinkat(folder, name.c_str(), flags); }) != 0) {
            if (errno == ENOENT) return {};
            return failedCall();
        }
        ++removed;
        return {};
    }

    const Permissions permissions_;
    std::int64_t newest_;
    std::unordered_set<std::uint64_t> changedHere_;
    std::vector<int> tries_;
};

struct Emptied {
    Result<void> result;
    std::uint64_t removed = 0;
    bool foundNewer = false;
    std::string failedAt;  ///< relative to the top
};

/// Removes what is in the folder, if its change time is none later than `newest`, and then itself from its parent.
Emptied removeTree(const Descriptor& top, int parent, const std::string& name, Permissions permissions,
                   std::int64_t newest) {
    constexpr int kMostTries = 8;
    Remover remover(permissions, newest);
    for (int tries = 1;; ++tries) {
        TreeWalk walk(remover);
        if (auto done = walk.run(top); !done) return {done, remover.removed, remover.foundNewer, walk.path()};
        if (untilNotInterrupted([&] { return ::unlinkat(parent, name.c_str(), AT_REMOVEDIR); }) == 0) {
            return {{}, remover.removed + 1, false, {}};
        }
        if ((errno != ENOTEMPTY && errno != EEXIST) || tries == kMostTries) {
            return {failedCall(), remover.removed, false, {}};
        }
    }
}

/// Gives what has the hidden name its own again, or one like it; that name.
Result<std::string> giveNameBack(const OpenFolder& folder, const std::string& hidden, const std::string& name,
                                 bool isFolder) {
    return putUnderName(folder, name, Taken::freeName, [&](const std::string& tried) {
        return renameWithoutReplacing(folder.get(), hidden, folder.get(), tried, isFolder);
    });
}

Result<Descriptor> openForReading(int folder, const std::string& name) {
    return filesystem::openBeneath(folder, name, O_RDONLY | O_DIRECTORY);
}

/// What could not be removed gets its name back, or one like it.
Error takenBack(const OpenItem& item, Scratch& scratch, const Emptied& emptied, std::uint64_t items,
                const std::string& path) {
    const auto back = giveNameBack(item.folder, scratch.name(), item.name, true);
    const std::string left = realPath(item.folder.placeOf(back ? *back : scratch.name()));
    if (back) scratch.forget();
    const std::string failed = path + (emptied.failedAt.empty() ? "" : "/" + emptied.failedAt);
    Error error = explained(emptied.result.error(), kCannot, failed);
    std::string& message = error.userInfo[kErrorMessage];
    if (emptied.removed == 0) {
        message += "; nothing was removed";
    } else {
        const std::uint64_t others = items > emptied.removed ? items - emptied.removed : 0;
        message += "; " + std::to_string(emptied.removed) + " of " + std::to_string(items) +
                   " items were removed, the other " + std::to_string(others) + " are left in \"" + left + "\"";
    }
    if (!back) message += "; what is left is removed when the program starts again";
    error.userInfo[kErrorPath] = path;
    return error;
}

Result<void> removeFolder(const Context& context, const OpenItem& item, const std::string& path) {
    const auto explain = [&](const Error& error) { return failure(explained(error, kCannot, path, item.folder)); };
    auto folder = openForReading(item.folder.get(), item.name);
    if (!folder) return explain(folder.error());
    const auto opened = filesystem::statusOf(folder->get());
    if (!opened) return explain(opened.error());
    if (opened->mount != item.folder.status.mount) return explain(posixError(EBUSY));
    const auto found = survey(*folder, SurveyFor::removal, path);
    if (!found) return failure(found.error());

    auto scratch = Scratch::reserve(context.store, item.folder, store::TemporaryKind::removal, item.name);
    if (!scratch) {
        // A store without room is no reason to keep what people want to be rid of.
        const Emptied emptied =
            removeTree(*folder, item.folder.get(), item.name, Permissions::asTheyAre, found->newest);
        if (emptied.result) return {};
        return explain(emptied.result.error());
    }
    if (auto hidden = renameWithoutReplacing(item.folder.get(), item.name, item.folder.get(), scratch->name(), true);
        !hidden) {
        scratch->forget();
        return explain(hidden.error());
    }
    // Somebody may have given the name to another folder since it was looked at.
    const auto now = filesystem::statusAt(item.folder.get(), scratch->name().c_str());
    if (!now || !isSameObject(*now, *opened)) {
        const bool isFolder = !now || S_ISDIR(now->mode);
        if (!now || giveNameBack(item.folder, scratch->name(), item.name, isFolder)) {
            scratch->forget();
        } else {
            (void)scratch->become(store::TemporaryKind::aside);
        }
        return explain(now ? posixError(ESTALE) : now.error());
    }
    const Emptied emptied =
        removeTree(*folder, item.folder.get(), scratch->name(), Permissions::asTheyAre, found->newest);
    if (!emptied.result) return failure(takenBack(item, *scratch, emptied, found->items, path));
    scratch->forget();
    return {};
}

}  // namespace

Result<void> removeItem(const Context& context, const Place& place) {
    auto item = openItem(place);
    if (!item) return failure(item.error());
    const std::string path = realPath(place);
    const bool isFolder = S_ISDIR(item->status.mode);
    const int flags = isFolder ? AT_REMOVEDIR : 0;
    Announced announced(context);
    announced.take(item->folder.status, item->name, item->status);
    if (untilNotInterrupted([&] { return ::unlinkat(item->folder.get(), item->name.c_str(), flags); }) == 0) {
        return announced.madeIf(Result<void>());
    }
    if (isFolder && (errno == ENOTEMPTY || errno == EEXIST)) {
        return announced.madeIf(removeFolder(context, *item, path));
    }
    return failure(explained(posixError(errno), kCannot, path, item->folder));
}

Result<void> removeOwn(int folder, const std::string& name) {
    const auto status = filesystem::statusAt(folder, name.c_str());
    if (!status) {
        if (status.error().is(ErrorDomain::posix, ENOENT)) return {};
        return failure(status.error());
    }
    if (!S_ISDIR(status->mode)) {
        if (untilNotInterrupted([&] { return ::unlinkat(folder, name.c_str(), 0); }) == 0) return {};
        return failedCall();
    }
    if ((status->mode & S_IRWXU) != S_IRWXU) {
        // Opened only for its place: reading is what the folder does not allow.
        auto closed = filesystem::openBeneath(folder, name, O_PATH | O_DIRECTORY);
        if (closed) (void)::chmod(pathOfDescriptor(closed->get()).c_str(), (status->mode & 07777) | S_IRWXU);
    }
    auto top = openForReading(folder, name);
    if (!top) return failure(top.error());
    return removeTree(*top, folder, name, Permissions::madeSufficient, kHoweverNew).result;
}

Result<void> removeAfterMove(const Context& context, const OpenFolder& folder, const std::string& name,
                             const filesystem::Status& expected, const TreeSurvey& found) {
    const bool isFolder = S_ISDIR(expected.mode);
    auto scratch = Scratch::reserve(context.store, folder, store::TemporaryKind::aside, name);
    if (!scratch) return failure(scratch.error());
    if (auto hidden = renameWithoutReplacing(folder.get(), name, folder.get(), scratch->name(), isFolder); !hidden) {
        scratch->forget();
        return hidden;
    }
    const auto giveBack = [&](Error error) {
        if (giveNameBack(folder, scratch->name(), name, isFolder)) scratch->forget();
        return failure(std::move(error));
    };
    const auto now = filesystem::statusAt(folder.get(), scratch->name().c_str());
    if (!now) return giveBack(now.error());
    if (!isSameObject(*now, expected) ||
        (isFolder ? now->modified != expected.modified : !isUnwritten(*now, expected))) {
        return giveBack(posixError(ESTALE));
    }
    if (!isFolder) {
        if (untilNotInterrupted([&] { return ::unlinkat(folder.get(), scratch->name().c_str(), 0); }) != 0) {
            return giveBack(posixError(errno));
        }
        scratch->forget();
        return {};
    }
    auto top = openForReading(folder.get(), scratch->name());
    if (!top) return giveBack(top.error());
    // Nobody comes here by name now: what is not in the copy by this look would be lost.
    const auto last = survey(*top, SurveyFor::copying, realPath(folder.placeOf(name)));
    if (!last) return giveBack(last.error());
    if (last->digestBelow != found.digestBelow) return giveBack(posixError(EBUSY, "it is being changed"));
    if (auto turned = scratch->become(store::TemporaryKind::removal); !turned) return giveBack(turned.error());
    const Emptied emptied = removeTree(*top, folder.get(), scratch->name(), Permissions::asTheyAre, last->newest);
    if (emptied.result) {
        scratch->forget();
        return {};
    }
    if (emptied.foundNewer || emptied.removed == 0) (void)scratch->become(store::TemporaryKind::aside);
    if (emptied.removed == 0) return giveBack(emptied.result.error());
    if (emptied.foundNewer) {
        const auto back = giveNameBack(folder, scratch->name(), name, true);
        if (back) scratch->forget();
        context.log.write(log::Level::error, "[ERROR] while \"" + realPath(folder.placeOf(name)) +
                                                 "\" was moved away, something was put into it; that is left at \"" +
                                                 realPath(folder.placeOf(back ? *back : scratch->name())) + "\"");
        return {};
    }
    context.log.write(log::Level::error,
                      "[ERROR] what was moved away from \"" + realPath(folder.placeOf(name)) +
                          "\" could not be removed there (" + describe(emptied.result.error()) +
                          "); it is complete at its new place, and the rest here is removed at the next start");
    return {};
}

Result<void> withdrawCopy(const Context& context, const OpenFolder& folder, const std::string& name,
                          const filesystem::Status& copy) {
    const bool isFolder = S_ISDIR(copy.mode);
    auto scratch = Scratch::reserve(context.store, folder, store::TemporaryKind::copy, name);
    if (!scratch) return failure(scratch.error());
    if (auto hidden = renameWithoutReplacing(folder.get(), name, folder.get(), scratch->name(), isFolder); !hidden) {
        scratch->forget();
        return hidden;
    }
    // Somebody may have put something else there, or made use of the copy already.
    const auto now = filesystem::statusAt(folder.get(), scratch->name().c_str());
    const bool isIt = now && isSameObject(*now, copy) && (isFolder || isUnwritten(*now, copy));
    if (!isIt) {
        (void)scratch->become(store::TemporaryKind::aside);
        const bool isFolderNow = now ? S_ISDIR(now->mode) : isFolder;
        if (!now || giveNameBack(folder, scratch->name(), name, isFolderNow)) scratch->forget();
        return failure(posixError(ESTALE));
    }
    // What cannot be removed now is removed at the next start.
    if (removeOwn(folder.get(), scratch->name())) scratch->forget();
    return {};
}

}  // namespace tarnwell::operations
