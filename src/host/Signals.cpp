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

namespace {

/// True when the counter came, false when the interrupt did.
bool waitForEither(const Descriptor& counter, const InterruptGuard& interrupts) {
    std::array<pollfd, 2> waited{{{counter.get(), POLLIN, 0}, {interrupts.descriptor(), POLLIN, 0}}};
    while (poll(waited.data(), waited.size(), -1) < 0) {
        if (errno != EINTR) return false;
    }
    return waited[1].revents == 0;
}

}  // namespace

Wakeup::Wakeup() : counter_(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {}

void Wakeup::signal() const {
    const std::uint64_t one = 1;
    (void)!write(counter_.get(), &one, sizeof one);
}

Wakeup::Woken Wakeup::wait(const InterruptGuard& interrupts) const {
    return waitForEither(counter_, interrupts) ? Woken::bySignal : Woken::byInterrupt;
}

InterruptWatch::InterruptWatch(const InterruptGuard& interrupts, std::function<void()> onInterrupt)
    : thread_([this, &interrupts, onInterrupt = std::move(onInterrupt)] {
          if (end_.wait(interrupts) == Wakeup::Woken::byInterrupt) onInterrupt();
      }) {}

InterruptWatch::~InterruptWatch() {
    end_.signal();
    thread_.join();
}

ChangeSignal::ChangeSignal(HostProviderManager& manager)
    : manager_(manager),
      counter_(std::make_shared<Descriptor>(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK))),
      handler_(manager.addSignalHandler([counter = counter_](const hostframework::ItemIdentifier&) {
          const std::uint64_t one = 1;
          // Full means that nobody has looked yet, and he will.
          (void)!write(counter->get(), &one, sizeof one);
      })) {}

ChangeSignal::~ChangeSignal() { manager_.removeSignalHandler(handler_); }

ChangeSignal::Woken ChangeSignal::wait(const InterruptGuard& interrupts) {
    if (!waitForEither(*counter_, interrupts)) return Woken::byInterrupt;
    std::uint64_t count = 0;
    (void)!read(counter_->get(), &count, sizeof count);
    return Woken::byChange;
}

}  // namespace tarnwell::host
