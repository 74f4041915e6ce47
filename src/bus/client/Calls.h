#pragma once

#include <functional>
#include <future>
#include <list>
#include <map>
#include <memory>
#include <mutex>
#include <string>

#include "bus/wire/Loop.h"
#include "bus/wire/Message.h"
#include "platform/base/Result.h"

struct sd_bus_slot;

namespace tarnwell::bus {

/// A client's connection: calls that are waited for, and the signals that come beside. Any thread may call any
/// operation but from within what it is told.
class Calls : public std::enable_shared_from_this<Calls> {
public:
    using Write = std::function<void(Writer&)>;

    /// `startService`: whether the bus may start the service when it is first called.
    static Result<std::shared_ptr<Calls>> connect(bool startService, const std::string& busAddress);
    ~Calls();

    /// What was called.
    struct Target {
        const char* member;
        const char* interface;
        std::string path;
    };
    static Target host(const char* member);

    /// Calls and waits, however long it takes; `read` runs on the connection's thread.
    template <typename T>
    Result<T> call(const Target& target, Write write, std::function<T(Reader&)> read) {
        const auto promise = std::make_shared<std::promise<Result<T>>>();
        auto outcome = promise->get_future();
        send(target, std::move(write), [promise, read = std::move(read)](Result<Reader> reply) {
            if (!reply) return promise->set_value(failure(reply.error()));
            T value = read(*reply);
            if (const int error = reply->error(); error < 0) {
                return promise->set_value(failure(posixError(-error, "the service's answer could not be read")));
            }
            promise->set_value(std::move(value));
        });
        return outcome.get();
    }
    /// Calls and does not wait; what comes of it is told to nobody.
    void tell(const Target& target, Write write);
    /// What is under way, and what is called later, fails soon with ECANCELED. What the service was asked to do it may
    /// do all the same.
    void giveUp();
    Result<void> callWithoutResult(const Target& target, Write write);

    /// Told on the connection's thread.
    using Changed = std::function<void()>;
    Result<std::uint64_t> addWatch(const std::string& container, Changed changed);
    /// After it returned nothing is told any more.
    void removeWatch(std::uint64_t watch);

    /// Told of the job's progress as long as it is set.
    using Progress = std::function<void(Reader&)>;
    void setProgress(const std::string& job, Progress progress);
    void clearProgress(const std::string& job);

private:
    using Answer = std::function<void(Result<Reader>)>;
    struct Watched {
        std::string container;
        Changed changed;
    };

    explicit Calls(bool startService) : startService_(startService) {}
    Result<void> begin(struct sd_bus* connection);
    void send(const Target& target, Write write, Answer answer);
    void containerChanged(const std::string& container);
    void serviceStarted();
    void progressed(const std::string& job, Reader& reader);
    friend struct Handlers;

    /// One call that is under way.
    struct Pending {
        Calls& calls;
        Answer answer;
        sd_bus_slot* slot = nullptr;
        std::list<Pending>::iterator place{};

        /// Takes it out of the calls that are under way, and waits for its answer no more.
        Answer end();
    };
    const bool startService_;
    std::list<Pending> pending_;  ///< on the connection's thread
    bool givenUp_ = false;        ///< likewise
    std::recursive_mutex mutex_;  ///< held while something is told, so that removing waits for it
    std::uint64_t lastWatch_ = 0;
    std::map<std::uint64_t, Watched> watches_;
    std::map<std::string, Progress> progress_;
    std::unique_ptr<Loop> loop_;
};

}  // namespace tarnwell::bus
