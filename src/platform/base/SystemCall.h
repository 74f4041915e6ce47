#pragma once

#include <cerrno>
#include <string>

#include "platform/base/Result.h"

/// What the services of the platform need around their system calls.
namespace tarnwell {

/// Runs a system call again for as long as a signal interrupts it.
template <typename Call>
auto untilNotInterrupted(Call&& call) {
    for (;;) {
        const auto result = call();
        if (result != -1 || errno != EINTR) return result;
    }
}

/// The errno of the call on the line before, as a failed result.
inline std::unexpected<Error> failedCall() { return failure(posixError(errno)); }

/// The path by which the kernel reaches an open object, whatever became of its name.
inline std::string pathOfDescriptor(int descriptor) { return "/proc/self/fd/" + std::to_string(descriptor); }

}  // namespace tarnwell
