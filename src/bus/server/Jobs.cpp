#include "bus/server/Jobs.h"

#include <systemd/sd-bus.h>

#include <cerrno>
#include <chrono>
#include <mutex>

#include "bus/server/Replies.h"
#include "bus/wire/Names.h"
#include "bus/wire/Records.h"

namespace tarnwell::bus {
namespace {

using Clock = std::chrono::steady_clock;

/// Between two tellings of a job's progress.
constexpr auto kProgressPause = std::chrono::milliseconds(100);

}  // namespace

std::shared_ptr<Job> Jobs::find(const std::string& owner, const std::string& path) {
    Client* client = clients_.named(owner);
    if (client == nullptr) return nullptr;
    const auto found = client->jobs.find(path);
    return found == client->jobs.end() ? nullptr : found->second;
}

void Jobs::start(sd_bus_message* call, std::size_t size, JobWork work) {
    Client* client = clients_.asking(call);
    if (client == nullptr) return;
    if (client->jobs.size() >= machinery_.options.limits.jobs) {
        return clients_.refuse(call, "too many jobs at a time; fetch the results of some");
    }
    if (clients_.isBehind(sd_bus_message_get_sender(call))) {
        return clients_.refuse(call, "too much is unread; read the answers first");
    }
    auto job = std::make_shared<Job>();
    job->path = std::string(kJobPrefix) + "/" + std::to_string(++lastJob_);
    job->owner = sd_bus_message_get_sender(call);
    job->control = std::make_shared<session::JobControl>(progressListener(*job));
    client->jobs.emplace(job->path, job);
    auto begin = [this, job, work = std::move(work)](Client& starting, std::uint64_t id) mutable {
        // Before it is begun, so that the path is known before anything is told of the job.
        clients_.finish(id, WriteAnswer([path = job->path](Writer& writer) { writer.objectPath(path); }));
        auto run = [this, job, session = starting.session, work = std::move(work)](const Workers::Turn&) mutable {
            Answer outcome = work(*session, *job->control);
            work = {};
            session.reset();
            machinery_.loop->post(
                [this, job, outcome = std::move(outcome)](sd_bus*) mutable { done(*job, std::move(outcome)); });
        };
        machinery_.jobWorkers->add(starting.jobLane, std::move(run));
    };
    const bool isBegun = clients_.begin(call, *client, size, std::move(begin));
    if (!isBegun) client->jobs.erase(job->path);
}

/// Tells the owner now and then. Called on threads of the session's.
session::JobControl::Listener Jobs::progressListener(const Job& job) {
    struct Last {
        std::mutex mutex;
        Clock::time_point told;
    };
    return [this, path = job.path, owner = job.owner, last = std::make_shared<Last>()](const session::JobProgress& at) {
        {
            const std::lock_guard lock(last->mutex);
            const auto now = Clock::now();
            if (now - last->told < kProgressPause) return;
            last->told = now;
        }
        machinery_.loop->post([this, path, owner, at](sd_bus*) {
            // It tells of one moment, so whoever is behind misses nothing that another one will not say.
            if (!has(owner, path) || clients_.isBehind(owner)) return;
            clients_.told(owner, sendSignal(machinery_.connection, owner, path.c_str(), kJobInterface, "Progress",
                                            [&](Writer& writer) { write(writer, at); }));
        });
    };
}

void Jobs::done(Job& job, Answer outcome) {
    job.outcome = std::move(outcome);
    if (job.waiting == nullptr) return;
    clients_.told(job.owner, sendAnswer(job.waiting, *job.outcome));
    job.waiting = sd_bus_message_unref(job.waiting);
    fetched(job);
}

/// Whoever has the result needs the job no more.
void Jobs::fetched(const Job& job) {
    if (Client* client = clients_.named(job.owner)) client->jobs.erase(std::string(job.path));
}

int Jobs::result(sd_bus_message* call) {
    const auto job = find(sd_bus_message_get_sender(call), sd_bus_message_get_path(call));
    if (!job) return -ENOENT;
    if (job->outcome) {
        if (clients_.isBehind(job->owner)) {
            clients_.refuse(call, "too much is unread; read the answers first");
            return 1;
        }
        clients_.told(job->owner, sendAnswer(call, *job->outcome));
        fetched(*job);
    } else if (job->waiting != nullptr) {
        clients_.refuse(call, "the result is waited for already");
    } else {
        job->waiting = withoutContents(call);
    }
    return 1;
}

int Jobs::cancel(sd_bus_message* call) {
    const auto job = find(sd_bus_message_get_sender(call), sd_bus_message_get_path(call));
    if (!job) return -ENOENT;
    job->control->cancel();
    Answer done = WriteAnswer([](Writer&) {});
    clients_.told(job->owner, sendAnswer(call, done));
    return 1;
}

}  // namespace tarnwell::bus
