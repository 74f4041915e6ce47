#pragma once

#include <condition_variable>
#include <mutex>

#include "host/LocalSession.h"
#include "session/OnlyOne.h"
#include "tests/host/SearchFixture.h"

namespace tarnwell::host {

using session::onlyOne;

/// Counts how often it was told, and waits for it.
class Bell {
public:
    void ring() {
        const std::lock_guard lock(mutex_);
        ++rings_;
        rang_.notify_all();
    }
    /// True once it rang since the last call.
    bool waitForRing() {
        std::unique_lock lock(mutex_);
        const bool rang = rang_.wait_for(lock, std::chrono::seconds(20), [&] { return rings_ > heard_; });
        heard_ = rings_;
        return rang;
    }

private:
    std::mutex mutex_;
    std::condition_variable rang_;
    int rings_ = 0, heard_ = 0;
};

/// A client of a home with two applications, Notes and Maps.
class LocalSessionTest : public SearchTest {
protected:
    ~LocalSessionTest() override { session_.reset(); }

    LocalSession& session() {
        if (!session_) session_ = std::make_unique<LocalSession>(context());
        return *session_;
    }
    session::ItemIdentifier idOf(const std::string& path) {
        const auto identifier = onlyOne(session().identifiersAtPaths({path}, session::PathUse::lookUp));
        if (!identifier) ADD_FAILURE() << path << ": " << describe(identifier.error());
        return identifier.value_or("");
    }
    Result<session::Item> itemAt(const std::string& path) { return onlyOne(session().items({idOf(path)})); }
    Bytes anchorOf(const session::ItemIdentifier& container) {
        const auto anchor = session().currentAnchor(container);
        EXPECT_TRUE(anchor && *anchor);
        return anchor && *anchor ? **anchor : Bytes();
    }
    static std::string sentenceOf(const Error& error) {
        const auto message = error.userInfo.find(kErrorMessage);
        return message == error.userInfo.end() ? std::string() : message->second;
    }
    template <typename T>
    static bool failsWith(const Result<T>& outcome, ErrorDomain domain, std::int64_t code) {
        if (outcome) return false;
        EXPECT_EQ(outcome.error().domain, domain) << describe(outcome.error());
        EXPECT_EQ(outcome.error().code, code) << describe(outcome.error());
        return outcome.error().is(domain, code);
    }

    const session::ItemIdentifier notesLibrary_ = "#Notes", mapsLibrary_ = "#Maps";
    std::unique_ptr<LocalSession> session_;
};

}  // namespace tarnwell::host
