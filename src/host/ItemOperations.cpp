#include "host/ItemOperations.h"

#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <future>
#include <iterator>

#include "host/Paths.h"
#include "hostframework/HostError.h"
#include "hostframework/TagCodec.h"
#include "items/ItemAttributes.h"
#include "items/LocalItem.h"
#include "items/TWPFileObjectIdentifier.h"
#include "items/TrashFolder.h"

namespace tarnwell::host {

using hostframework::Completion;
using hostframework::ItemCompletion;
using operations::TransferMonitor;

/// Starts the operation with a completion and waits for it.
template <typename T, typename Start>
T ItemOperations::waitFor(Start start, const std::shared_ptr<TransferMonitor>& monitor) {
    struct Answer {
        std::promise<T> outcome;
        Wakeup came;
    };
    const auto answer = std::make_shared<Answer>();
    auto outcome = answer->outcome.get_future();
    start([answer](const T& given) {
        answer->outcome.set_value(given);
        answer->came.signal();
    });
    if (monitor && interrupts_ != nullptr && !interrupted_ &&
        answer->came.wait(*interrupts_) == Wakeup::Woken::byInterrupt) {
        interrupted_ = true;
        monitor->cancel();
    }
    return outcome.get();
}

std::shared_ptr<TransferMonitor> ItemOperations::monitor(const URL& document) {
    auto monitor = std::make_shared<TransferMonitor>(listener_);
    context_.fileOperations().attachMonitor(document, monitor);
    return monitor;
}

ItemOperations::Outcome ItemOperations::import(const std::string& path, const Identifier& parent) {
    const auto real = realPathOfEntry(path);
    if (!real) return failure(posixError(ENOENT, "there is nothing at that path"));
    const URL document = context_.roots().urlForRealPath(*real);
    struct stat status{};
    const bool isFolder = ::stat(real->c_str(), &status) == 0 && S_ISDIR(status.st_mode);
    const auto allowed = guards_.mayAdd(std::string(document.lastPathComponent()),
                                        isFolder ? Guards::Kind::folder : Guards::Kind::document, parent);
    if (!allowed) return failure(allowed.error());
    const auto watched = monitor(document);
    return waitFor<Outcome>(
        [&](ItemCompletion completion) {
            context_.provider().importDocumentAtURL(document, parent, std::move(completion));
        },
        watched);
}

ItemOperations::Outcome ItemOperations::makeFolder(const std::string& name, const Identifier& parent) {
    if (auto allowed = guards_.mayAdd(name, Guards::Kind::folder, parent); !allowed) return failure(allowed.error());
    return waitFor<Outcome>([&](ItemCompletion completion) {
        context_.provider().createDirectoryWithName(name, parent, std::move(completion));
    });
}

ItemOperations::Outcome ItemOperations::rename(const Identifier& item, const std::string& name) {
    if (auto allowed = guards_.mayRename(item, name); !allowed) return failure(allowed.error());
    return waitFor<Outcome>([&](ItemCompletion completion) {
        context_.provider().renameItemWithIdentifier(item, name, std::move(completion));
    });
}

ItemOperations::Outcome ItemOperations::move(const Identifier& item, const Identifier& parent,
                                             const std::optional<std::string>& name) {
    if (auto allowed = guards_.mayMove(item, parent, name); !allowed) return failure(allowed.error());
    // To another file system it is a copy, which may take long.
    const auto place = context_.provider().URLForItemWithPersistentIdentifier(item);
    const auto watched = place ? monitor(*place) : nullptr;
    return waitFor<Outcome>(
        [&](ItemCompletion completion) {
            context_.provider().reparentItemWithIdentifier(item, parent, name, std::move(completion));
        },
        watched);
}

ItemOperations::Outcome ItemOperations::trash(const Identifier& item) {
    if (auto allowed = guards_.mayTrash(item); !allowed) return failure(allowed.error());
    return waitFor<Outcome>(
        [&](ItemCompletion completion) { context_.provider().trashItemWithIdentifier(item, std::move(completion)); });
}

ItemOperations::Outcome ItemOperations::restore(const Identifier& item, const std::optional<Identifier>& parent) {
    if (auto allowed = guards_.mayRestore(item, parent); !allowed) return failure(allowed.error());
    const auto target = parent ? parent : rememberedParent(item);
    auto outcome = waitFor<Outcome>([&](ItemCompletion completion) {
        context_.provider().untrashItemWithIdentifier(item, target, std::move(completion));
    });
    if (!outcome && outcome.error().is(ErrorDomain::host, hostframework::kInvalidParameter)) {
        outcome.error().userInfo[kErrorMessage] =
            "the folder that it came from is not known or not there any more; name one with --to";
    }
    return outcome;
}

std::optional<ItemOperations::Identifier> ItemOperations::rememberedParent(const Identifier& identifier) const {
    const auto item = context_.provider().itemForIdentifier(identifier);
    if (!item) return std::nullopt;
    const URL& place = (*item)->fileURL();
    if (items::valueOfAttribute(context_.environment(), items::LocalItem::xattrTrashPutBackName, place)) {
        return std::nullopt;
    }
    // What lies in no library has the storage root where its folder is gone, as others have their library.
    const bool isOwn = context_.providerManager().relationshipToDocumentStorage(place) == Relationship::contains;
    const auto top = isOwn ? std::optional(hostframework::kRootContainer) : std::nullopt;
    const auto origin = context_.fileOperations().trashOriginOf(place);
    if (!origin || !origin->folder) return top;
    const auto folder =
        items::TWPFileObjectIdentifier(context_.environment()).fileURLWithFileIdentifier(raw(*origin->folder));
    if (!folder || items::liesInTrash(folder->path())) return top;
    const auto parent = identifierForURL(context_, *folder);
    return parent ? parent : top;
}

Result<std::string> ItemOperations::remove(const Identifier& item) {
    if (auto allowed = guards_.mayDelete(item); !allowed) return failure(allowed.error());
    const auto place = context_.provider().URLForItemWithPersistentIdentifier(item);
    if (!place) return failure(hostframework::noSuchItem(item));
    const auto error = waitFor<std::optional<Error>>(
        [&](Completion completion) { context_.provider().deleteItemWithIdentifier(item, std::move(completion)); });
    if (error) return failure(*error);
    return context_.roots().realPath(place->path());
}

Result<CleanedTrash> ItemOperations::cleanTrash(Date olderThan) {
    const auto before = trashEntries();
    const auto error = waitFor<std::optional<Error>>([&](Completion completion) {
        context_.provider().removeTrashedItemsOlderThanDate(olderThan, std::move(completion));
    });
    if (error) return failure(*error);
    const auto after = trashEntries();
    CleanedTrash cleaned;
    std::ranges::set_difference(before, after, std::back_inserter(cleaned.removed));
    for (const std::string& path : after) {
        // The provider looks at no hidden entry.
        if (path[path.rfind('/') + 1] == '.') continue;
        const auto bytes = items::valueOfAttribute(context_.environment(), items::LocalItem::xattrTrashDateName,
                                                   context_.roots().urlForRealPath(path));
        const auto date = bytes ? archive::unarchiveDate(*bytes) : Result<Date>(failure(posixError(ENODATA)));
        if (date && *date < olderThan) cleaned.left.push_back(path);
    }
    return cleaned;
}

std::vector<std::string> ItemOperations::trashEntries() const {
    std::vector<std::string> entries;
    for (const auto& root : context_.roots().all()) {
        std::error_code none;
        const std::filesystem::path folder = root->realPath + "/" + std::string(items::kTrashFolderName);
        if (std::filesystem::is_symlink(folder, none)) continue;
        for (std::filesystem::directory_iterator entry(folder, none), end; !none && entry != end;
             entry.increment(none)) {
            entries.push_back(entry->path().string());
        }
    }
    std::ranges::sort(entries);
    return entries;
}

ItemOperations::Outcome ItemOperations::setTags(const Identifier& item, const std::vector<std::string>& labels) {
    std::vector<hostframework::Tag> tags;
    tags.reserve(labels.size());
    for (const std::string& label : labels) tags.push_back({label, std::nullopt});
    return waitFor<Outcome>([&](ItemCompletion completion) {
        context_.provider().setTagData(hostframework::TagCodec::encode(tags), item, std::move(completion));
    });
}

ItemOperations::Outcome ItemOperations::setRank(const Identifier& item, const std::optional<std::uint64_t>& rank) {
    return waitFor<Outcome>(
        [&](ItemCompletion completion) { context_.provider().setFavoriteRank(rank, item, std::move(completion)); });
}

ItemOperations::Outcome ItemOperations::setLastUsed(const Identifier& item, const std::optional<Date>& date) {
    auto outcome = waitFor<Outcome>(
        [&](ItemCompletion completion) { context_.provider().setLastUsedDate(date, item, std::move(completion)); });
    if (!outcome && outcome.error().is(ErrorDomain::host, hostframework::kInvalidParameter)) {
        outcome.error().userInfo[kErrorMessage] = "an application's library has no such date";
    }
    // The provider gives the item all the same; a person wants to know.
    if (outcome && (*outcome)->lastUsedDate() != date) {
        return failure({ErrorDomain::generalFile, kWriteNotPermitted, {{kErrorMessage, "it may not be written to"}}});
    }
    return outcome;
}

}  // namespace tarnwell::host
