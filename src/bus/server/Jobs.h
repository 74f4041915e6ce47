#pragma once

#include <memory>
#include <string>

#include "bus/server/Clients.h"

namespace tarnwell::bus {

/// Operations that may take long: each an object of its own on the bus, there for the client that started it until it
/// has fetched the result. On the connection's thread.
class Jobs {
public:
    Jobs(Machinery& machinery, Clients& clients) : machinery_(machinery), clients_(clients) {}

    void start(sd_bus_message* call, std::size_t size, JobWork work);
    bool has(const std::string& owner, const std::string& path) { return find(owner, path) != nullptr; }
    /// A negative errno where the call is for no job of the caller's.
    int result(sd_bus_message* call);
    int cancel(sd_bus_message* call);

private:
    std::shared_ptr<Job> find(const std::string& owner, const std::string& path);
    session::JobControl::Listener progressListener(const Job& job);
    void done(Job& job, Answer outcome);
    void fetched(const Job& job);

    Machinery& machinery_;
    Clients& clients_;
    std::uint64_t lastJob_ = 0;
};

}  // namespace tarnwell::bus
