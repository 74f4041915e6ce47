#include "platform/operations/OpenFolder.h"

#include <fcntl.h>
#include <sys/stat.h>

#include "platform/base/SystemCall.h"
#include "platform/operations/OperationErrors.h"

namespace tarnwell::operations {
namespace {

/// Deeper than any folder that can be reached by a path in practice; ends a loop that a strange file system makes.
constexpr int kMostAncestors = 1'000'000;

std::string joined(const std::string& base, const std::string& below) {
    return below.empty() ? base : base + "/" + below;
}

}  // namespace

Place OpenFolder::placeOf(const std::string& name) const {
    return {place.root, place.relative.empty() ? name : place.relative + "/" + name};
}

std::string urlPath(const Place& place) { return joined(place.root->name, place.relative); }
std::string realPath(const Place& place) { return joined(place.root->realPath, place.relative); }

Result<OpenFolder> openFolder(const Place& place) {
    auto descriptor = filesystem::openBeneath(place.root->directory.get(), place.relative, O_PATH | O_DIRECTORY);
    if (!descriptor) return failure(explained(descriptor.error(), "be opened", realPath(place)));
    auto status = filesystem::statusOf(descriptor->get());
    if (!status) return failure(explained(status.error(), "be looked at", realPath(place)));
    return OpenFolder{place, std::move(*descriptor), *status};
}

Result<OpenItem> openItem(const Place& place) {
    if (place.relative.empty()) {
        return failure(explained(posixError(EBUSY), "be changed, because it is one of the folders that are shown",
                                 realPath(place)));
    }
    const std::size_t slash = place.relative.rfind('/');
    Place parent{place.root, slash == std::string::npos ? std::string() : place.relative.substr(0, slash)};
    auto folder = openFolder(parent);
    if (!folder) return failure(folder.error());
    std::string name = slash == std::string::npos ? place.relative : place.relative.substr(slash + 1);
    auto status = filesystem::statusAt(folder->get(), name.c_str());
    if (!status) return failure(explained(status.error(), "be looked at", realPath(place)));
    return OpenItem{std::move(*folder), std::move(name), *status};
}

Result<bool> isInside(int folder, const filesystem::Status& other) {
    auto status = filesystem::statusOf(folder);
    if (!status) return failure(status.error());
    Descriptor held;
    int at = folder;
    for (int steps = 0; steps < kMostAncestors; ++steps) {
        if (status->device == other.device && status->inode == other.inode) return true;
        Descriptor above(
            untilNotInterrupted([&] { return ::openat(at, "..", O_PATH | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC); }));
        // Who may not pass through a folder above cannot have it as the item either.
        if (!above.valid()) return errno == EACCES ? Result<bool>(false) : failedCall();
        auto next = filesystem::statusOf(above.get());
        if (!next) return failure(next.error());
        if (next->device == status->device && next->inode == status->inode && next->mount == status->mount)
            return false;
        status = next;
        held = std::move(above);
        at = held.get();
    }
    return failure(posixError(ELOOP));
}

}  // namespace tarnwell::operations
