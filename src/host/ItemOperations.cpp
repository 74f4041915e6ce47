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
using operations::TransferProgress;

namespace {

/// Starts something with a completion, and waits for it.
template <typename T, typename Start>
T waitFor(const Start& start) {
    const auto answer = std::make_shared<std::promise<T>>();
    auto outcome = answer->get_future();
    start([answer](const T& given) { answer->set_value(given); });
    return outcome.get();
}

}  // namespace

ItemOperations::Outcome ItemOperations::run(const Start& start) const { return told(waitFor<Outcome>(start)); }

ItemOperations::Outcome ItemOperations::runStep(const JobStep* step, const std::optional<URL>& document,
                                                const Start& start) const {
    if (step == nullptr || !document) return run(start);
    const auto monitor = std::make_shared<TransferMonitor>([step](const TransferProgress& at) {
        step->job.report({.index = step->index,
                          .bytesDone = at.bytesDone,
                          .itemsDone = at.itemsDone,
                          .bytesTotal = at.bytesTotal,
                          .itemsTotal = at.itemsTotal});
    });
    step->job.setCanceller([monitor] { monitor->cancel(); });
    auto outcome = run([&](ItemCompletion completion) {
        context_.fileOperations().startWatched(*document, monitor, [&] { start(std::move(completion)); });
    });
    step->job.setCanceller({});
    return outcome;
}

/// Of a name that is taken it says by what and where.
ItemOperations::Outcome ItemOperations::told(Outcome outcome) const {
    if (!outcome && outcome.error().is(ErrorDomain::host, hostframework::kFilenameCollision)) {
        outcome.error().userInfo[kErrorMessage] = collisionText(outcome.error());
    }
    return outcome;
}

/// `a file named "x.txt" is already in "Notes"`.
std::string ItemOperations::collisionText(const Error& error) const {
    const auto found = [&](const char* key) {
        const auto entry = error.userInfo.find(key);
        return entry == error.userInfo.end() ? std::string() : entry->second;
    };
    std::string kind = "something";
    std::string place = "there";
    if (const auto existing = context_.provider().itemForIdentifier(found(hostframework::kErrorItemIdentifier))) {
        kind = (*existing)->isFolder() ? "a folder" : "a file";
        const Identifier& parent = (*existing)->parentItemIdentifier();
        if (parent == hostframework::kRootContainer) {
            place = "in the storage root";
        } else if (const auto folder = context_.provider().itemForIdentifier(parent)) {
            place = "in \"" + (*folder)->filename() + "\"";
        }
    }
    return kind + " named \"" + found(hostframework::kErrorItemName) + "\" is already " + place;
}

ItemOperations::Outcome ItemOperations::import(const std::string& path, const Identifier& parent,
                                               const JobStep* step) const {
    const auto real = realPathOfEntry(path);
    if (!real) return failure(posixError(ENOENT, "there is nothing at that path"));
    const URL document = context_.roots().urlForRealPath(*real);
    struct stat status{};
    const bool isFolder = ::stat(real->c_str(), &status) == 0 && S_ISDIR(status.st_mode);
    const auto allowed = guards_.mayAdd(std::string(document.lastPathComponent()),
                                        isFolder ? Guards::Kind::folder : Guards::Kind::document, parent);
    if (!allowed) return failure(allowed.error());
    return runStep(step, document, [&](ItemCompletion completion) {
        context_.provider().importDocumentAtURL(document, parent, std::move(completion));
    });
}

ItemOperations::Outcome ItemOperations::makeFolder(const std::string& name, const Identifier& parent) const {
    if (auto allowed = guards_.mayAdd(name, Guards::Kind::folder, parent); !allowed) return failure(allowed.error());
    return run([&](ItemCompletion completion) {
        context_.provider().createDirectoryWithName(name, parent, std::move(completion));
    });
}

ItemOperations::Outcome ItemOperations::rename(const Identifier& item, const std::string& name) const {
    if (auto allowed = guards_.mayRename(item, name); !allowed) return failure(allowed.error());
    return run([&](ItemCompletion completion) {
        context_.provider().renameItemWithIdentifier(item, name, std::move(completion));
    });
}

// What goes to another file system, also into a trash or out of it, is copied, which may take long.

ItemOperations::Outcome ItemOperations::move(const Identifier& item, const Identifier& parent,
                                             const std::optional<std::string>& name, const JobStep* step) const {
    if (auto allowed = guards_.mayMove(item, parent, name); !allowed) return failure(allowed.error());
    const auto place = context_.provider().URLForItemWithPersistentIdentifier(item);
    return runStep(step, place, [&](ItemCompletion completion) {
        context_.provider().reparentItemWithIdentifier(item, parent, name, std::move(completion));
    });
}

ItemOperations::Outcome ItemOperations::trash(const Identifier& item, const JobStep* step) const {
    if (auto allowed = guards_.mayTrash(item); !allowed) return failure(allowed.error());
    const auto place = context_.provider().URLForItemWithPersistentIdentifier(item);
    return runStep(step, place, [&](ItemCompletion completion) {
        context_.provider().trashItemWithIdentifier(item, std::move(completion));
    });
}

ItemOperations::Outcome ItemOperations::restore(const Identifier& item, const std::optional<Identifier>& parent,
                                                const JobStep* step) const {
    if (auto allowed = guards_.mayRestore(item, parent); !allowed) return failure(allowed.error());
    const auto target = parent ? parent : rememberedParent(item);
    const auto place = context_.provider().URLForItemWithPersistentIdentifier(item);
    auto outcome = runStep(step, place, [&](ItemCompletion completion) {
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

Result<session::Removed> ItemOperations::remove(const Identifier& item) const {
    if (auto allowed = guards_.mayDelete(item); !allowed) return failure(allowed.error());
    const auto place = context_.provider().URLForItemWithPersistentIdentifier(item);
    if (!place) return failure(hostframework::noSuchItem(item));
    const auto error = waitFor<std::optional<Error>>(
        [&](Completion completion) { context_.provider().deleteItemWithIdentifier(item, std::move(completion)); });
    if (error) return failure(*error);
    return session::Removed{item, context_.roots().realPath(place->path())};
}

Result<session::CleanedTrash> ItemOperations::cleanTrash(Date olderThan) const {
    const auto before = trashEntries();
    const auto error = waitFor<std::optional<Error>>([&](Completion completion) {
        context_.provider().removeTrashedItemsOlderThanDate(olderThan, std::move(completion));
    });
    if (error) return failure(*error);
    const auto after = trashEntries();
    session::CleanedTrash cleaned;
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

ItemOperations::Outcome ItemOperations::setTags(const Identifier& item, const std::vector<std::string>& labels) const {
    std::vector<hostframework::Tag> tags;
    tags.reserve(labels.size());
    for (const std::string& label : labels) tags.push_back({label, std::nullopt});
    return run([&](ItemCompletion completion) {
        context_.provider().setTagData(hostframework::TagCodec::encode(tags), item, std::move(completion));
    });
}

ItemOperations::Outcome ItemOperations::setRank(const Identifier& item,
                                                const std::optional<std::uint64_t>& rank) const {
    return run(
        [&](ItemCompletion completion) { context_.provider().setFavoriteRank(rank, item, std::move(completion)); });
}

ItemOperations::Outcome ItemOperations::setLastUsed(const Identifier& item, const std::optional<Date>& date) const {
    auto outcome =
        run([&](ItemCompletion completion) { context_.provider().setLastUsedDate(date, item, std::move(completion)); });
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
