#include "hostframework/Pacer.h"

#include <mutex>
#include <utility>

namespace tarnwell::hostframework {

/// | state     | signal               | resume                | interval passes  |
/// |-----------|----------------------|-----------------------|------------------|
/// | suspended | signalled            | idle                  |                  |
/// | signalled | (joins)              | waiting, starts timer |                  |
/// | idle      | waiting, starts timer| (nothing)             |                  |
/// | waiting   | (joins)              | (nothing)             | idle, then event |
struct Pacer::State : std::enable_shared_from_this<State> {
    enum class Phase { suspended, signalled, idle, waiting, ended };

    State(std::string pacerName, std::shared_ptr<dispatch::SerialQueue> eventQueue, std::chrono::nanoseconds minimum)
        : name(std::move(pacerName)), queue(std::move(eventQueue)), interval(minimum) {}

    const std::string name;
    const std::shared_ptr<dispatch::SerialQueue> queue;
    const std::chrono::nanoseconds interval;
    std::mutex mutex;
    Phase phase = Phase::suspended;
    std::function<void()> block;

    void startTimer();
    void intervalPassed();
};

void Pacer::State::startTimer() {
    queue->after(interval, [weak = weak_from_this()] {
        if (auto state = weak.lock()) state->intervalPassed();
    });
}

void Pacer::State::intervalPassed() {
    std::function<void()> event;
    {
        std::lock_guard lock(mutex);
        if (phase != Phase::waiting) return;
        phase = Phase::idle;  // before the event: what is signalled from now on, it may have missed
        event = block;
    }
    if (event) event();
}

Pacer::Pacer(std::string name, std::shared_ptr<dispatch::SerialQueue> queue, std::chrono::nanoseconds minimumInterval)
    : state_(std::make_shared<State>(std::move(name), std::move(queue), minimumInterval)) {}

Pacer::~Pacer() {
    std::lock_guard lock(state_->mutex);
    state_->phase = State::Phase::ended;
}

const std::string& Pacer::name() const { return state_->name; }

void Pacer::setEventBlock(std::function<void()> block) {
    // The old block is swapped out and goes after the lock does: what it holds may call back.
    std::lock_guard lock(state_->mutex);
    state_->block.swap(block);
}

void Pacer::resume() {
    {
        std::lock_guard lock(state_->mutex);
        if (state_->phase == State::Phase::suspended) state_->phase = State::Phase::idle;
        if (state_->phase != State::Phase::signalled) return;
        state_->phase = State::Phase::waiting;
    }
    state_->startTimer();
}

void Pacer::signal() {
    {
        std::lock_guard lock(state_->mutex);
        if (state_->phase == State::Phase::suspended) state_->phase = State::Phase::signalled;
        if (state_->phase != State::Phase::idle) return;
        state_->phase = State::Phase::waiting;
    }
    state_->startTimer();
}

}  // namespace tarnwell::hostframework
