#include "bus/wire/Loop.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <systemd/sd-bus.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <ctime>
#include <map>
#include <mutex>
#include <thread>
#include <vector>

#include "bus/wire/OpenBus.h"
#include "platform/base/Descriptor.h"

namespace tarnwell::bus {
namespace {

/// Microseconds of the monotonic clock.
std::uint64_t now() {
    timespec present{};
    ::clock_gettime(CLOCK_MONOTONIC, &present);
    return std::uint64_t(present.tv_sec) * 1'000'000 + std::uint64_t(present.tv_nsec) / 1000;
}

/// For poll: milliseconds until then by the monotonic clock, -1 for no limit.
int millisecondsUntil(std::uint64_t microseconds) {
    if (microseconds == UINT64_MAX) return -1;
    const std::uint64_t present = now();
    if (microseconds <= present) return 0;
    return static_cast<int>(std::min<std::uint64_t>((microseconds - present + 999) / 1000, 60'000));
}

}  // namespace

struct Loop::State {
    sd_bus* connection = nullptr;
    Descriptor wakeup;
    std::function<void()> onEnd;
    std::mutex mutex;
    std::vector<Task> tasks;
    bool isStopping = false;
    std::multimap<std::uint64_t, Task> later;  ///< by when they are due, on the loop's thread
    std::function<void(sd_bus*)> handler;
    std::thread thread;
    std::atomic<std::thread::id> runsOn;

    ~State() {
        if (connection != nullptr) sd_bus_unref(connection);
    }

    void wake() const {
        const std::uint64_t one = 1;
        (void)!::write(wakeup.get(), &one, sizeof one);
    }

    /// False once the loop shall end and nothing is left to do.
    bool runTasks(sd_bus* bus) {
        std::vector<Task> due;
        {
            const std::lock_guard lock(mutex);
            due.swap(tasks);
            if (due.empty() && isStopping) return false;
        }
        for (Task& task : due) task(bus);
        while (!later.empty() && later.begin()->first <= now()) {
            auto first = later.extract(later.begin());
            first.mapped()(bus);
        }
        return true;
    }

    void wait() const {
        std::uint64_t deadline = UINT64_MAX;
        sd_bus_get_timeout(connection, &deadline);
        if (!later.empty()) deadline = std::min(deadline, later.begin()->first);
        const int events = sd_bus_get_events(connection);
        std::array<pollfd, 2> waited{
            {{sd_bus_get_fd(connection), static_cast<short>(std::max(events, 0)), 0}, {wakeup.get(), POLLIN, 0}}};
        if (::poll(waited.data(), waited.size(), millisecondsUntil(deadline)) <= 0) return;
        std::uint64_t count = 0;
        if (waited[1].revents != 0) (void)!::read(wakeup.get(), &count, sizeof count);
    }

    void run() {
        runsOn = std::this_thread::get_id();
        bool isOpen = true;
        while (runTasks(isOpen ? connection : nullptr)) {
            int processed = 0;
            if (isOpen) {
                // Not until nothing is left: whoever talks without end would keep the answers back.
                for (int messages = 0; messages < 64; ++messages) {
                    processed = sd_bus_process(connection, nullptr);
                    if (processed <= 0) break;
                }
                if (processed < 0) {
                    isOpen = false;
                    if (handler) handler(nullptr);
                    if (onEnd) onEnd();
                    continue;
                }
                if (handler) handler(connection);
            }
            const bool isIdle = [&] {
                const std::lock_guard lock(mutex);
                return tasks.empty() && !isStopping;
            }();
            if (processed > 0 || !isIdle) continue;
            if (isOpen) {
                wait();
            } else {
                pollfd waited{wakeup.get(), POLLIN, 0};
                (void)::poll(&waited, 1, -1);
                std::uint64_t count = 0;
                (void)!::read(wakeup.get(), &count, sizeof count);
            }
        }
        if (isOpen) {
            sd_bus_flush(connection);
            sd_bus_close(connection);
        }
        sd_bus_unref(connection);
        connection = nullptr;
    }
};

Result<std::unique_ptr<Loop>> Loop::connect(const std::string& address,
                                            const std::function<Result<void>(sd_bus*)>& begin,
                                            std::function<void()> onEnd) {
    auto state = std::make_unique<State>();
    state->onEnd = std::move(onEnd);
    state->wakeup = Descriptor(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
    if (!state->wakeup.valid()) return failure(posixError(errno));
    if (const int opened = openBus(address, &state->connection); opened < 0) {
        return failure(posixError(-opened, "there is no session bus: " + describe(posixError(-opened))));
    }
    if (auto begun = begin(state->connection); !begun) return failure(begun.error());
    return std::unique_ptr<Loop>(new Loop(std::move(state)));
}

Loop::Loop(std::unique_ptr<State> state) : state_(std::move(state)) {}

void Loop::start() {
    state_->thread = std::thread([state = state_.get()] { state->run(); });
}

Loop::~Loop() {
    if (!state_->thread.joinable()) return;
    {
        const std::lock_guard lock(state_->mutex);
        state_->isStopping = true;
    }
    state_->wake();
    state_->thread.join();
}

void Loop::post(Task task) {
    {
        const std::lock_guard lock(state_->mutex);
        state_->tasks.push_back(std::move(task));
    }
    if (!isCurrent()) state_->wake();
}

void Loop::postLater(std::chrono::milliseconds pause, Task task) {
    state_->later.emplace(now() + static_cast<std::uint64_t>(pause.count()) * 1000, std::move(task));
}

void Loop::afterMessages(std::function<void(sd_bus*)> handler) { state_->handler = std::move(handler); }

bool Loop::isCurrent() const { return std::this_thread::get_id() == state_->runsOn.load(); }

}  // namespace tarnwell::bus
