#include "host/Signals.h"

#include <poll.h>
#include <pthread.h>
#include <sys/eventfd.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <csignal>

namespace tarnwell::host {

InterruptGuard::InterruptGuard() {
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGINT);
    sigaddset(&signals, SIGTERM);
    sigaddset(&signals, SIGHUP);
    pthread_sigmask(SIG_BLOCK, &signals, nullptr);
    descriptor_ = Descriptor(signalfd(-1, &signals, SFD_CLOEXEC | SFD_NONBLOCK));
}

bool InterruptGuard::wasInterrupted() const {
    pollfd asked{descriptor_.get(), POLLIN, 0};
    return poll(&asked, 1, 0) > 0;
}

Wakeup::Wakeup() : counter_(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {}

void Wakeup::signal() const {
    const std::uint64_t one = 1;
    // Full means that nobody has looked yet, and he will.
    (void)!write(counter_.get(), &one, sizeof one);
}

Wakeup::Woken Wakeup::wait(const InterruptGuard& interrupts) const {
    std::array<pollfd, 2> waited{{{counter_.get(), POLLIN, 0}, {interrupts.descriptor(), POLLIN, 0}}};
    while (poll(waited.data(), waited.size(), -1) < 0) {
        if (errno != EINTR) return Woken::byInterrupt;
    }
    if (waited[1].revents != 0) return Woken::byInterrupt;
    std::uint64_t count = 0;
    (void)!read(counter_.get(), &count, sizeof count);
    return Woken::bySignal;
}

InterruptWatch::InterruptWatch(const InterruptGuard& interrupts, std::function<void()> onInterrupt)
    : thread_([this, &interrupts, onInterrupt = std::move(onInterrupt)] {
          if (end_.wait(interrupts) == Wakeup::Woken::byInterrupt) onInterrupt();
      }) {}

InterruptWatch::~InterruptWatch() {
    end_.signal();
    thread_.join();
}

}  // namespace tarnwell::host
