#include "platform/operations/Move.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>
#include <chrono>
#include <thread>

#include "platform/operations/Announced.h"
#include "platform/operations/CrossDevice.h"
#include "platform/operations/EntryNames.h"
#include "platform/operations/NoReplace.h"
#include "platform/operations/OperationErrors.h"
#include "platform/operations/Operations.h"
#include "platform/operations/Scratch.h"

namespace tarnwell::operations {
namespace {

constexpr const char* kCannot = "be moved";

/// Of a name to which something is to be moved, and under which something stands.
enum class Standing {
    another,
    itself,        ///< both names are one entry, as "a" and "A" are where case does not count
    itselfPerhaps  ///< where an object has another number under each spelling of its name
};

/// A file system in user space may forget only after a second that there was something under another spelling.
constexpr std::chrono::milliseconds kSpellingIsRemembered{1500};

bool lists(const OpenFolder& folder, const std::string& name) {
    auto open = filesystem::openBeneath(folder.get(), {}, O_RDONLY | O_DIRECTORY);
    if (!open) return true;
    filesystem::DirectoryReader reader(open->get());
    filesystem::DirectoryEntry entry;
    for (;;) {
        const auto more = reader.next(entry);
        if (!more || entry.name == name) return true;
        if (!*more) return false;
    }
}

Standing standing(const OpenItem& item, const OpenFolder& folder, const std::string& name) {
    if (!isSameObject(item.folder.status, folder.status)) return Standing::another;
    const auto there = filesystem::statusAt(folder.get(), name.c_str());
    if (!there) return Standing::another;
    if (isSameObject(*there, item.status)) {
        // Another name of a file with several is another entry: whether it is listed as such decides.
        if (S_ISDIR(item.status.mode) || item.status.links == 1) return Standing::itself;
        return lists(folder, name) ? Standing::another : Standing::itself;
    }
    const bool looksAlike = there->device == item.status.device && there->mode == item.status.mode &&
                            there->size == item.status.size && there->modified == item.status.modified;
    return looksAlike && !lists(folder, name) ? Standing::itselfPerhaps : Standing::another;
}

/// Another way to write the same name: in two steps, since the kernel takes the second name for the first. Where it was
/// the name of something else, that is found by the second step, and the first one undone.
Result<void> respell(const Context& context, const OpenItem& item, const std::string& name,
                     std::chrono::milliseconds patience) {
    const bool isFolder = S_ISDIR(item.status.mode);
    auto scratch = Scratch::reserve(context.store, item.folder, store::TemporaryKind::aside, item.name);
    if (!scratch) return failure(scratch.error());
    const int folder = item.folder.get();
    auto done = renameWithoutReplacing(folder, item.name, folder, scratch->name(), isFolder);
    if (!done) {
        scratch->forget();
        return done;
    }
    const auto end = std::chrono::steady_clock::now() + patience;
    for (;;) {
        done = renameWithoutReplacing(folder, scratch->name(), folder, name, isFolder);
        const bool isTaken = !done && done.error().is(ErrorDomain::posix, EEXIST);
        if (!isTaken || std::chrono::steady_clock::now() >= end) break;
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    if (done || renameWithoutReplacing(folder, scratch->name(), folder, item.name, isFolder)) scratch->forget();
    return done;
}

Result<void> put(const Context& context, const OpenItem& item, const OpenFolder& folder, const std::string& name,
                 const MoveOptions& options) {
    if (isSameObject(item.folder.status, folder.status) && item.name == name) return {};
    if (options.aboutToAppear) {
        // The kernel is asked first, since what is told costs more.
        const auto there = filesystem::statusAt(folder.get(), name.c_str());
        if (there && standing(item, folder, name) == Standing::another) return failure(posixError(EEXIST));
        options.aboutToAppear(item.status, name);
    }
    Announced announced(context);
    announced.take(item.folder.status, item.name, item.status);
    announced.give(folder.status, name, item.status);
    auto done = renameWithoutReplacing(item.folder.get(), item.name, folder.get(), name, S_ISDIR(item.status.mode));
    if (!done && done.error().is(ErrorDomain::posix, EEXIST)) {
        const Standing what = standing(item, folder, name);
        const auto patience = what == Standing::itselfPerhaps ? kSpellingIsRemembered : std::chrono::milliseconds(0);
        if (what != Standing::another) done = respell(context, item, name, patience);
    }
    return announced.madeIf(std::move(done));
}

}  // namespace

Result<Place> moveItem(const Context& context, const Place& place, const Place& target, const std::string& name,
                       const MoveOptions& options) {
    if (auto valid = checkNewName(name); !valid) return failure(valid.error());
    const auto item = openItem(place);
    if (!item) return failure(item.error());
    const Place& from = item->folder.place;
    if (from.root == target.root && from.relative == target.relative) {
        return moveOpened(context, *item, item->folder, name, options);
    }
    const auto folder = openFolder(target);
    if (!folder) return failure(folder.error());
    return moveOpened(context, *item, *folder, name, options);
}

Result<Place> moveOpened(const Context& context, const OpenItem& item, const OpenFolder& folder,
                         const std::string& name, const MoveOptions& options) {
    const std::string path = realPath(item.folder.placeOf(item.name));
    if (S_ISDIR(item.status.mode)) {
        const auto inside = isInside(folder.get(), item.status);
        if (!inside) return failure(explained(inside.error(), kCannot, path));
        if (*inside) return failure(posixError(EINVAL, "the folder \"" + path + "\" cannot be moved into itself"));
    }
    auto named = putUnderName(folder, name, options.taken,
                              [&](const std::string& tried) { return put(context, item, folder, tried, options); });
    if (!named && named.error().is(ErrorDomain::posix, EXDEV)) {
        named = moveByCopying(context, item, folder, name, options);
    }
    if (named) return folder.placeOf(*named);
    Error error = explained(named.error(), kCannot, path, folder);
    const bool isRefusal = error.is(ErrorDomain::generalFile, kWriteNotPermitted);
    if (isRefusal) {
        // It may be the folder that it leaves which does not let it go.
        const Error leaving = explained(named.error(), kCannot, path, item.folder);
        const std::string& from = realPath(item.folder.place);
        if (leaving.userInfo.at(kErrorMessage).find("folder \"" + from + "\"") != std::string::npos) error = leaving;
    }
    if (!error.userInfo.contains(kErrorPath)) error.userInfo[kErrorPath] = path;
    return failure(std::move(error));
}

Result<Place> renameItem(const Context& context, const Place& item, const std::string& name) {
    const std::size_t slash = item.relative.rfind('/');
    const Place folder{item.root, slash == std::string::npos ? std::string() : item.relative.substr(0, slash)};
    return moveItem(context, item, folder, name);
}

}  // namespace tarnwell::operations
