#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <set>
#include <type_traits>

#include "platform/files/LocalFileSystem.h"
#include "testing/ScriptedFileEventService.h"
#include "testing/TestDevice.h"

/// What every event service promises, whoever makes it: the real one that compares, and the one of tests with its
/// journal.
namespace tarnwell::events {
namespace {

using testing::TestDevice;

/// The real service over a real folder.
class Comparing {
public:
    FileEventService& service() { return device_.events(); }
    DeviceID device() { return device_.device(); }
    std::shared_ptr<dispatch::ThreadPool> pool() { return device_.pool(); }
    URL url(const std::string& relative) { return device_.url(relative); }
    void makeFolder(const std::string& relative) { testing::makeDirectories(device_.path(relative)); }
    void add(const std::string& relative) { testing::writeFile(device_.path(relative), ""); }
    void remove(const std::string& relative) { ASSERT_EQ(::unlink(device_.path(relative).c_str()), 0); }

private:
    TestDevice device_;
};

/// The one that tests play, with its journal.
class Scripted {
public:
    Scripted() { service_.keepJournal(); }
    FileEventService& service() { return service_; }
    DeviceID device() { return files::kRootsDevice; }
    std::shared_ptr<dispatch::ThreadPool> pool() { return pool_; }
    URL url(const std::string& relative) { return URL::file("/home/person/Documents/" + relative); }
    void makeFolder(const std::string& relative) { record(relative, kEventItemCreated); }
    void add(const std::string& relative) { record(relative, kEventItemCreated); }
    void remove(const std::string& relative) { record(relative, kEventItemRemoved); }

private:
    void record(const std::string& relative, std::uint32_t flags) {
        auto event = testing::eventAt(0, std::string(url(relative).path()));
        event.flags = flags;
        service_.record(event);
    }
    std::shared_ptr<dispatch::ThreadPool> pool_ = dispatch::ThreadPool::create();
    testing::ScriptedFileEventService service_{UUID::random()};
};

constexpr std::uint32_t kEndsOfHistory = kEventHistoryDone | kEventUserDropped | kEventKernelDropped;
constexpr auto kPatience = std::chrono::seconds(20);

/// A stream with its queue, and what it told so far. Watches the promises that hold for every callback.
class Client {
public:
    Client(FileEventService& service, const std::shared_ptr<dispatch::ThreadPool>& pool, StreamOptions options)
        : queue_(dispatch::SerialQueue::create(pool, "client")), last_(options.since) {
        auto made = service.createStream(std::move(options), [this](const auto& events) { received(events); });
        EXPECT_TRUE(made.has_value());
        if (made) stream_ = std::move(*made);
    }
    ~Client() {
        queue_->sync([&] { stream_.reset(); });
    }

    FileEventStream& stream() { return *stream_; }
    const std::shared_ptr<dispatch::SerialQueue>& queue() { return queue_; }
    void start() {
        stream_->setQueue(queue_);
        queue_->sync([&] { EXPECT_TRUE(stream_->start()); });
    }
    /// On the queue, after which nothing may come.
    template <typename F>
    void end(F&& how) {
        queue_->sync([&] {
            how();
            ended_ = true;
        });
    }
    void destroy() {
        end([&] { stream_.reset(); });
    }
    /// Runs at the end of each callback.
    void setHandler(std::function<void()> handler) { handler_ = std::move(handler); }

    /// The names told up to now, "history done" and "dropped" among them, once the awaited one came.
    std::vector<std::string> until(const std::string& awaited) {
        std::unique_lock lock(mutex_);
        EXPECT_TRUE(
            changed_.wait_for(lock, kPatience, [&] { return std::ranges::find(told_, awaited) != told_.end(); }))
            << awaited << " did not come, but " << ::testing::PrintToString(told_);
        return told_;
    }
    /// What came when everything given to the queue so far is done.
    std::vector<std::string> told() {
        queue_->sync([] {});
        std::lock_guard lock(mutex_);
        return told_;
    }
    EventID last() {
        std::lock_guard lock(mutex_);
        return last_;
    }
    int callbacks() {
        std::lock_guard lock(mutex_);
        return callbacks_;
    }

private:
    void received(const std::vector<FileEvent>& events) {
        EXPECT_TRUE(queue_->isCurrent());
        EXPECT_FALSE(ended_) << "told after its end";
        EXPECT_FALSE(events.empty());
        {
            std::lock_guard lock(mutex_);
            ++callbacks_;
            for (const auto& event : events) {
                EXPECT_GE(raw(event.id), raw(last_)) << "IDs rise";
                last_ = event.id;
                if ((event.flags & kEventHistoryDone) != 0) {
                    told_.emplace_back("history done");
                } else if ((event.flags & kEndsOfHistory) != 0) {
                    told_.emplace_back("dropped");
                } else if (event.path) {
                    const std::string name = event.path->substr(event.path->rfind('/') + 1);
                    told_.push_back((event.flags & kEventItemRemoved) != 0 ? "- " + name : name);
                }
            }
        }
        changed_.notify_all();
        if (handler_) handler_();
    }

    const std::shared_ptr<dispatch::SerialQueue> queue_;
    std::unique_ptr<FileEventStream> stream_;
    std::function<void()> handler_;
    bool ended_ = false;  ///< on the queue only
    std::mutex mutex_;
    std::condition_variable changed_;
    std::vector<std::string> told_;
    EventID last_;
    int callbacks_ = 0;
};

using Lines = std::vector<std::string>;

template <typename Subject>
class FileEventServiceContract : public ::testing::Test {
protected:
    FileEventServiceContract() { subject_.makeFolder("watched"); }

    FileEventService& service() { return subject_.service(); }
    EventID now() { return service().currentEventID({}, Interest::everything).value(); }
    StreamOptions over(EventID since, const std::string& folder = "watched") {
        StreamOptions options;
        options.over = StreamOverPaths{{subject_.url(folder)}};
        options.since = since;
        options.latency = std::chrono::milliseconds(0);
        return options;
    }
    std::unique_ptr<Client> client(StreamOptions options) {
        return std::make_unique<Client>(service(), subject_.pool(), std::move(options));
    }
    std::unique_ptr<Client> started(StreamOptions options) {
        auto made = client(std::move(options));
        made->start();
        return made;
    }
    /// Returns when a change of now has reached whoever still listens.
    void letAChangeCome(const std::string& name) {
        auto other = started(over(now()));
        other->until("history done");
        subject_.add("watched/" + name);
        other->until(name);
        // Streams are told in no promised order; what was on its way to the first ones is behind them after another.
        subject_.add("watched/" + name + " again");
        other->until(name + " again");
    }
    static int ends(const Lines& told) {
        return static_cast<int>(std::ranges::count(told, "history done") + std::ranges::count(told, "dropped"));
    }

    Subject subject_;
};

struct Names {
    template <typename Subject>
    static std::string GetName(int) {
        return std::is_same_v<Subject, Comparing> ? "Comparing" : "Scripted";
    }
};
using Subjects = ::testing::Types<Comparing, Scripted>;
TYPED_TEST_SUITE(FileEventServiceContract, Subjects, Names);

TYPED_TEST(FileEventServiceContract, ADeviceHasOneUUIDAndOthersHaveNone) {
    const auto uuid = this->service().deviceUUID(this->subject_.device());
    ASSERT_TRUE(uuid.has_value());
    EXPECT_EQ(this->service().deviceUUID(this->subject_.device()), uuid);
    const auto other = this->service().deviceUUID(DeviceID{77});
    ASSERT_FALSE(other.has_value());
    EXPECT_TRUE(other.error().is(ErrorDomain::posix, ENODEV));
}

TYPED_TEST(FileEventServiceContract, AStreamNeedsAFolderOrTheDevice) {
    StreamOptions none;
    none.over = StreamOverPaths{};
    const auto noFolder = this->service().createStream(none, [](const auto&) {});
    ASSERT_FALSE(noFolder.has_value());
    EXPECT_TRUE(noFolder.error().is(ErrorDomain::posix, EINVAL));
    StreamOptions other;
    other.over = StreamOverDevice{DeviceID{77}, "/.docid"};
    const auto otherDevice = this->service().createStream(other, [](const auto&) {});
    ASSERT_FALSE(otherDevice.has_value());
    EXPECT_TRUE(otherDevice.error().is(ErrorDomain::posix, ENODEV));
}

TYPED_TEST(FileEventServiceContract, PositionsRiseWithChangesAndOnlyWithThem) {
    const EventID first = this->now();
    EXPECT_EQ(this->now(), first);
    EXPECT_EQ(this->service().recordedEventID(), first);
    this->subject_.add("watched/a");
    const EventID second = this->now();
    EXPECT_GT(raw(second), raw(first));
    EXPECT_EQ(this->service().recordedEventID(), second);
}

TYPED_TEST(FileEventServiceContract, AStartNeedsAQueueAndHappensOnce) {
    this->subject_.add("watched/a");
    auto client = this->client(this->over(this->now()));
    EXPECT_FALSE(client->stream().start());
    client->start();
    EXPECT_FALSE(client->stream().start());
    client->until("history done");
    this->letAChangeCome("b");
    client->until("b again");
    EXPECT_EQ(this->ends(client->told()), 1);
}

TYPED_TEST(FileEventServiceContract, HistoryIsWhatCameAfterThePositionThenHistoryDoneWithThePositionOfNow) {
    this->subject_.add("watched/before");
    const EventID since = this->now();
    this->subject_.add("watched/after");
    auto client = this->started(this->over(since));
    EXPECT_EQ(client->until("history done"), (Lines{"after", "history done"}));
    EXPECT_EQ(client->last(), this->now());
    EXPECT_EQ(this->started(this->over(this->now()))->until("history done"), Lines{"history done"});
}

TYPED_TEST(FileEventServiceContract, RemovalsAreToldAsSuch) {
    this->subject_.add("watched/a");
    const EventID since = this->now();
    this->subject_.remove("watched/a");
    const auto told = this->started(this->over(since))->until("history done");
    EXPECT_EQ(told.back(), "history done");
    EXPECT_EQ(std::ranges::count(told, "- a"), 1);
}

TYPED_TEST(FileEventServiceContract, OnlyWhatLiesBelowTheFoldersIsTold) {
    this->subject_.makeFolder("other");
    this->subject_.makeFolder("watched too");
    const EventID since = this->now();
    for (const char* name : {"other/a", "watched/b", "watched too/c"}) this->subject_.add(name);
    EXPECT_EQ(this->started(this->over(since))->until("history done"), (Lines{"b", "history done"}));
    auto options = this->over(since);
    options.over = StreamOverPaths{{this->subject_.url("watched"), this->subject_.url("other")}};
    auto told = this->started(options)->until("history done");
    EXPECT_EQ(told.back(), "history done");
    EXPECT_EQ(std::set<std::string>(told.begin(), told.end()), (std::set<std::string>{"a", "b", "history done"}));
}

TYPED_TEST(FileEventServiceContract, WhoIsInterestedInDeparturesIsToldOfNothingElse) {
    this->subject_.add("watched/goes");
    const EventID since = this->now();
    this->subject_.add("watched/comes");
    this->subject_.remove("watched/goes");
    auto options = this->over(since);
    options.interest = Interest::departuresOnly;
    EXPECT_EQ(this->started(options)->until("history done"), (Lines{"- goes", "history done"}));
}

TYPED_TEST(FileEventServiceContract, LiveChangesFollowTheHistory) {
    const EventID since = this->now();
    this->subject_.add("watched/a");
    auto client = this->started(this->over(since));
    EXPECT_EQ(client->until("history done"), (Lines{"a", "history done"}));
    this->subject_.add("watched/b");
    EXPECT_EQ(client->until("b"), (Lines{"a", "history done", "b"}));
    this->subject_.remove("watched/b");
    EXPECT_EQ(client->until("- b"), (Lines{"a", "history done", "b", "- b"}));
}

TYPED_TEST(FileEventServiceContract, OneEndOfTheHistoryAlwaysComes) {
    this->subject_.add("watched/a");
    const std::uint64_t now = raw(this->now());
    for (const std::uint64_t since : {now - 1, now, now + 1, ~std::uint64_t{0}}) {
        SCOPED_TRACE("since " + std::to_string(since) + " of " + std::to_string(now));
        auto client = this->started(this->over(EventID{since}));
        client->until(since > now ? "dropped" : "history done");
        EXPECT_EQ(this->ends(client->told()), 1);
    }
    StreamOptions device;
    device.over = StreamOverDevice{this->subject_.device(), "/.docid"};
    device.since = EventID{now};
    EXPECT_EQ(this->started(device)->until("history done"), Lines{"history done"});
}

TYPED_TEST(FileEventServiceContract, APositionOfTheFutureIsDroppedAndNothingFollows) {
    auto client = this->started(this->over(EventID{~std::uint64_t{0}}));
    EXPECT_EQ(client->until("dropped"), Lines{"dropped"});
    this->letAChangeCome("a");
    EXPECT_EQ(client->told(), Lines{"dropped"});
}

TYPED_TEST(FileEventServiceContract, NothingComesAfterTheStopThatTheQueueRan) {
    const EventID since = this->now();
    this->subject_.add("watched/a");
    auto live = this->started(this->over(since));
    live->until("history done");
    live->end([&] { live->stream().stop(); });
    // Stopped before its history could come.
    auto early = this->client(this->over(since));
    early->stream().setQueue(early->queue());
    early->end([&] {
        EXPECT_TRUE(early->stream().start());
        early->stream().stop();
    });
    this->letAChangeCome("b");
    EXPECT_EQ(live->told(), (Lines{"a", "history done"}));
    EXPECT_EQ(early->told(), Lines{});
    live->stream().stop();
    live->stream().invalidate();
}

TYPED_TEST(FileEventServiceContract, NothingComesAfterInvalidationOrTheStreamsEnd) {
    const EventID since = this->now();
    auto invalidated = this->started(this->over(since));
    auto destroyed = this->started(this->over(since));
    invalidated->until("history done");
    destroyed->until("history done");
    invalidated->end([&] { invalidated->stream().invalidate(); });
    destroyed->destroy();
    this->letAChangeCome("a");
    EXPECT_EQ(invalidated->told(), Lines{"history done"});
    EXPECT_EQ(destroyed->told(), Lines{"history done"});
}

TYPED_TEST(FileEventServiceContract, AStreamMayBeStoppedInItsOwnCallback) {
    const EventID since = this->now();
    this->subject_.add("watched/a");
    auto client = this->client(this->over(since));
    client->setHandler([&] { client->stream().stop(); });
    client->start();
    client->until("a");
    this->letAChangeCome("b");
    client->told();
    EXPECT_EQ(client->callbacks(), 1);
}

}  // namespace
}  // namespace tarnwell::events
