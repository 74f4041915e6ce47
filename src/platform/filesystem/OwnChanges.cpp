#include "platform/filesystem/OwnChanges.h"

#include <utility>

namespace tarnwell::filesystem {
namespace {

bool isOver(std::chrono::steady_clock::time_point when) {
    return std::chrono::steady_clock::now() - when > OwnChanges::kKept;
}

}  // namespace

void OwnChanges::note(Name name, Change change) {
    const std::lock_guard lock(mutex_);
    if (noted_.size() >= kMostKept) {
        std::erase_if(noted_, [](const auto& entry) { return isOver(entry.second.when); });
        // So many that nobody found: what is not noted is told by what the disk shows.
        if (noted_.size() >= kMostKept) return;
    }
    noted_.insert_or_assign(std::move(name), Noted{change, std::chrono::steady_clock::now()});
}

void OwnChanges::forget(const Name& name) {
    const std::lock_guard lock(mutex_);
    noted_.erase(name);
}

bool OwnChanges::wasTaken(const Name& name) const {
    const std::lock_guard lock(mutex_);
    const auto entry = noted_.find(name);
    return entry != noted_.end() && entry->second.change == Change::taken && !isOver(entry->second.when);
}

bool OwnChanges::found(const Name& name, Change change) {
    const std::lock_guard lock(mutex_);
    const auto entry = noted_.find(name);
    if (entry == noted_.end()) return false;
    const bool isIt = entry->second.change == change && !isOver(entry->second.when);
    noted_.erase(entry);
    return isIt;
}

}  // namespace tarnwell::filesystem
