#pragma once

#include "host/Changes.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <map>
#include <set>
#include <thread>

#include "fs/ChangeToken.h"
#include "host/Listing.h"
#include "hostframework/HostError.h"
#include "hostframework/TagCodec.h"
#include "items/LocalItem.h"
#include "items/TarnwellError.h"
#include "platform/archive/KeyedArchive.h"
#include "platform/files/ChangeTime.h"
#include "provider/LocalProvider.h"
#include "testing/TestDevice.h"

namespace tarnwell::host {

using hostframework::ItemIdentifier;
using hostframework::kAllDirectoriesContainer;
using hostframework::kRootContainer;
using hostframework::kWorkingSetContainer;
using hostframework::SyncAnchor;
using testing::makeDirectories;
using testing::writeFile;
using Texts = std::vector<std::string>;

inline bool isExpired(const Result<ChangeBatch>& batch) {
    return !batch && batch.error().is(ErrorDomain::host, hostframework::kSyncAnchorExpired);
}

inline Texts updatesIn(const ChangeBatch& batch) {
    Texts identifiers;
    for (const auto& report : batch.reports) {
        if (report.updated) identifiers.push_back(report.updated->itemIdentifier());
    }
    return identifiers;
}

inline Texts deletionsIn(const ChangeBatch& batch) {
    Texts identifiers;
    for (const auto& report : batch.reports) {
        if (report.deleted) identifiers.push_back(*report.deleted);
    }
    return identifiers;
}

inline std::multiset<std::string> updatedNames(const ChangeBatch& batch) {
    std::multiset<std::string> names;
    for (const auto& report : batch.reports) {
        if (report.updated) names.insert(report.updated->filename());
    }
    return names;
}

/// A device of one person with its provider on top, as a host has them. Only errors are logged.
class ChangesTest : public ::testing::Test {
protected:
    ChangesTest() { open(); }
    ~ChangesTest() override { close(); }

    void open() {
        device_.log().setThreshold(log::Level::error);
        environment_.emplace(fs::FSEnvironment{device_.environment(), device_.events(), device_.pool()});
        appLibraries_ = std::make_unique<applibraries::AppLibraryContext>(device_.environment(), device_.registry(),
                                                                          device_.pool(), device_.applicationSupport());
        provider_ = provider::LocalProvider::create(
            provider::ProviderContext{*environment_, *appLibraries_, device_.fileOperations(), device_.accessScopes(),
                                      device_.deviceInfo(), device_.iconRenderer()});
    }
    void close() {
        provider_.reset();
        // What enumerators and readers put on their queues when they ended still uses the services.
        device_.pool()->waitUntilQuiet();
        appLibraries_.reset();
        environment_.reset();
    }
    /// As a new start of the program.
    void restart() {
        close();
        device_.restart();
        open();
    }
    /// The kernel's hints keep the index from now on; sources are chosen before anything is asked.
    void watch() {
        close();
        device_.watch();
        open();
    }

    ItemIdentifier identifierOf(const std::string& relative) {
        const auto identifier = provider_->persistentIdentifierForItemAtURL(device_.url(relative));
        EXPECT_TRUE(identifier) << relative;
        return identifier.value_or("");
    }
    SyncAnchor anchorOf(const ItemIdentifier& container) {
        const auto anchor = currentSyncAnchor(*provider_, container);
        EXPECT_TRUE(anchor && *anchor);
        return anchor && *anchor ? **anchor : SyncAnchor();
    }
    ChangeFollower follow(const ItemIdentifier& container) {
        auto follower = ChangeFollower::create(*provider_, container);
        if (!follower) ADD_FAILURE() << describe(follower.error());
        return std::move(follower.value());
    }
    /// One request, which must be answered.
    ChangeBatch answer(ChangeFollower& follower, const SyncAnchor& since) {
        auto batch = follower.changesSince(since);
        if (!batch) {
            ADD_FAILURE() << describe(batch.error());
            return {};
        }
        return std::move(*batch);
    }
    ChangeBatch answer(const ItemIdentifier& container, const SyncAnchor& since) {
        auto follower = follow(container);
        return answer(follower, since);
    }
    Result<ChangeBatch> ask(const ItemIdentifier& container, const SyncAnchor& since) {
        return follow(container).changesSince(since);
    }

    void write(const std::string& relative, std::string_view content = "x") {
        writeFile(device_.path(relative), content);
    }
    void make(const std::string& relative) { makeDirectories(device_.path(relative)); }
    void rename(const std::string& from, const std::string& to) {
        ASSERT_EQ(std::rename(device_.path(from).c_str(), device_.path(to).c_str()), 0) << from;
    }
    void remove(const std::string& relative) { ASSERT_EQ(std::remove(device_.path(relative).c_str()), 0) << relative; }
    void tag(const std::string& relative, const std::string& label) {
        const Bytes bytes = archive::archiveRoot({archive::ArchivedArray{{label}}});
        testing::setUserAttribute(device_.path(relative), items::LocalItem::xattrTagDataName,
                                  std::string(bytes.begin(), bytes.end()));
    }
    /// `prefix`0, `prefix`1, … in the folder; returns their names.
    std::multiset<std::string> writeMany(const std::string& folder, int count, const std::string& prefix) {
        std::multiset<std::string> names;
        for (int i = 0; i < count; ++i) {
            names.insert(prefix + std::to_string(i));
            write(folder + "/" + prefix + std::to_string(i));
        }
        return names;
    }
    /// Until nothing that was done so far is too young to be told of once only: what changes while it is looked at may
    /// be told of twice.
    static void waitUntilSettled() {
        const auto now = files::stampingClock();
        while (!files::isSettled(now, files::stampingClock())) std::this_thread::yield();
    }

    testing::TestDevice device_;
    std::optional<fs::FSEnvironment> environment_;
    std::unique_ptr<applibraries::AppLibraryContext> appLibraries_;
    std::shared_ptr<provider::LocalProvider> provider_;
};

}  // namespace tarnwell::host
