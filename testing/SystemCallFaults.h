#pragma once

#include <cstddef>
#include <functional>
#include <optional>
#include <string>

namespace tarnwell::testing {

/// What befalls a process at one of its system calls on files.
struct SystemCallFault {
    enum class Kind { none, error, kill, act };
    Kind kind = Kind::none;
    std::size_t at = 0;  ///< the how manieth call, from 0
    int code = 0;        ///< the errno of an error; the call is not made
    bool lasts = false;  ///< an error of all later calls of this kind, too
    /// What somebody else does while the process is about to make the call, which it then makes. Runs in the calling
    /// process.
    std::function<void()> act{};
};

struct FaultedRun {
    std::string text;       ///< what the body gave; "" when it was killed
    bool ended = false;     ///< the process was not killed
    std::size_t calls = 0;  ///< system calls on files that it made, or tried to make
    bool befell = false;    ///< the fault's call was reached
    int call = 0;           ///< number of the system call that it befell
};

/// Runs `body` in a forked child. From when the body calls what it is given, every system call on files is shown to
/// this process before it is made (a seccomp filter with a listener; works for any kernel since 5.5), and the fault
/// befalls it there. For processes of one thread. Nothing where the kernel allows no such filter.
std::optional<FaultedRun> runWithFault(const SystemCallFault& fault,
                                       const std::function<std::string(const std::function<void()>& begin)>& body);

}  // namespace tarnwell::testing
