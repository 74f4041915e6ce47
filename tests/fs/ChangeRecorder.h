#pragma once

#include <gtest/gtest.h>

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "fs/ChangeToken.h"
#include "hostframework/ProviderEnumerator.h"

namespace tarnwell::fs {

/// Keeps what one request for changes reports, one text a call, on whatever thread.
class ChangeRecorder : public hostframework::ChangeObserver {
public:
    void didUpdateItems(const std::vector<hostframework::ProviderItemPtr>& items) override {
        for (const auto& item : items) add("update " + item->filename());
    }
    void didDeleteItemsWithIdentifiers(const std::vector<hostframework::ItemIdentifier>& identifiers) override {
        for (const auto& identifier : identifiers) add("delete " + identifier);
    }
    void finishEnumeratingChangesUpToSyncAnchor(const hostframework::SyncAnchor& anchor, bool moreComing) override {
        const std::lock_guard lock(mutex_);
        ++finishes_;
        anchor_ = anchor;
        moreComing_ = moreComing;
        changed_.notify_all();
    }
    void finishEnumeratingWithError(const Error& error) override {
        const std::lock_guard lock(mutex_);
        ++finishes_;
        error_ = error;
        changed_.notify_all();
    }

    /// Fails the test when no finish comes within ten seconds.
    void wait() {
        std::unique_lock lock(mutex_);
        EXPECT_TRUE(changed_.wait_for(lock, std::chrono::seconds(10), [&] { return finishes_ > 0; }));
    }
    std::vector<std::string> reports() const {
        const std::lock_guard lock(mutex_);
        return reports_;
    }
    int finishes() const {
        const std::lock_guard lock(mutex_);
        return finishes_;
    }
    std::optional<ChangeToken> token() const {
        const std::lock_guard lock(mutex_);
        return anchor_ ? ChangeToken::decode(*anchor_) : std::nullopt;
    }
    hostframework::SyncAnchor anchor() const {
        const std::lock_guard lock(mutex_);
        return anchor_.value_or(hostframework::SyncAnchor());
    }
    bool moreComing() const {
        const std::lock_guard lock(mutex_);
        return moreComing_;
    }
    std::optional<Error> error() const {
        const std::lock_guard lock(mutex_);
        return error_;
    }

private:
    void add(std::string report) {
        const std::lock_guard lock(mutex_);
        reports_.push_back(std::move(report));
    }
    mutable std::mutex mutex_;
    std::condition_variable changed_;
    std::vector<std::string> reports_;
    int finishes_ = 0;
    std::optional<hostframework::SyncAnchor> anchor_;
    bool moreComing_ = false;
    std::optional<Error> error_;
};

}  // namespace tarnwell::fs
