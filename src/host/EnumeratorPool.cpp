#include "host/EnumeratorPool.h"

#include <algorithm>
#include <iterator>

namespace tarnwell::host {

Result<EnumeratorPool::Lent> EnumeratorPool::take(const Identifier& container) {
    {
        const std::lock_guard lock(mutex_);
        const auto found = std::ranges::find(kept_, container, &Kept::container);
        if (found != kept_.end()) {
            Lent lent{std::move(found->enumerator), false};
            kept_.erase(found);
            return lent;
        }
    }
    return takeNew(container);
}

Result<EnumeratorPool::Lent> EnumeratorPool::takeNew(const Identifier& container) {
    auto enumerator = provider_.enumeratorForContainerItemIdentifier(container);
    if (!enumerator) return failure(enumerator.error());
    return Lent{std::make_unique<EnumeratorHolder>(std::move(*enumerator)), true};
}

void EnumeratorPool::giveBack(const Identifier& container, Holder enumerator, Keep keep) {
    List gone;
    const std::lock_guard lock(mutex_);
    const bool isWatched = watches_.contains(container);
    if (keep == Keep::whileWatched && !isWatched) {
        gone.push_back({container, std::move(enumerator)});
        return;
    }
    kept_.push_front({container, std::move(enumerator)});
    trim(gone);
}

void EnumeratorPool::addWatch(const Identifier& container) {
    const std::lock_guard lock(mutex_);
    ++watches_[container];
}

void EnumeratorPool::removeWatch(const Identifier& container) {
    List gone;
    const std::lock_guard lock(mutex_);
    const auto found = watches_.find(container);
    if (--found->second == 0) watches_.erase(found);
    trim(gone);
}

bool EnumeratorPool::isOnlyOneOfWatched(List::const_iterator kept) const {
    if (!watches_.contains(kept->container)) return false;
    // One that was used later is nearer to the front.
    return std::find_if(kept_.begin(), kept, [&](const Kept& other) { return other.container == kept->container; }) ==
           kept;
}

void EnumeratorPool::trim(List& gone) {
    std::size_t free = 0;
    for (auto kept = kept_.begin(); kept != kept_.end();) {
        const auto next = std::next(kept);
        if (!isOnlyOneOfWatched(kept) && ++free > kMostIdle) gone.splice(gone.end(), kept_, kept);
        kept = next;
    }
}

std::size_t EnumeratorPool::idle() const {
    const std::lock_guard lock(mutex_);
    return kept_.size();
}

}  // namespace tarnwell::host
