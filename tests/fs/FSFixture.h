#pragma once

#include <gtest/gtest.h>

#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "fs/FSEventReader.h"
#include "hostframework/ProviderEnumerator.h"
#include "items/TWPFileObjectIdentifier.h"
#include "testing/FaultyFileSystem.h"
#include "testing/ScriptedFileEventService.h"
#include "testing/TestDevice.h"

namespace tarnwell::fs {

/// A device whose files are real and whose file events a test plays.
class FSTest : public ::testing::Test {
protected:
    FSTest() {
        GTEST_FLAG_SET(death_test_style, "threadsafe");
        device_.log().clear();
    }

    static inline const UUID kVolume = *UUID::parse("8D1C5A1E-5B57-4C6B-9B1F-0D7A3F6E2C41");
    static inline const UUID kOtherVolume = *UUID::parse("00000000-0000-4000-8000-000000000001");

    /// Makes the folders above it as well.
    void makeFile(const std::string& relative, std::string_view content = "x") {
        const std::string path = device_.path(relative);
        testing::makeDirectories(path.substr(0, path.rfind('/')));
        testing::writeFile(path, content);
    }
    void makeFolder(const std::string& relative) { testing::makeDirectories(device_.path(relative)); }
    /// "prefix000", "prefix001", … in the folder.
    void makeFiles(const std::string& folder, std::size_t count, const std::string& prefix = "f") {
        makeFolder(folder);
        for (std::size_t i = 0; i < count; ++i) {
            std::string number = std::to_string(i);
            number.insert(0, 3 - std::min<std::size_t>(3, number.size()), '0');
            makeFile(folder + "/" + prefix + number);
        }
    }
    void remove(const std::string& relative) { ASSERT_EQ(std::remove(device_.path(relative).c_str()), 0); }

    std::string pathOf(const std::string& relative = "") const { return device_.url(relative).path(); }
    std::string identifierOf(const std::string& relative) {
        return items::TWPFileObjectIdentifier(device_.environment()).itemIdentifier(device_.url(relative)).value_or("");
    }
    DocumentID documentIDOf(const std::string& relative) {
        return DocumentID{static_cast<std::uint32_t>(std::stoul(identifierOf(relative).substr(4)))};
    }
    FileID fileIDOf(const std::string& relative) {
        auto status = device_.files().stat(device_.url(relative));
        return status ? status->fileID : FileID{};
    }
    /// What was logged since the last call, with the numbers of sections taken away.
    std::vector<std::string> newLines() {
        auto lines = device_.log().texts();
        device_.log().clear();
        for (auto& line : lines) {
            for (const std::string corner : {"[DEBUG] ┏", "[DEBUG] ┗"}) {
                if (!line.starts_with(corner)) continue;
                const auto end = line.find_first_not_of("0123456789", corner.size());
                line.erase(corner.size(), end == std::string::npos ? end : end - corner.size());
            }
        }
        return lines;
    }

    testing::TestDevice device_;
    testing::ScriptedFileEventService events_{kVolume};
    testing::FaultyFileSystem faultyFiles_{device_.files()};
    items::Environment faultyItems_{device_.programLog(), faultyFiles_, device_.generationStore(),
                                    device_.providerManager(), device_.environment().appLibraries};
    FSEnvironment environment_{device_.environment(), events_, device_.pool()};
    /// The same with faults in the file system.
    FSEnvironment faultyEnvironment_{faultyItems_, events_, device_.pool()};
};

/// Keeps what a reader reports, one line a call, and checks that it comes on the reader's queue.
class RecordingDelegate : public FSEventReaderDelegate {
public:
    void watch(const std::shared_ptr<FSEventReader>& reader) { queue_ = reader->streamQueue(); }
    std::vector<std::string> takeCalls() {
        std::lock_guard lock(mutex_);
        return std::exchange(calls_, {});
    }

    void itemChanged(const URL& url, const std::shared_ptr<const items::LocalItem>& item) override {
        add("changed " + url.path() + " " + item->itemIdentifier());
    }
    void itemDeleted(const URL& url, const std::shared_ptr<const items::LocalItem>& item) override {
        std::string known = item ? "with item" : "";
        if (auto id = url.cache().documentID()) known += "did=" + std::to_string(raw(*id));
        if (auto id = url.cache().fileID()) known += "fid=" + std::to_string(raw(*id));
        add("deleted " + url.path() + " " + known);
    }
    void historyDone() override { add("history done"); }
    void eventsDropped() override { add("dropped"); }
    void batchFinished() override { add("batch finished"); }

private:
    void add(std::string call) {
        queue_->assertCurrent();
        std::lock_guard lock(mutex_);
        calls_.push_back(std::move(call));
    }
    std::shared_ptr<dispatch::SerialQueue> queue_;
    std::mutex mutex_;
    std::vector<std::string> calls_;
};

/// Keeps what one listing reports.
class RecordingObserver : public hostframework::EnumerationObserver {
public:
    void didEnumerateItems(const std::vector<hostframework::ProviderItemPtr>& batch) override {
        EXPECT_FALSE(isFinished());
        ++reports;
        items.insert(items.end(), batch.begin(), batch.end());
    }
    void finishEnumeratingUpToPage(const std::optional<hostframework::EnumerationPage>& next) override {
        EXPECT_FALSE(isFinished());
        finished = true;
        page = next;
    }
    void finishEnumeratingWithError(const Error& failed) override {
        EXPECT_FALSE(isFinished());
        error = failed;
    }
    bool isFinished() const { return finished || error; }
    std::vector<std::string> names() const {
        std::vector<std::string> names;
        for (const auto& item : items) names.push_back(item->filename());
        return names;
    }

    std::vector<hostframework::ProviderItemPtr> items;
    std::size_t reports = 0;
    bool finished = false;
    std::optional<hostframework::EnumerationPage> page;
    std::optional<Error> error;
};

}  // namespace tarnwell::fs
