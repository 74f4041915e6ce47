#pragma once

#include "platform/filesystem/Roots.h"
#include "platform/log/Log.h"
#include "platform/store/Store.h"

namespace tarnwell::operations {

/// What operations stand on. Borrowed: all of it outlives the operations.
struct Context {
    const Roots& roots;
    store::Store& store;
    log::Log& log;
};

}  // namespace tarnwell::operations
