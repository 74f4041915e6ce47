#include "host/SharedChanges.h"

#include <algorithm>
#include <utility>

namespace tarnwell::host {

using session::ChangeBatch;

Result<ChangeBatch> SharedChanges::changes(const Identifier& container, const Bytes& anchor,
                                           const CurrentAnchor& currentAnchor, const Ask& ask) {
    forgetOld();
    const Key key{container, anchor};
    if (!mayBeAskedAgain(key)) {
        // Most anchors are those of a client that is up to date, which asks for the same one again and again: they are
        // not worth the question what the current one is.
        auto batch = ask();
        if (batch && batch->moreComing) {
            const std::lock_guard lock(mutex_);
            note(key);
            note({container, batch->anchor});
        }
        return batch;
    }
    const auto state = currentAnchor();
    if (!state || !*state) return ask();

    std::promise<Batch> promise;
    std::shared_future<Batch> others;
    {
        const std::lock_guard lock(mutex_);
        const auto now = clock_();
        const auto found = std::ranges::find(shared_, key, &Shared::key);
        if (found != shared_.end() && found->state == **state && now - found->begun <= kLongestKept) {
            others = found->batch;
        } else {
            if (found != shared_.end()) shared_.erase(found);
            shared_.push_front({key, **state, now, promise.get_future().share()});
            if (shared_.size() > kMostBatches) shared_.pop_back();
        }
    }
    if (others.valid()) {
        if (const Batch batch = others.get()) return *batch;
        return ask();
    }
    Batch told;
    try {
        auto batch = ask();
        if (batch && batch->moreComing) told = std::make_shared<const ChangeBatch>(*batch);
        if (told == nullptr) forget(key);
        promise.set_value(told);
        if (told != nullptr) {
            const std::lock_guard lock(mutex_);
            note({container, told->anchor});
        }
        return batch;
    } catch (...) {
        forget(key);
        if (told == nullptr) promise.set_value(nullptr);
        throw;
    }
}

void SharedChanges::forgetOld() {
    const auto now = clock_();
    const std::lock_guard lock(mutex_);
    std::erase_if(shared_, [&](const Shared& shared) { return now - shared.begun > kLongestKept; });
}

bool SharedChanges::mayBeAskedAgain(const Key& key) {
    const std::lock_guard lock(mutex_);
    return std::ranges::find(anchors_, key) != anchors_.end();
}

void SharedChanges::note(Key key) {
    const auto known = std::ranges::find(anchors_, key);
    if (known != anchors_.end()) {
        anchors_.splice(anchors_.begin(), anchors_, known);
        return;
    }
    anchors_.push_front(std::move(key));
    if (anchors_.size() > kMostAnchors) anchors_.pop_back();
}

void SharedChanges::forget(const Key& key) {
    const std::lock_guard lock(mutex_);
    std::erase_if(shared_, [&](const Shared& shared) { return shared.key == key; });
    std::erase(anchors_, key);
}

}  // namespace tarnwell::host
