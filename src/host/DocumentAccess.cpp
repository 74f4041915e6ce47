#include "host/DocumentAccess.h"

#include <cerrno>

#include "hostframework/HostError.h"
#include "platform/filesystem/Beneath.h"

namespace tarnwell::host {
namespace {

using hostframework::FileCoordinator;

/// Others than this host replace documents, too.
constexpr int kMostTries = 8;

bool standsAt(const Roots& roots, const URL& url, const Descriptor& opened) {
    const auto place = roots.locate(url.path());
    if (!place) return false;
    const auto there = filesystem::statusBeneath(place->root->directory.get(), place->relative);
    const auto held = filesystem::statusOf(opened.get());
    return there && held && there->device == held->device && there->inode == held->inode;
}

}  // namespace

Result<Descriptor> DocumentAccess::open(const session::ItemIdentifier& identifier,
                                        session::Session::Access access) const {
    const bool isWriting = access == session::Session::Access::readWrite;
    const auto use = isWriting ? FileCoordinator::Use::writing : FileCoordinator::Use::reading;
    for (int tries = 0; tries < kMostTries; ++tries) {
        const auto item = context_.provider().itemForIdentifier(identifier);
        if (!item) return failure(hostframework::noSuchItem(identifier));
        if (isWriting && !(*item)->isFolder() && ((*item)->capabilities() & session::kMayWrite) == 0) {
            return failure({ErrorDomain::generalFile, kWriteNotPermitted, {{kErrorMessage, "it is read-only"}}});
        }
        const URL& url = (*item)->fileURL();
        auto opened = context_.fileOperations().open(url, use);
        // Looked for again afterwards: the item may have gone elsewhere before it was opened, or be another file now.
        const auto after = context_.provider().URLForItemWithPersistentIdentifier(identifier);
        if (!after) return failure(hostframework::noSuchItem(identifier));
        if (after->path() != url.path()) continue;
        if (!opened) {
            if (opened.error().is(ErrorDomain::posix, ENOENT)) continue;
            return opened;
        }
        if (standsAt(context_.roots(), url, *opened)) return opened;
    }
    return failure(posixError(EBUSY, "it is moved or replaced all the time; try again"));
}

}  // namespace tarnwell::host
