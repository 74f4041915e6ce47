#include "testing/SystemCallFaults.h"

#include <fcntl.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <poll.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <string_view>
#include <vector>

#include "platform/base/Descriptor.h"

#ifndef __NR_getxattrat
#define __NR_getxattrat 464
#endif
#ifndef __NR_listxattrat
#define __NR_listxattrat 465
#endif

namespace tarnwell::testing {
namespace {

constexpr std::array kCalls{
    SYS_openat,       SYS_openat2,    SYS_statx,      SYS_fstat,    SYS_newfstatat,      SYS_getdents64,
    SYS_renameat2,    SYS_renameat,   SYS_linkat,     SYS_unlinkat, SYS_mkdirat,         SYS_symlinkat,
    SYS_readlinkat,   SYS_fchmod,     SYS_fchmodat,   SYS_fchown,   SYS_fchownat,        SYS_utimensat,
    SYS_fsetxattr,    SYS_flistxattr, SYS_fgetxattr,  SYS_ioctl,    SYS_copy_file_range, SYS_lseek,
    SYS_pread64,      SYS_pwrite64,   SYS_read,       SYS_write,    SYS_ftruncate,       SYS_fsync,
    SYS_fdatasync,    SYS_syncfs,     SYS_faccessat2, SYS_fstatfs,  SYS_fallocate,       __NR_getxattrat,
    __NR_listxattrat,
#ifdef SYS_open
    SYS_open,         SYS_stat,       SYS_lstat,      SYS_access,   SYS_unlink,          SYS_chmod,
    SYS_rename,
#endif
};

/// The filter that shows these calls; the descriptor of its listener.
int installFilter() {
    std::vector<sock_filter> program;
    program.push_back(BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)));
    for (const long call : kCalls) {
        program.push_back(BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, static_cast<__u32>(call), 0, 1));
        program.push_back(BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_USER_NOTIF));
    }
    program.push_back(BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW));
    const sock_fprog filter{static_cast<unsigned short>(program.size()), program.data()};
    if (::prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) != 0) return -1;
    return static_cast<int>(::syscall(SYS_seccomp, SECCOMP_SET_MODE_FILTER, SECCOMP_FILTER_FLAG_NEW_LISTENER, &filter));
}

void sendDescriptor(int socket, int descriptor) {
    char byte = 0;
    iovec data{&byte, 1};
    alignas(cmsghdr) std::array<char, CMSG_SPACE(sizeof(int))> control{};
    msghdr message{};
    message.msg_iov = &data;
    message.msg_iovlen = 1;
    if (descriptor >= 0) {
        message.msg_control = control.data();
        message.msg_controllen = control.size();
        cmsghdr* header = CMSG_FIRSTHDR(&message);
        header->cmsg_level = SOL_SOCKET;
        header->cmsg_type = SCM_RIGHTS;
        header->cmsg_len = CMSG_LEN(sizeof(int));
        std::memcpy(CMSG_DATA(header), &descriptor, sizeof descriptor);
    }
    if (::sendmsg(socket, &message, MSG_NOSIGNAL) != 1) ::_exit(3);
}

Descriptor receiveDescriptor(int socket) {
    char byte = 0;
    iovec data{&byte, 1};
    alignas(cmsghdr) std::array<char, CMSG_SPACE(sizeof(int))> control{};
    msghdr message{};
    message.msg_iov = &data;
    message.msg_iovlen = 1;
    message.msg_control = control.data();
    message.msg_controllen = control.size();
    if (::recvmsg(socket, &message, MSG_CMSG_CLOEXEC) != 1) return {};
    const cmsghdr* header = CMSG_FIRSTHDR(&message);
    if (header == nullptr || header->cmsg_type != SCM_RIGHTS) return {};
    int descriptor = -1;
    std::memcpy(&descriptor, CMSG_DATA(header), sizeof descriptor);
    return Descriptor(descriptor);
}

/// Takes more of the text; false at its end.
bool receiveText(int socket, std::string& text) {
    std::array<char, 4096> buffer;
    const ssize_t got = ::recv(socket, buffer.data(), buffer.size(), 0);
    if (got > 0) text.append(buffer.data(), static_cast<std::size_t>(got));
    return got > 0;
}

/// Answers the child's calls until it is gone, and takes its text, which may be longer than a socket holds.
void answer(int listener, int socket, pid_t child, const SystemCallFault& fault, FaultedRun& run) {
    for (;;) {
        std::array<pollfd, 2> ready{{{listener, POLLIN, 0}, {socket, POLLIN, 0}}};
        if (::poll(ready.data(), ready.size(), -1) < 0) {
            if (errno == EINTR) continue;
            return;
        }
        // A negative one is not asked again.
        if (ready[1].revents != 0 && !receiveText(socket, run.text)) socket = -1;
        if (ready[0].revents == 0) continue;
        if ((ready[0].revents & POLLIN) == 0) return;
        seccomp_notif call{};
        if (::ioctl(listener, SECCOMP_IOCTL_NOTIF_RECV, &call) != 0) continue;
        const std::size_t number = run.calls++;
        const bool isIt = fault.kind != SystemCallFault::Kind::none && number == fault.at;
        if (isIt) {
            run.befell = true;
            run.call = call.data.nr;
        }
        if (isIt && fault.kind == SystemCallFault::Kind::kill) {
            ::kill(child, SIGKILL);
            return;
        }
        if (isIt && fault.kind == SystemCallFault::Kind::act) fault.act();
        seccomp_notif_resp response{};
        response.id = call.id;
        const bool isLater = fault.lasts && run.befell && call.data.nr == run.call;
        if (fault.kind == SystemCallFault::Kind::error && (isIt || isLater)) {
            response.error = -fault.code;
        } else {
            response.flags = SECCOMP_USER_NOTIF_FLAG_CONTINUE;
        }
        (void)::ioctl(listener, SECCOMP_IOCTL_NOTIF_SEND, &response);
    }
}

}  // namespace

std::optional<FaultedRun> runWithFault(const SystemCallFault& fault,
                                       const std::function<std::string(const std::function<void()>& begin)>& body) {
    std::array<int, 2> ends{};
    if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends.data()) != 0) return std::nullopt;
    const Descriptor mine(ends[0]);
    Descriptor theirs(ends[1]);
    const pid_t child = ::fork();
    if (child < 0) return std::nullopt;
    if (child == 0) {
        // What is told goes by calls that the filter lets pass.
        const std::string text = body([&] { sendDescriptor(theirs.get(), installFilter()); });
        const bool told = ::send(theirs.get(), text.data(), text.size(), MSG_NOSIGNAL) >= 0;
        ::_exit(told ? 0 : 2);
    }
    theirs = Descriptor();
    FaultedRun run;
    const Descriptor listener = receiveDescriptor(mine.get());
    if (listener.valid()) answer(listener.get(), mine.get(), child, fault, run);
    while (receiveText(mine.get(), run.text)) {
    }
    int status = 0;
    ::waitpid(child, &status, 0);
    if (!listener.valid()) return std::nullopt;
    run.ended = WIFEXITED(status) && WEXITSTATUS(status) == 0;
    if (!run.ended && !(WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL)) {
        run.text = "the process ended with status " + std::to_string(status);
        run.ended = true;
    }
    return run;
}

}  // namespace tarnwell::testing
