#pragma once

#include <sys/types.h>

#include <utility>

#include "platform/base/Descriptor.h"
#include "platform/base/Result.h"

namespace tarnwell::caller {

/// Tells whether a process has ended. As long as it has not, its number is its own: what was read under that number
/// since this was made is of that process and of no other.
class ProcessEnd {
public:
    /// Of the process that has the number now.
    static Result<ProcessEnd> ofNumber(pid_t process);
    /// Of the process that a pidfd stands for, which stays open elsewhere; ESRCH where that is not `process`.
    static Result<ProcessEnd> ofDescriptor(int processDescriptor, pid_t process);

    /// True once it has ended, and when that cannot be told.
    bool hasCome() const;

private:
    explicit ProcessEnd(Descriptor process) : process_(std::move(process)) {}
    Descriptor process_;
};

}  // namespace tarnwell::caller
