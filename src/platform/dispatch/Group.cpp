#include "platform/dispatch/Group.h"

#include <condition_variable>
#include <cstddef>
#include <mutex>
#include <utility>
#include <vector>

#include "platform/base/Result.h"
#include "platform/dispatch/SerialQueue.h"

namespace tarnwell::dispatch {

struct Group::State {
    struct Notification {
        std::shared_ptr<SerialQueue> queue;
        Work work;
    };
    std::mutex mutex;
    std::condition_variable emptied;
    std::size_t count = 0;
    std::vector<Notification> notifications;
};

Group::Group() : state_(std::make_shared<State>()) {}

Group::~Group() = default;

void Group::enter() {
    std::lock_guard lock(state_->mutex);
    ++state_->count;
}

void Group::leave() {
    // The last leave sets free whoever waits, and that one may destroy the group while this call is still in it.
    std::shared_ptr<State> state = state_;
    std::vector<State::Notification> due;
    {
        std::lock_guard lock(state->mutex);
        if (state->count == 0) fatal("a group was left more often than entered");
        if (--state->count > 0) return;
        due.swap(state->notifications);
        state->emptied.notify_all();
    }
    for (State::Notification& notification : due) notification.queue->async(std::move(notification.work));
}

void Group::notify(std::shared_ptr<SerialQueue> queue, std::move_only_function<void()> work) {
    {
        std::lock_guard lock(state_->mutex);
        if (state_->count > 0) {
            state_->notifications.push_back({std::move(queue), std::move(work)});
            return;
        }
    }
    queue->async(std::move(work));
}

void Group::wait() {
    std::unique_lock lock(state_->mutex);
    state_->emptied.wait(lock, [this] { return state_->count == 0; });
}

}  // namespace tarnwell::dispatch
