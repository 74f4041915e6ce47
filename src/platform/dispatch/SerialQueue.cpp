#include "platform/dispatch/SerialQueue.h"

#include <condition_variable>
#include <deque>
#include <mutex>
#include <utility>
#include <variant>

#include "platform/base/Result.h"
#include "platform/dispatch/ThreadPool.h"

namespace tarnwell::dispatch {
namespace {

/// A thread that waits in `sync` for its turn. Lives on that thread's stack; guarded by the queue's mutex.
struct Waiter {
    std::condition_variable turnCame;
    bool hasTurn = false;
};

}  // namespace

/// Q1  At most one thread has the turn; work runs only with it.
/// Q2  The turn is given on, to the next of `pending`, as soon as a piece of work is done.
/// Q3  While nobody has the turn, nothing is pending.
struct SerialQueue::State : std::enable_shared_from_this<State> {
    State(std::shared_ptr<ThreadPool> queuePool, const std::string& queueLabel)
        : pool(std::move(queuePool)), label(queueLabel) {}

    const std::shared_ptr<ThreadPool> pool;
    const std::string label;
    std::mutex mutex;
    bool turnTaken = false;
    std::deque<std::variant<Work, Waiter*>> pending;

    bool addTakingTurn(Work work);
    void scheduleDrain();
    void drain();
    void takeTurn();
    void giveTurnOn();
    bool isCurrent() const;
};

namespace {

/// The queues whose work the calling thread is in, innermost first.
struct Frame {
    const void* queue;
    Frame* outer;
};
thread_local Frame* innermostFrame = nullptr;

class CurrentScope {
public:
    explicit CurrentScope(const void* queue) : frame_{queue, innermostFrame} { innermostFrame = &frame_; }
    ~CurrentScope() { innermostFrame = frame_.outer; }
    CurrentScope(const CurrentScope&) = delete;
    CurrentScope& operator=(const CurrentScope&) = delete;

private:
    Frame frame_;
};

}  // namespace

bool SerialQueue::State::isCurrent() const {
    for (const Frame* frame = innermostFrame; frame; frame = frame->outer)
        if (frame->queue == this) return true;
    return false;
}

void SerialQueue::State::scheduleDrain() {
    pool->run([self = shared_from_this()] { self->drain(); });
}

/// True when the turn was free: the caller has it now and must see to a drain.
bool SerialQueue::State::addTakingTurn(Work work) {
    std::lock_guard lock(mutex);
    pending.emplace_back(std::move(work));
    return !std::exchange(turnTaken, true);
}

/// Runs on a thread that has the turn, until nothing is pending or a waiting thread is next.
void SerialQueue::State::drain() {
    CurrentScope scope(this);
    while (true) {
        Work work;
        {
            std::lock_guard lock(mutex);
            if (pending.empty()) {
                turnTaken = false;
                return;
            }
            auto next = std::move(pending.front());
            pending.pop_front();
            if (Waiter** waiter = std::get_if<Waiter*>(&next)) {
                (*waiter)->hasTurn = true;
                (*waiter)->turnCame.notify_one();  // under the lock: the waiter is gone soon after it
                return;
            }
            work = std::move(std::get<Work>(next));
        }
        work();
    }
}

void SerialQueue::State::takeTurn() {
    std::unique_lock lock(mutex);
    if (!std::exchange(turnTaken, true)) return;
    Waiter waiter;
    pending.emplace_back(&waiter);
    waiter.turnCame.wait(lock, [&] { return waiter.hasTurn; });
}

/// Called by a thread that is done with its `sync`.
void SerialQueue::State::giveTurnOn() {
    {
        std::lock_guard lock(mutex);
        if (pending.empty()) {
            turnTaken = false;
            return;
        }
        if (Waiter** waiter = std::get_if<Waiter*>(&pending.front())) {
            (*waiter)->hasTurn = true;
            (*waiter)->turnCame.notify_one();
            pending.pop_front();
            return;
        }
    }
    scheduleDrain();
}

SerialQueue::SerialQueue(std::shared_ptr<ThreadPool> pool, std::string label)
    : label_(std::move(label)), state_(std::make_shared<State>(std::move(pool), label_)) {}

SerialQueue::~SerialQueue() = default;

std::shared_ptr<SerialQueue> SerialQueue::create(std::shared_ptr<ThreadPool> pool, std::string label) {
    return std::shared_ptr<SerialQueue>(new SerialQueue(std::move(pool), std::move(label)));
}

void SerialQueue::async(Work work) {
    TARNWELL_CHECK(work);
    if (state_->addTakingTurn(std::move(work))) state_->scheduleDrain();
}

void SerialQueue::asyncAndHelp(Work work) {
    TARNWELL_CHECK(work);
    std::shared_ptr<State> state = state_;  // the work may let go of the queue
    if (state->addTakingTurn(std::move(work))) state->drain();
}

void SerialQueue::after(std::chrono::nanoseconds delay, Work work) {
    TARNWELL_CHECK(work);
    state_->pool->handOverAfter(delay, [state = state_, work = std::move(work)]() mutable {
        if (state->addTakingTurn(std::move(work))) state->scheduleDrain();
    });
}

void SerialQueue::syncErased(const std::function<void()>& work) {
    std::shared_ptr<State> state = state_;  // the work may let go of the queue
    if (state->isCurrent()) fatal("the queue \"" + state->label + "\" would wait for itself");
    state->takeTurn();
    struct TurnGiver {
        State& state;
        ~TurnGiver() { state.giveTurnOn(); }
    } giver{*state};
    CurrentScope scope(state.get());
    work();
}

bool SerialQueue::isCurrent() const { return state_->isCurrent(); }

void SerialQueue::assertCurrent() const {
    if (!isCurrent()) fatal("not on the queue \"" + label_ + "\"");
}

}  // namespace tarnwell::dispatch
