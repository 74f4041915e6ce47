#include "testing/FaultyWatcher.h"

#include <cerrno>

namespace tarnwell::testing {

Result<void> FaultyWatcher::watch(int directory, FileID number) {
    if (!real_->isWatched(number) && real_->watches() >= mostWatches_) return failure(posixError(ENOSPC));
    return real_->watch(directory, number);
}

Result<watch::Drained> FaultyWatcher::drain() {
    auto drained = real_->drain();
    if (drained && overflows_.exchange(false)) return watch::Drained{{}, true, {}, drained->events};
    return drained;
}

}  // namespace tarnwell::testing
