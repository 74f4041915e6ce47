#include "tests/deep/Mirror.h"

#include <set>

#include "hostframework/ItemIdentifier.h"

namespace tarnwell::deep {

namespace {

constexpr const char* kTrash = ".Trash";

std::string parentOf(const std::string& path) {
    const auto slash = path.rfind('/');
    return slash == std::string::npos ? std::string() : path.substr(0, slash);
}

std::string nameOf(const std::string& path) { return path.substr(path.rfind('/') + 1); }

std::string text(const Kept& kept) {
    const auto number = [](const auto& value) { return value ? std::to_string(*value) : std::string("none"); };
    return "\"" + kept.name + "\" in " + kept.parent + ", " + kept.type + ", size " + number(kept.size) +
           ", modified " + number(kept.modified) + ", children " + number(kept.children);
}

void addAll(Listing& listing, DeepDevice& device, const std::string& container, const std::string& prefix) {
    const auto found = device.list(container, host::Depth::recursive);
    if (!found) {
        listing.problems.push_back("listing " + container + " failed: " + describe(found.error()));
        return;
    }
    for (const auto& [item, path] : *found) {
        const std::string& identifier = item->itemIdentifier();
        if (!listing.items.emplace(identifier, keptOf(*item)).second) {
            listing.problems.push_back(identifier + " is listed twice, again at " + prefix + path);
        }
        if (!listing.identifiers.emplace(prefix + path, identifier).second) {
            listing.problems.push_back(prefix + path + " is listed twice");
        }
        listing.paths[identifier] = prefix + path;
    }
}

/// An object with several names: how many of them no listing shows, and how many this one does.
struct SharedObject {
    std::uint32_t unlisted = 0;
    std::uint32_t listed = 0;
};

bool differs(const DiskObject& a, const DiskObject& b) {
    return a.size != b.size || a.modified != b.modified || a.changed != b.changed || a.mode != b.mode;
}

}  // namespace

Kept keptOf(const hostframework::ProviderItem& item) {
    const auto modified = item.contentModificationDate();
    return {item.parentItemIdentifier(),
            item.filename(),
            item.typeIdentifier(),
            item.documentSize(),
            modified ? std::optional(modified->time_since_epoch().count()) : std::nullopt,
            item.childItemCount()};
}

Listing listEverything(DeepDevice& device, const Disk& disk) {
    Listing listing;
    addAll(listing, device, hostframework::kRootContainer, "");
    listing.trash = device.identifierOf(kTrash);
    if (listing.trash) {
        const auto trash = device.provider().itemForIdentifier(*listing.trash);
        if (trash && (*trash)->isFolder()) addAll(listing, device, *listing.trash, std::string(kTrash) + "/");
    }
    std::set<ObjectKey> halfHidden;
    for (const auto& [path, object] : disk) {
        if (object.hasSeveralNames() && (!object.visible || path == kTrash)) halfHidden.insert(object.key);
    }
    for (const auto& [path, object] : disk) {
        if (!object.visible || !halfHidden.contains(object.key)) continue;
        if (const auto identifier = device.identifierOf(path)) listing.halfHidden.insert(*identifier);
    }
    device.waitUntilQuiet();
    return listing;
}

Problems compareWithDisk(const Listing& listing, const Disk& disk) {
    Problems problems = listing.problems;
    std::map<ObjectKey, SharedObject> shared;
    for (const auto& [path, object] : disk) {
        const bool isListed = listing.identifiers.contains(path);
        if (object.hasSeveralNames()) {
            auto& names = shared[object.key];
            if (!object.visible || path == kTrash) ++names.unlisted;
            names.listed += isListed ? 1 : 0;
            if (isListed && !object.visible) problems.push_back(path + " is listed though it is hidden");
            continue;
        }
        if (isListed != (object.visible && path != kTrash)) {
            problems.push_back(path + (isListed ? " is listed though it is hidden" : " is not listed"));
        }
    }
    for (const auto& [key, names] : shared) {
        const std::string name = "the object with inode number " + std::to_string(key.first);
        if (names.listed > 1) problems.push_back(name + " is listed under several names");
        if (names.listed == 0 && names.unlisted == 0) problems.push_back(name + " is listed under none of its names");
    }
    for (const auto& [path, identifier] : listing.identifiers) {
        const auto found = disk.find(path);
        if (found == disk.end()) {
            problems.push_back(path + " is listed but not there");
            continue;
        }
        const DiskObject& object = found->second;
        const Kept& kept = listing.items.at(identifier);
        Kept expected = kept;
        expected.name = nameOf(path);
        expected.modified = object.modified;
        expected.size = object.isFile() ? std::optional(object.size) : std::nullopt;
        expected.children =
            object.isFolder() ? std::optional(static_cast<std::uint16_t>(object.entries)) : std::nullopt;
        const std::string parent = parentOf(path);
        if (parent.empty()) {
            expected.parent = hostframework::kRootContainer;
        } else if (parent == kTrash) {
            expected.parent = listing.trash.value_or("nothing");
        } else {
            const auto folder = listing.identifiers.find(parent);
            expected.parent = folder != listing.identifiers.end() ? folder->second : "nothing";
        }
        if (kept != expected) problems.push_back(path + " is listed as " + text(kept) + " and is " + text(expected));
        if (identifier.starts_with("did=") != object.isFile()) problems.push_back(path + " is listed as " + identifier);
    }
    return problems;
}

Problems IdentityLedger::check(const Listing& listing, const Disk& disk, Looks looks) {
    Problems problems;
    std::erase_if(bearers_, [&](const auto& bearer) {
        return bearer.first.starts_with("did=") && !listing.items.contains(bearer.first);
    });
    for (const auto& [path, identifier] : listing.identifiers) {
        const auto found = disk.find(path);
        if (found == disk.end()) continue;
        const Bearer now{found->second.key, found->second.parent, nameOf(path)};
        auto [bearer, isNew] = bearers_.emplace(identifier, now);
        if (isNew) continue;
        const Bearer& before = bearer->second;
        const bool mayBeAnother =
            !identifier.starts_with("fid=") &&
            (looks == Looks::inBetween || (before.parent == now.parent && before.name == now.name));
        if (before.key != now.key && !mayBeAnother) {
            problems.push_back(identifier + " named \"" + before.name + "\" (inode " +
                               std::to_string(before.key.first) + ") and now names " + path + " (inode " +
                               std::to_string(now.key.first) + ")");
        }
        bearer->second = now;
    }
    return problems;
}

void Mirror::apply(const std::vector<ToldChange>& changes) {
    for (const ToldChange& change : changes) {
        if (change.deleted) {
            items_.erase(change.identifier);
        } else {
            items_.insert_or_assign(change.identifier, keptOf(*change.item));
        }
    }
}

Problems Mirror::compare(const Listing& listing) const {
    // What hangs under a container that was deleted goes with it.
    const auto isReachable = [&](const std::string& identifier) {
        std::string at = identifier;
        for (std::size_t depth = 0; depth <= items_.size(); ++depth) {
            if (at == hostframework::kRootContainer) return true;
            const auto found = items_.find(at);
            if (found == items_.end()) return listing.trash == at;
            at = found->second.parent;
        }
        return false;
    };
    Problems problems;
    for (const auto& [identifier, kept] : items_) {
        if (identifier == listing.trash || listing.halfHidden.contains(identifier) || !isReachable(identifier))
            continue;
        const auto found = listing.items.find(identifier);
        if (found == listing.items.end()) {
            problems.push_back("the mirror still has " + identifier + ", " + text(kept));
        } else if (found->second != kept) {
            problems.push_back("the mirror has " + identifier + " as " + text(kept) + " and it is " +
                               text(found->second));
        }
    }
    for (const auto& [identifier, kept] : listing.items) {
        if (!items_.contains(identifier) && !listing.halfHidden.contains(identifier))
            problems.push_back("the mirror lacks " + identifier + ", " + text(kept));
    }
    return problems;
}

Problems compareHistory(const std::vector<ToldChange>& changes, const Listing& before, const Listing& after,
                        const Disk& diskBefore, const Disk& diskAfter, Looks looks) {
    Problems problems;
    std::set<std::string> changedPaths, changedIdentifiers, deleted;
    for (const ToldChange& change : changes) {
        if (change.deleted) {
            deleted.insert(change.identifier);
            continue;
        }
        changedPaths.insert(change.path);
        if (!changedIdentifiers.insert(change.identifier).second) {
            problems.push_back(change.identifier + " is told as changed twice, again at " + change.path);
        }
    }
    std::map<ObjectKey, Disk::const_iterator> known;
    for (auto name = diskBefore.begin(); name != diskBefore.end(); ++name) known.emplace(name->second.key, name);
    for (const auto& [path, object] : diskAfter) {
        // Which of its names an object with several is told under is not said.
        if (!object.visible || (object.hasSeveralNames())) continue;
        const auto found = known.find(object.key);
        const auto* was = found != known.end() ? &*found->second : nullptr;
        if (was != nullptr && was->second.hasSeveralNames()) continue;
        const bool isAsBefore = was != nullptr && was->second.visible && was->second.parent == object.parent &&
                                nameOf(was->first) == nameOf(path) && !differs(was->second, object);
        const bool isTold = changedPaths.contains(path);
        if (!isAsBefore && !isTold) problems.push_back(path + " changed and nothing is told of it");
        // A folder above it that was elsewhere may have been out of sight on its way, with all that is in it.
        if (isAsBefore && isTold && was->first == path && looks == Looks::none) {
            problems.push_back(path + " is told as changed and is as it was");
        }
    }
    for (const auto& [identifier, kept] : before.items) {
        // Nothing lists the .Trash itself; what became that is told as changed.
        if (identifier == after.trash || after.halfHidden.contains(identifier)) continue;
        if (!after.items.contains(identifier) && !deleted.contains(identifier)) {
            problems.push_back(identifier + " (" + before.paths.at(identifier) + ") left and nothing is told of it");
        }
    }
    for (const std::string& identifier : deleted) {
        if (after.items.contains(identifier) && !after.halfHidden.contains(identifier))
            problems.push_back(identifier + " is told as deleted and is listed");
    }
    return problems;
}

}  // namespace tarnwell::deep
