#pragma once

#include "platform/filesystem/OwnChanges.h"
#include "platform/filesystem/Roots.h"
#include "platform/log/Log.h"
#include "platform/store/Store.h"

namespace tarnwell::operations {

/// What operations stand on. Borrowed: all of it outlives the operations.
struct Context {
    const Roots& roots;
    store::Store& store;
    log::Log& log;
    /// Told of every name that an operation gives or takes; null where nobody looks at the disk meanwhile.
    filesystem::OwnChanges* ownChanges = nullptr;
};

}  // namespace tarnwell::operations
