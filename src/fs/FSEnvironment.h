#pragma once

#include <memory>

#include "items/Environment.h"
#include "platform/dispatch/ThreadPool.h"
#include "platform/events/FileEventService.h"

namespace tarnwell::fs {

/// The services that scans, readers and enumerators are made with. Owned by the program's context, which outlives every
/// one of them and the work that they have queued.
struct FSEnvironment {
    const items::Environment& items;
    events::FileEventService& events;
    std::shared_ptr<dispatch::ThreadPool> pool;
};

}  // namespace tarnwell::fs
