#pragma once

#include <memory>
#include <string>

#include "bus/server/Clients.h"

namespace tarnwell::bus {

/// The containers that clients watch, and the signals that tell them. On the connection's thread.
class Watches {
public:
    Watches(Machinery& machinery, Clients& clients) : machinery_(machinery), clients_(clients) {}

    void watch(sd_bus_message* call, const std::string& container);
    void unwatch(sd_bus_message* call, const std::string& container);

private:
    Answer begin(session::Session& session, const std::string& name, const std::shared_ptr<WatchEntry>& entry);
    void tell(const std::string& name, const std::string& container);

    Machinery& machinery_;
    Clients& clients_;
};

}  // namespace tarnwell::bus
