#include "bus/client/Calls.h"

#include <systemd/sd-bus.h>

#include <algorithm>
#include <cerrno>
#include <iterator>
#include <set>

#include "bus/wire/Errors.h"
#include "bus/wire/Names.h"

namespace tarnwell::bus {

/// What the connection calls back.
struct Handlers {
    static int answered(sd_bus_message* reply, void* data, sd_bus_error*) {
        const Calls::Answer answer = static_cast<Calls::Pending*>(data)->end();
        const sd_bus_error* error = sd_bus_message_get_error(reply);
        if (error == nullptr) {
            answer(Reader(reply));
        } else {
            answer(failure(errorOfName(error->name, error->message == nullptr ? "" : error->message)));
        }
        return 0;
    }

    static int containerChanged(sd_bus_message* signal, void* data, sd_bus_error*) {
        Reader reader(signal);
        const std::string container = reader.string();
        if (reader.error() == 0) static_cast<Calls*>(data)->containerChanged(container);
        return 0;
    }

    static int ownerChanged(sd_bus_message* signal, void* data, sd_bus_error*) {
        Reader reader(signal);
        const std::string name = reader.string();
        (void)reader.string();
        const std::string owner = reader.string();
        if (reader.error() == 0 && name == kServiceName && !owner.empty()) static_cast<Calls*>(data)->serviceStarted();
        return 0;
    }

    static int progressed(sd_bus_message* signal, void* data, sd_bus_error*) {
        const char* path = sd_bus_message_get_path(signal);
        Reader reader(signal);
        if (path != nullptr) static_cast<Calls*>(data)->progressed(path, reader);
        return 0;
    }
};

Calls::Answer Calls::Pending::end() {
    Answer taken = std::move(answer);
    sd_bus_slot_unref(slot);
    calls.pending_.erase(place);
    return taken;
}

Result<std::shared_ptr<Calls>> Calls::connect(bool startService, const std::string& busAddress) {
    const std::shared_ptr<Calls> calls(new Calls(startService));
    auto loop = Loop::connect(busAddress, [raw = calls.get()](sd_bus* connection) { return raw->begin(connection); });
    if (!loop) return failure(loop.error());
    calls->loop_ = std::move(*loop);
    calls->loop_->start();
    return calls;
}

Calls::~Calls() {
    if (loop_) giveUp();
    loop_.reset();
}

void Calls::giveUp() {
    loop_->post([this](sd_bus*) {
        givenUp_ = true;
        while (!pending_.empty()) pending_.front().end()(failure(posixError(ECANCELED)));
    });
}

Calls::Target Calls::host(const char* member) { return {member, kInterface, kObjectPath}; }

Result<void> Calls::begin(sd_bus* connection) {
    const auto match = [&](const std::string& rule, sd_bus_message_handler_t handler) -> Result<void> {
        const int added = sd_bus_add_match(connection, nullptr, rule.c_str(), handler, this);
        if (added < 0) return failure(posixError(-added));
        return {};
    };
    const std::string ours = std::string("type='signal',interface='") + kInterface + "',member='ContainerChanged'";
    if (auto added = match(ours, Handlers::containerChanged); !added) return added;
    const std::string jobs = std::string("type='signal',interface='") + kJobInterface + "',member='Progress'";
    if (auto added = match(jobs, Handlers::progressed); !added) return added;
    const std::string owner =
        std::string("type='signal',sender='org.freedesktop.DBus',interface='org.freedesktop.DBus',") +
        "member='NameOwnerChanged',arg0='" + kServiceName + "'";
    return match(owner, Handlers::ownerChanged);
}

void Calls::send(const Target& target, Write write, Answer answer) {
    loop_->post([this, target, write = std::move(write), answer = std::move(answer)](sd_bus* connection) mutable {
        if (connection == nullptr) {
            return answer(failure(posixError(ECONNRESET, "the connection to the session bus has ended")));
        }
        if (givenUp_) return answer(failure(posixError(ECANCELED)));
        sd_bus_message* message = nullptr;
        int outcome = sd_bus_message_new_method_call(connection, &message, kServiceName, target.path.c_str(),
                                                     target.interface, target.member);
        if (outcome >= 0 && !startService_) outcome = sd_bus_message_set_auto_start(message, 0);
        if (outcome >= 0) {
            Writer writer(message);
            write(writer);
            outcome = writer.error();
        }
        pending_.push_back({*this, std::move(answer)});
        const auto pending = std::prev(pending_.end());
        pending->place = pending;
        if (outcome >= 0) {
            // A listing, a search, a copy take as long as they take.
            outcome = sd_bus_call_async(connection, &pending->slot, message, Handlers::answered, &*pending, UINT64_MAX);
        }
        sd_bus_message_unref(message);
        if (outcome < 0) pending->end()(failure(posixError(-outcome)));
    });
}

void Calls::tell(const Target& target, Write write) {
    send(target, std::move(write), [](const Result<Reader>&) {});
}

Result<void> Calls::callWithoutResult(const Target& target, Write write) {
    const auto outcome = call<bool>(target, std::move(write), [](Reader&) { return true; });
    if (!outcome) return failure(outcome.error());
    return {};
}

Result<std::uint64_t> Calls::addWatch(const std::string& container, Changed changed) {
    std::uint64_t watch = 0;
    {
        const std::lock_guard lock(mutex_);
        watch = ++lastWatch_;
        watches_.emplace(watch, Watched{container, std::move(changed)});
    }
    if (auto begun = callWithoutResult(host("Watch"), [&](Writer& writer) { writer.string(container); }); !begun) {
        const std::lock_guard lock(mutex_);
        watches_.erase(watch);
        return failure(begun.error());
    }
    return watch;
}

void Calls::removeWatch(std::uint64_t watch) {
    std::string container;
    {
        const std::lock_guard lock(mutex_);
        const auto found = watches_.find(watch);
        if (found == watches_.end()) return;
        container = found->second.container;
        watches_.erase(found);
        if (std::ranges::any_of(watches_, [&](const auto& other) { return other.second.container == container; })) {
            return;
        }
    }
    // A service that has gone watches nothing.
    (void)callWithoutResult(host("Unwatch"), [&](Writer& writer) { writer.string(container); });
}

void Calls::containerChanged(const std::string& container) {
    const std::lock_guard lock(mutex_);
    for (const auto& [id, watched] : watches_) {
        if (watched.container == container) watched.changed();
    }
}

void Calls::serviceStarted() {
    const std::lock_guard lock(mutex_);
    std::set<std::string> containers;
    for (const auto& [id, watched] : watches_) containers.insert(watched.container);
    for (const std::string& container : containers) {
        // What changed while no service ran is told to nobody, so that each has to ask once it is watched again.
        send(
            host("Watch"), [container](Writer& writer) { writer.string(container); },
            [this, container](const Result<Reader>&) { containerChanged(container); });
    }
}

void Calls::setProgress(const std::string& job, Progress progress) {
    const std::lock_guard lock(mutex_);
    progress_[job] = std::move(progress);
}

void Calls::clearProgress(const std::string& job) {
    const std::lock_guard lock(mutex_);
    progress_.erase(job);
}

void Calls::progressed(const std::string& job, Reader& reader) {
    const std::lock_guard lock(mutex_);
    if (const auto found = progress_.find(job); found != progress_.end()) found->second(reader);
}

}  // namespace tarnwell::bus
