#include "platform/icons/render/Confinement.h"

#include <malloc.h>
#include <sched.h>
#include <seccomp.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdlib>

namespace tarnwell::render {
namespace {

/// Room for the libraries' own code (most of it), 16 million pixels twice, and what a drawing needs.
constexpr rlim_t kMaxMemory = rlim_t{512} << 20;
constexpr rlim_t kMaxProcessorSeconds = 2;
/// Whoever started this process kills it earlier; this is for the case that he is gone.
constexpr unsigned kMaxSeconds = 15;
/// More than any picture takes.
constexpr rlim_t kMaxOutput = rlim_t{8} << 20;

/// What computing with memory, the standard streams, threads and an orderly end need. Nothing here opens, connects,
/// starts or signals anything.
constexpr std::array kAllowed{SCMP_SYS(read),
                              SCMP_SYS(write),
                              SCMP_SYS(close),
                              SCMP_SYS(fstat),
                              SCMP_SYS(lseek),
                              SCMP_SYS(mmap),
                              SCMP_SYS(munmap),
                              SCMP_SYS(mremap),
                              SCMP_SYS(mprotect),
                              SCMP_SYS(madvise),
                              SCMP_SYS(brk),
                              SCMP_SYS(futex),
                              SCMP_SYS(exit),
                              SCMP_SYS(exit_group),
                              SCMP_SYS(rt_sigreturn),
                              SCMP_SYS(rt_sigprocmask),
                              SCMP_SYS(rt_sigaction),
                              SCMP_SYS(sigaltstack),
                              SCMP_SYS(clock_gettime),
                              SCMP_SYS(gettimeofday),
                              SCMP_SYS(getrandom),
                              SCMP_SYS(sched_yield),
                              SCMP_SYS(set_robust_list),
                              SCMP_SYS(rseq),
                              SCMP_SYS(gettid),
                              SCMP_SYS(sched_getaffinity)};

/// Filters of drawings are computed by a thread of the library's. A new process would be one, too, so a thread it is
/// only with these.
constexpr scmp_datum_t kThreadFlags = CLONE_VM | CLONE_THREAD | CLONE_SIGHAND;

bool limit(decltype(RLIMIT_AS) resource, rlim_t value) {
    const rlimit both{value, value};
    return setrlimit(resource, &both) == 0;
}

bool filterSystemCalls() {
    scmp_filter_ctx filter = seccomp_init(SCMP_ACT_ERRNO(EPERM));
    if (filter == nullptr) return false;
    bool isReady = true;
    for (const int call : kAllowed) isReady = isReady && seccomp_rule_add(filter, SCMP_ACT_ALLOW, call, 0) == 0;
    isReady = isReady && seccomp_rule_add(filter, SCMP_ACT_ALLOW, SCMP_SYS(clone), 1,
                                          SCMP_A0(SCMP_CMP_MASKED_EQ, kThreadFlags, kThreadFlags)) == 0;
    // Its flags cannot be seen from here; told that there is none, the C library takes the other one.
    isReady = isReady && seccomp_rule_add(filter, SCMP_ACT_ERRNO(ENOSYS), SCMP_SYS(clone3), 0) == 0;
    isReady = isReady && seccomp_load(filter) == 0;
    seccomp_release(filter);
    return isReady;
}

}  // namespace

bool limitResources() {
    alarm(kMaxSeconds);
    // Each further arena and thread reserves more memory than a picture takes.
    if (mallopt(M_ARENA_MAX, 1) == 0 || setenv("RAYON_NUM_THREADS", "1", 1) != 0) return false;
    return limit(RLIMIT_AS, kMaxMemory) && limit(RLIMIT_CPU, kMaxProcessorSeconds) && limit(RLIMIT_CORE, 0) &&
           limit(RLIMIT_FSIZE, kMaxOutput);
}

bool confine() {
    if (close_range(STDERR_FILENO + 1, ~0U, 0) != 0) return false;
    if (prctl(PR_SET_DUMPABLE, 0, 0, 0, 0) != 0 || prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) != 0) return false;
    return filterSystemCalls();
}

}  // namespace tarnwell::render
