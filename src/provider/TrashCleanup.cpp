#include "provider/TrashCleanup.h"

#include <chrono>
#include <limits>
#include <utility>

#include "fs/DirectoryScan.h"
#include "items/ItemAttributes.h"
#include "items/TrashFolder.h"
#include "platform/base/DateText.h"

namespace tarnwell::provider {

using hostframework::Completion;
using items::LogSection;
using items::quoted;

namespace {

constexpr const char* kNotifierLabel = "tarnwell.auto-delete.notifier";

}  // namespace

void TrashCleanup::removeTrashedItemsOlderThan(Date date, Completion completion) const {
    const LogSection section(log(), "remove trashed items older than " + iso8601(date));
    const auto group = std::make_shared<dispatch::Group>();
    fs::DirectoryScanOptions options;
    options.urls = trashFolders();
    options.limit = std::numeric_limits<std::uint64_t>::max();
    const auto scanned = fs::scan(context_.fs, options, [&](const URL& entry) -> Result<void> {
        check(entry, date, group);
        return {};
    });
    log().debug("wait until all deletions are complete");
    auto notifier = dispatch::SerialQueue::create(context_.fs.pool, kNotifierLabel);
    const std::optional<Error> error = scanned ? std::nullopt : std::optional(scanned.error());
    group->notify(std::move(notifier), [completion = std::move(completion), error] { completion(error); });
}

std::vector<URL> TrashCleanup::trashFolders() const {
    std::vector<URL> folders;
    for (const URL& root : context_.appLibraries.sharedManager().rootURLsForAppLibraries()) {
        folders.push_back(root.appending(items::kTrashFolderName));
    }
    folders.push_back(context_.fs.items.generationStore.documentStorageFolder().appending(items::kTrashFolderName));
    return folders;
}

void TrashCleanup::check(const URL& entry, Date date, const std::shared_ptr<dispatch::Group>& group) const {
    const auto trashed = trashDate(entry);
    if (!trashed || *trashed >= date) return;
    const auto identifier = lookup_.identifierForURL(entry);
    if (!identifier) {
        log().error("identifier lookup failed for URL " + quoted(entry.path()));
        return;
    }
    log().debug([&] { return "item " + *identifier + " was trashed before reference date, let's remove it"; });
    group->enter();
    trash_.deleteItem(*identifier, entry, [group, &log = log(), identifier](const std::optional<Error>& error) {
        if (error) log.error("can't remove item " + *identifier + "; " + describe(*error));
        group->leave();
    });
}

std::optional<Date> TrashCleanup::trashDate(const URL& entry) const {
    const auto bytes = attributes_.dateBytes(entry);
    if (!bytes) {
        log().debug([&] { return "can't find trash date for URL " + quoted(entry.path()) + "; set current date"; });
        stamp(entry);
        return std::nullopt;
    }
    auto date = items::decodeDate(log(), *bytes);
    if (!date) {
        log().debug(
            [&] { return "can't unarchive xattr data for URL " + quoted(entry.path()) + "; set current date"; });
        stamp(entry);
    }
    return date;
}

void TrashCleanup::stamp(const URL& entry) const { attributes_.writeDate(entry, std::chrono::system_clock::now()); }

}  // namespace tarnwell::provider
