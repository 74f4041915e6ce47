#include "platform/caller/ProcessEnd.h"

#include <poll.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <string>

#include "platform/base/SystemCall.h"
#include "platform/caller/ProcText.h"
#include "platform/caller/ProcessFolder.h"

namespace tarnwell::caller {

Result<ProcessEnd> ProcessEnd::ofNumber(pid_t process) {
    // This C library declares its own function for it in a way that C++ cannot link.
    const int fd = static_cast<int>(::syscall(SYS_pidfd_open, process, 0));
    if (fd < 0) return failedCall();
    return ProcessEnd(Descriptor(fd));
}

Result<ProcessEnd> ProcessEnd::ofDescriptor(int processDescriptor, pid_t process) {
    const auto descriptors = ProcessFolder::open("/proc/self/fdinfo");
    if (!descriptors) return failure(descriptors.error());
    const auto text = descriptors->read(std::to_string(processDescriptor).c_str(), kMaxProcText);
    if (!text) return failure(text.error());
    if (processOfDescriptor(*text) != process) return failure(posixError(ESRCH));
    return ProcessEnd(Descriptor::borrowed(processDescriptor));
}

bool ProcessEnd::hasCome() const {
    pollfd end{process_.get(), POLLIN, 0};
    return untilNotInterrupted([&] { return ::poll(&end, 1, 0); }) != 0;
}

}  // namespace tarnwell::caller
