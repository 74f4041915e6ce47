#include "host/Status.h"

#include <sys/stat.h>

#include <algorithm>

#include "platform/filesystem/Beneath.h"
#include "platform/store/Store.h"
#include "platform/watch/KernelLimits.h"
#include "platform/watch/KernelWatcher.h"

namespace tarnwell::host {
namespace {

constexpr const char* kComparing = "comparing";

/// What would watch the folder, found by trying.
std::string liveSourceFor(const Root& root) {
    auto watcher = watch::makeWatcher();
    if (!watcher || !(*watcher)->watch(root.directory.get(), FileID{1})) return kComparing;
    for (const auto& source : (*watcher)->sources()) {
        if (source.watches == 0) continue;
        return filesystem::isChangedElsewhere(root.directory.get()) ? source.name + ", polled" : source.name;
    }
    return kComparing;
}

bool isAvailable(const Root& root) {
    struct stat now{}, held{};
    return ::stat(root.realPath.c_str(), &now) == 0 && ::fstat(root.directory.get(), &held) == 0 &&
           now.st_dev == held.st_dev && now.st_ino == held.st_ino;
}

std::uint64_t sizeOf(const std::string& path) {
    struct stat status{};
    return ::stat(path.c_str(), &status) == 0 ? static_cast<std::uint64_t>(status.st_size) : 0;
}

session::StoreOrigin originOf(const store::Store& store) {
    switch (store.origin()) {
        case store::StoreOrigin::created:
            return session::StoreOrigin::created;
        case store::StoreOrigin::recoveredAfterDamage:
            return session::StoreOrigin::recoveredAfterDamage;
        case store::StoreOrigin::reopened:
            break;
    }
    return session::StoreOrigin::reopened;
}

}  // namespace

Result<session::Status> statusOf(ProgramContext& context) {
    session::Status status;
    const auto live = context.liveStatus();
    for (const auto& root : context.roots().all()) {
        session::RootStatus one{root->realPath, isAvailable(*root), kComparing, liveSourceFor(*root)};
        if (live) one.source = one.liveSource;
        status.roots.push_back(std::move(one));
    }
    if (live) {
        for (const auto& source : live->sources) {
            status.watches += source.watches;
            status.queued = std::max<std::uint64_t>(status.queued, source.queued);
        }
        status.overflows = live->overflows;
        status.polledFolders = live->polledFolders;
    }
    const auto limits = watch::limits();
    status.queueLimit = limits.fanotifyQueuedEvents != 0 ? limits.fanotifyQueuedEvents : limits.inotifyQueuedEvents;
    status.storeDirectory = context.store().directory();
    status.storeUUID = context.store().uuid().text();
    status.storeOrigin = originOf(context.store());
    const std::string database = status.storeDirectory + "/index.sqlite";
    status.databaseBytes = sizeOf(database) + sizeOf(database + "-wal");
    store::Session session(context.store());
    status.objects = session.index().rowCount();
    status.journalBegin = session.journal().floor();
    status.journalEnd = raw(context.store().lastEventID());
    status.departures = session.journal().departureCount();
    if (const auto when = context.store().lastCompared()) status.lastCompared = Date(std::chrono::seconds(*when));
    if (auto checked = session.check(); !checked) return failure(checked.error());
    const auto search = context.searchIndex().status();
    if (search) status.search = *search;
    if (!search) status.searchProblem = search.error();
    return status;
}

}  // namespace tarnwell::host
