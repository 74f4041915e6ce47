#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <fstream>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <utility>

#include "session/Session.h"

namespace tarnwell::host {

/// How long after something was done it may be told: two seconds, on a machine that has more to do than processors in
/// proportion longer.
inline std::chrono::milliseconds soon() {
    std::ifstream file("/proc/loadavg");
    double lately = 0, ignored = 0, now = 0;
    file >> lately >> ignored >> ignored >> now;  // how many ran in the last minute, and how many do
    const double each = std::max(lately, now) / std::max(1U, std::thread::hardware_concurrency());
    return std::chrono::milliseconds(static_cast<int>(2000 * std::clamp(each, 1.0, 15.0)));
}

/// A client that stays with the root, and asks for changes when it is woken: what it knows of, by what it was told.
class RootFollower {
public:
    explicit RootFollower(session::Session& session) : session_(session) {
        auto watch = session_.watch(session::kRootContainer, [this] {
            const std::lock_guard lock(mutex_);
            isWoken_ = true;
            woken_.notify_all();
        });
        EXPECT_TRUE(watch);
        watch_ = std::move(watch.value());
        const auto listed = session_.enumerate(session::kRootContainer, std::nullopt);
        EXPECT_TRUE(listed);
        for (const session::Item& item : listed->items) names_[item.identifier] = item.filename;
        const auto anchor = session_.currentAnchor(session::kRootContainer);
        EXPECT_TRUE(anchor && *anchor);
        anchor_ = **anchor;
    }

    /// The name of an item, "none" for one that it does not know of; once it was told that, or it is too late for it.
    std::string nameOnceTold(const session::ItemIdentifier& identifier, const std::string& expected) {
        const auto last = std::chrono::steady_clock::now() + soon();
        for (;;) {
            if (const std::string name = nameOf(identifier); name == expected) return name;
            std::unique_lock lock(mutex_);
            if (!woken_.wait_until(lock, last, [&] { return isWoken_; })) return nameOf(identifier);
            isWoken_ = false;
            lock.unlock();
            take();
        }
    }

    /// What it was told to be gone, ever.
    const std::set<session::ItemIdentifier>& deleted() const { return deleted_; }
    /// The identifier of what has the name; "none" where it knows of none.
    session::ItemIdentifier identifierOf(const std::string& name) const {
        for (const auto& [identifier, known] : names_) {
            if (known == name) return identifier;
        }
        return "none";
    }

private:
    std::string nameOf(const std::string& identifier) const {
        const auto found = names_.find(identifier);
        return found == names_.end() ? "none" : found->second;
    }
    void take() {
        for (bool more = true; more;) {
            const auto batch = session_.changes(session::kRootContainer, anchor_);
            ASSERT_TRUE(batch) << describe(batch.error());
            for (const session::Change& change : batch->changes) {
                if (change.item) {
                    names_[change.identifier] = change.item->filename;
                } else {
                    names_.erase(change.identifier);
                    deleted_.insert(change.identifier);
                }
            }
            anchor_ = batch->anchor;
            more = batch->moreComing;
        }
    }

    session::Session& session_;
    std::mutex mutex_;
    std::condition_variable woken_;
    bool isWoken_ = false;
    std::unique_ptr<session::Watch> watch_;
    Bytes anchor_;
    std::map<session::ItemIdentifier, std::string> names_;
    std::set<session::ItemIdentifier> deleted_;
};

}  // namespace tarnwell::host
