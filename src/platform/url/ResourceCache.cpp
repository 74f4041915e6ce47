#include "platform/url/ResourceCache.h"

namespace tarnwell {

const ResourceSnapshot* ResourceCache::keep(std::unique_ptr<const ResourceSnapshot> snapshot) {
    const ResourceSnapshot* expected = nullptr;
    if (snapshot_.compare_exchange_strong(expected, snapshot.get(), std::memory_order_acq_rel,
                                          std::memory_order_acquire)) {
        return snapshot.release();
    }
    return expected;
}

ResourceCache::~ResourceCache() { delete snapshot_.load(std::memory_order_acquire); }

}  // namespace tarnwell
