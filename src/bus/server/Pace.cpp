#include "bus/server/Pace.h"

#include <systemd/sd-bus.h>

#include <cerrno>
#include <chrono>

#include "bus/server/Unread.h"
#include "bus/wire/Loop.h"

namespace tarnwell::bus {
namespace {

/// The bus is asked after so much. A few pages, so that asking costs nothing beside them.
constexpr std::size_t kAskAfterBytes = 1024 * 1024, kAskAfterDescriptors = 16;
/// A client with more than this is behind.
constexpr std::size_t kMostUnreadBytes = 4 * 1024 * 1024, kMostUnreadDescriptors = 32;
/// One that is behind is refused some ten thousand requests, and then nothing is sent any more.
constexpr std::size_t kCutOffBytes = 8 * 1024 * 1024;
constexpr auto kAskAgain = std::chrono::milliseconds(50);
/// So many messages may wait for the bus to take them before lanes are held.
constexpr std::uint64_t kMostQueued = 16;

bool isTooMuch(const Unread& unread) {
    return unread.bytes > kMostUnreadBytes || unread.descriptors > kMostUnreadDescriptors;
}

}  // namespace

void Pace::answered(Loop& loop, sd_bus* connection, const std::string& client, const Sent& sent, Workers::Turn turn) {
    Pacing* pacing = find_(client);
    if (pacing == nullptr) return;
    pacing->sent.bytes += sent.bytes;
    pacing->sent.descriptors += sent.descriptors;
    const bool isMuch = pacing->sent.bytes > kAskAfterBytes || pacing->sent.descriptors > kAskAfterDescriptors;
    if (pacing->state == Pacing::State::reading && (!isMuch || !canTell_ || !isOpen_)) {
        return release(connection, std::move(turn));
    }
    // Whoever has no turn to give, a signal for one, must not let go of the one that is kept.
    if (turn) {
        turn.park();
        pacing->turn = std::move(turn);
    }
    if (pacing->state != Pacing::State::reading) return;
    pacing->state = Pacing::State::asked;
    ask(loop, connection, client);
}

void Pace::ask(Loop& loop, sd_bus* connection, const std::string& client) {
    askForUnread(connection, client, [this, &loop, connection, client](const Result<Unread>& unread) {
        Pacing* pacing = find_(client);
        if (pacing == nullptr) return;
        if (unread && isTooMuch(*unread)) {
            pacing->state = Pacing::State::behind;
            loop.postLater(kAskAgain, [this, &loop, client](sd_bus* bus) {
                if (bus != nullptr) ask(loop, bus, client);
            });
            return;
        }
        canTell_ = unread || !unread.error().is(ErrorDomain::posix, ENOTSUP);
        const bool wasBehind = pacing->state == Pacing::State::behind;
        pacing->state = Pacing::State::reading;
        pacing->sent = {};
        if (wasBehind) caughtUp_(client);
        release(connection, std::move(pacing->turn));
    });
}

bool Pace::isCutOff(const Pacing& pacing) {
    return pacing.state == Pacing::State::behind && pacing.sent.bytes > kCutOffBytes;
}

void Pace::release(sd_bus* connection, Workers::Turn turn) {
    if (!turn) return;
    waiting_.push_back(std::move(turn));
    goOn(isOpen_ ? connection : nullptr);
}

void Pace::goOn(sd_bus* connection) {
    isOpen_ = isOpen_ && connection != nullptr;
    std::uint64_t queued = 0;
    if (isOpen_) (void)sd_bus_get_n_queued_write(connection, &queued);
    if (queued <= kMostQueued) waiting_.clear();
}

}  // namespace tarnwell::bus
