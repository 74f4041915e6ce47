#include <seccomp.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdio>
#include <fstream>
#include <string>

namespace {

/// These are allowed only for memory that is not both written and run.
constexpr std::array kMemoryCalls{SCMP_SYS(mmap), SCMP_SYS(mprotect)};

bool allow(scmp_filter_ctx filter, int call) { return seccomp_rule_add(filter, SCMP_ACT_ALLOW, call, 0) == 0; }

bool confine(std::ifstream& names) {
    scmp_filter_ctx filter = seccomp_init(SCMP_ACT_ERRNO(ENOSYS));
    if (filter == nullptr) return false;
    bool isReady = true;
    for (std::string name; std::getline(names, name);) {
        const int call = seccomp_syscall_resolve_name(name.c_str());
        bool isOfMemory = false;
        for (const int other : kMemoryCalls) isOfMemory = isOfMemory || call == other;
        // Names of other processors, and of what this library does not know.
        if (call >= 0 && !isOfMemory) isReady = isReady && allow(filter, call);
    }
    constexpr scmp_datum_t kRun = PROT_EXEC, kBoth = PROT_EXEC | PROT_WRITE;
    for (const int call : kMemoryCalls) {
        isReady =
            isReady && seccomp_rule_add(filter, SCMP_ACT_ALLOW, call, 1, SCMP_A2(SCMP_CMP_MASKED_EQ, kRun, 0)) == 0;
    }
    isReady = isReady && seccomp_rule_add(filter, SCMP_ACT_ALLOW, SCMP_SYS(mmap), 1,
                                          SCMP_A2(SCMP_CMP_MASKED_EQ, kBoth, kRun)) == 0;
    isReady = isReady && prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) == 0 && seccomp_load(filter) == 0;
    seccomp_release(filter);
    return isReady;
}

}  // namespace

/// test-confined NAMES PROGRAM [ARGUMENT…]: the program with no system calls but those of a list, as the manager of a
/// session starts it for a unit with SystemCallFilter= and MemoryDenyWriteExecute=.
int main(int argumentCount, char** arguments) {
    if (argumentCount < 3) return 126;
    std::ifstream names(arguments[1]);
    if (!names || !confine(names)) {
        std::perror("test-confined");
        return 126;
    }
    ::execv(arguments[2], arguments + 2);
    std::perror(arguments[2]);
    return 127;
}
