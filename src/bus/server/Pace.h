#pragma once

#include <functional>
#include <string>
#include <vector>

#include "bus/server/Replies.h"
#include "bus/server/Workers.h"

struct sd_bus;

namespace tarnwell::bus {

class Loop;

/// How far one client is behind.
struct Pacing {
    /// What went to it since the bus last said what it has not read.
    Sent sent;
    enum class State {
        reading,  ///< as far as is known
        asked,    ///< the bus was asked
        behind    ///< it leaves too much unread; the bus is asked again after a moment
    };
    State state = State::reading;
    /// Of its lane: its next request begins when it has read.
    Workers::Turn turn;
};

/// Has answers made no faster than the bus takes them, and than each client reads them. What a client leaves unread
/// lies in the bus, which counts it as ours: at its limit it takes nothing from us any more, and nobody is answered. So
/// the bus is asked now and then how much that is. A bus that cannot tell is asked once, and then nobody waits for
/// being behind. On the connection's thread.
class Pace {
public:
    using Find = std::function<Pacing*(const std::string& client)>;
    /// `find` knows the clients that are there; `caughtUp` is told of one that was behind, before its lane goes on.
    using CaughtUp = std::function<void(const std::string& client)>;
    Pace(Find find, CaughtUp caughtUp) : find_(std::move(find)), caughtUp_(std::move(caughtUp)) {}

    /// An answer went to the client; `turn` is that of the lane that made it, and goes when the next one may begin.
    void answered(Loop& loop, sd_bus* connection, const std::string& client, const Sent& sent, Workers::Turn turn);
    /// Something went to it without its lane.
    void told(Loop& loop, sd_bus* connection, const std::string& client, const Sent& sent) {
        answered(loop, connection, client, sent, {});
    }
    /// True for who has left so much unread that not even a refusal is sent any more.
    static bool isCutOff(const Pacing& pacing);

    /// Lets lanes go on as far as the bus has taken what was sent; null when the connection has ended.
    void goOn(sd_bus* connection);

private:
    void ask(Loop& loop, sd_bus* connection, const std::string& client);
    void release(sd_bus* connection, Workers::Turn turn);

    const Find find_;
    const CaughtUp caughtUp_;
    bool canTell_ = true;  ///< the bus has statistics
    bool isOpen_ = true;
    std::vector<Workers::Turn> waiting_;  ///< for the bus
};

}  // namespace tarnwell::bus
