#include "service/SignalQueue.h"

#include <poll.h>
#include <pthread.h>
#include <sys/eventfd.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <array>
#include <csignal>
#include <cstdint>

namespace tarnwell::service {

SignalQueue::SignalQueue() : counter_(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {
    sigset_t waited;
    sigemptyset(&waited);
    for (const int signal : {SIGINT, SIGTERM, SIGHUP}) sigaddset(&waited, signal);
    ::pthread_sigmask(SIG_BLOCK, &waited, nullptr);
    signals_ = Descriptor(::signalfd(-1, &waited, SFD_CLOEXEC | SFD_NONBLOCK));
}

void SignalQueue::disconnected() {
    const std::uint64_t one = 1;
    (void)!::write(counter_.get(), &one, sizeof one);
}

SignalQueue::Event SignalQueue::wait() const {
    for (;;) {
        std::array<pollfd, 2> waited{{{signals_.get(), POLLIN, 0}, {counter_.get(), POLLIN, 0}}};
        if (::poll(waited.data(), waited.size(), -1) < 0) continue;
        signalfd_siginfo info{};
        if (::read(signals_.get(), &info, sizeof info) == sizeof info) {
            return info.ssi_signo == SIGHUP ? Event::reload : Event::end;
        }
        if (waited[1].revents != 0) return Event::disconnected;
    }
}

}  // namespace tarnwell::service
