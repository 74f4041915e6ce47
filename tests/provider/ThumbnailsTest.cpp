#include "provider/Thumbnails.h"

#include <algorithm>
#include <cerrno>
#include <future>

#include "hostframework/HostError.h"
#include "items/LocalItem.h"
#include "provider/LocalProvider.h"
#include "tests/provider/ProviderFixture.h"

namespace tarnwell::provider {
namespace {

using hostframework::ItemIdentifier;
using icons::IconData;
using Step = testing::FakeIconRenderer::Step;

Bytes bytesFrom(std::string_view text) { return {text.begin(), text.end()}; }

/// What the callbacks of one fetch were told, in order: "identifier: data (type)", "-" for no data.
struct Told {
    std::vector<std::string> lines;

    void add(const ItemIdentifier& identifier, const std::optional<Bytes>& data, const std::string& type,
             const std::optional<Error>& error) {
        lines.push_back(identifier + ": " + (data ? std::string(textOf(*data)) : "-") + type + (error ? " error" : ""));
    }
    hostframework::ThumbnailCompletion plain() {
        return
            [this](const auto& identifier, const auto& data, const auto& error) { add(identifier, data, "", error); };
    }
    hostframework::TypedThumbnailCompletion typed() {
        return [this](const auto& identifier, const auto& data, const auto& type, const auto& error) {
            add(identifier, data, type ? " (" + *type + ")" : "", error);
        };
    }
    hostframework::Completion end() {
        return [this](const std::optional<Error>& error) { lines.push_back(error ? "failed" : "done"); };
    }
};

class ThumbnailsTest : public ProviderTest {
protected:
    /// An application that has icons of the given variants only, whose data is "icon <variant>".
    Application withIcons(const std::string& name, std::vector<int> variants) {
        Application made = application(name);
        made.icon = [this, variants = std::move(variants)](int variant) -> Result<IconData> {
            asked_.push_back(variant);
            if (std::ranges::find(variants, variant) == variants.end()) return failure(posixError(ENOENT));
            return IconData{bytesFrom("icon " + std::to_string(variant)), icons::IconFormat::png, 48, "test"};
        };
        return made;
    }
    Lines fetchPlain(const std::vector<ItemIdentifier>& identifiers) {
        Told told;
        const auto progress = thumbnails().fetch(identifiers, told.plain(), told.end());
        expectFinished(progress, identifiers.size());
        return told.lines;
    }
    Lines fetchTyped(const std::vector<ItemIdentifier>& identifiers) {
        Told told;
        const auto progress = thumbnails().fetch(identifiers, told.typed(), told.end());
        expectFinished(progress, identifiers.size());
        return told.lines;
    }
    void expectFinished(const hostframework::ProgressPtr& progress, std::size_t count) {
        ASSERT_NE(progress, nullptr);
        EXPECT_EQ(progress->totalUnitCount(), static_cast<std::int64_t>(count));
        EXPECT_EQ(progress->completedUnitCount(), static_cast<std::int64_t>(count));
        EXPECT_TRUE(progress->isFinished());
    }
    void device(std::int64_t classNumber, float scale) { device_.deviceInfo().set(classNumber, scale); }
    const Thumbnails& thumbnails() {
        if (!thumbnails_) thumbnails_.emplace(providerContext_);
        return *thumbnails_;
    }

    std::vector<int> asked_;
    std::optional<Thumbnails> thumbnails_;
};

TEST_F(ThumbnailsTest, AListThatMixesItemsGetsOneCallbackEachInOrderWithDataForAppLibrariesOnly) {
    install({withIcons("notes", {0}), withIcons("maps", {0})});
    const std::vector<ItemIdentifier> identifiers{
        "did=7",  "#org.example.notes", "RootContainer", "#org.example.none", "fid=9", "#org.example.maps", "", "#",
        "#(null)"};
    EXPECT_EQ(fetchPlain(identifiers),
              (Lines{"did=7: -", "#org.example.notes: icon 0", "RootContainer: -", "#org.example.none: -", "fid=9: -",
                     "#org.example.maps: icon 0", ": -", "#: -", "#(null): -", "done"}));
    EXPECT_EQ(fetchTyped({"did=7", "#org.example.maps", "#org.example.none"}),
              (Lines{"did=7: -", "#org.example.maps: icon 0 (image/png)", "#org.example.none: -", "done"}));
}

TEST_F(ThumbnailsTest, AnEmptyListCallsTheCompletionOnly) {
    EXPECT_EQ(fetchPlain({}), Lines{"done"});
    EXPECT_EQ(fetchTyped({}), Lines{"done"});
    EXPECT_EQ(newLines(), (Lines{"[DEBUG] ┏ fetching thumbnails for []", "[DEBUG] ┗",
                                 "[DEBUG] ┏ fetching thumbnails for []", "[DEBUG] ┗"}));
    EXPECT_EQ(device_.deviceInfo().timesAskedForScale(), 0);
}

TEST_F(ThumbnailsTest, EachFetchIsASectionOfTheLog) {
    install({withIcons("notes", {0})});
    fetchPlain({"did=7", "#org.example.notes", "#org.example.none"});
    EXPECT_EQ(newLines(), (Lines{"[DEBUG] ┏ fetching thumbnails for [did=7, #org.example.notes, #org.example.none]",
                                 "[DEBUG] #org.example.notes: returning 6 bytes",
                                 "[DEBUG] #org.example.none: can't get app proxy for org.example.none", "[DEBUG] ┗"}));
    fetchTyped({"#org.example.notes"});
    EXPECT_EQ(newLines(), (Lines{"[DEBUG] ┏ fetching thumbnails for [#org.example.notes]",
                                 "[DEBUG] #org.example.notes: returning 6 bytes", "[DEBUG] ┗"}));
}

TEST_F(ThumbnailsTest, EveryFailedStepGivesNoDataAndItsLine) {
    install({withIcons("notes", {0})});
    struct Row {
        Step step;
        std::string line;
    };
    for (const Row& row : {Row{Step::image, "can't create icon from cached bitmap"},
                           {Step::data, "can't create new data"},
                           {Step::destination, "can't create image from new data"},
                           {Step::finalize, "can't finalize image"}}) {
        SCOPED_TRACE(row.line);
        device_.iconRenderer().failAt(row.step);
        EXPECT_EQ(fetchTyped({"#org.example.notes", "did=1"}), (Lines{"#org.example.notes: -", "did=1: -", "done"}));
        EXPECT_EQ(newLines(), (Lines{"[DEBUG] ┏ fetching thumbnails for [#org.example.notes, did=1]",
                                     "[ERROR] #org.example.notes: " + row.line, "[DEBUG] ┗"}));
        // The icon as it is needs none of these steps.
        EXPECT_EQ(fetchPlain({"#org.example.notes"}), (Lines{"#org.example.notes: icon 0", "done"}));
        newLines();
    }
}

TEST_F(ThumbnailsTest, WithoutAnIconNothingIsRendered) {
    device(device::kOtherDevice, 0.5F);
    install({withIcons("notes", {0, 1, 15, 24, 32})});
    EXPECT_EQ(fetchTyped({"#org.example.notes"}), (Lines{"#org.example.notes: -", "done"}));
    EXPECT_EQ(
        newLines(),
        (Lines{"[DEBUG] ┏ fetching thumbnails for [#org.example.notes]",
               "[ERROR] #org.example.notes: can't get primary icon data; general file error 260 (no such file): the "
               "screen's scale is below 1",
               "[DEBUG] ┗"}));
    EXPECT_EQ(fetchPlain({"#org.example.notes"}), (Lines{"#org.example.notes: -", "done"}));
    EXPECT_TRUE(asked_.empty());
    EXPECT_TRUE(device_.iconRenderer().rendered().empty());
}

struct VariantRow {
    std::int64_t classNumber;
    float scale;
    std::vector<int> has;
    std::vector<int> asked;
};
class VariantsTest : public ThumbnailsTest, public ::testing::WithParamInterface<VariantRow> {};

TEST_P(VariantsTest, AreAskedForFromTheDevicesScaleDownwards) {
    const VariantRow& row = GetParam();
    device(row.classNumber, row.scale);
    install({withIcons("notes", row.has)});
    const bool isFound = !row.asked.empty() && std::ranges::find(row.has, row.asked.back()) != row.has.end();
    EXPECT_EQ(fetchPlain({"#org.example.notes"}),
              (Lines{"#org.example.notes: " + (isFound ? "icon " + std::to_string(row.asked.back()) : "-"), "done"}));
    EXPECT_EQ(asked_, row.asked);
}

INSTANTIATE_TEST_SUITE_P(
    EveryDevice, VariantsTest,
    ::testing::Values(VariantRow{2, 1, {0, 1, 15, 24, 32}, {0}}, VariantRow{2, 2, {0, 1, 15, 24, 32}, {15}},
                      VariantRow{2, 3, {0, 1, 15, 24, 32}, {32}}, VariantRow{1, 3, {0, 1, 15, 24}, {32, 15}},
                      VariantRow{1, 3, {0, 1, 24}, {32, 15, 0}}, VariantRow{1, 2, {0}, {15, 0}},
                      VariantRow{3, 1, {0, 1, 15, 24, 32}, {1}}, VariantRow{3, 2, {0, 1, 15, 24, 32}, {24}},
                      VariantRow{3, 3, {0, 1, 15, 24, 32}, {32}}, VariantRow{3, 3, {0, 1}, {32, 24, 1}},
                      VariantRow{3, 2, {1}, {24, 1}},
                      // No whole numbers: the named variants are skipped, and the steps end.
                      VariantRow{2, 2.5F, {0, 15, 32}, {0}}, VariantRow{3, 2.5F, {1, 24, 32}, {1}},
                      VariantRow{2, 2.5F, {15, 32}, {0, 0}}, VariantRow{3, 1.5F, {24}, {1}},
                      VariantRow{2, 3.5F, {15, 32}, {0, 0, 0}}, VariantRow{2, 4, {32}, {0, 32}},
                      // Below 1 nothing is asked.
                      VariantRow{2, 0.99F, {0, 1}, {}}, VariantRow{3, 0, {0, 1}, {}}, VariantRow{2, -2, {0, 1}, {}}));

TEST_F(ThumbnailsTest, AtScale1TheIconIsAskedForUntilItIsThere) {
    constexpr int kTries = 1000;
    int tries = 0;
    Application late = application("late");
    late.icon = [&tries](int variant) -> Result<IconData> {
        EXPECT_EQ(variant, 0);
        if (++tries < kTries) return failure(posixError(ENOENT));
        return IconData{bytesFrom("late"), icons::IconFormat::png, 48, "test"};
    };
    install({late});
    EXPECT_EQ(fetchPlain({"#org.example.late"}), (Lines{"#org.example.late: late", "done"}));
    EXPECT_EQ(tries, kTries);
}

TEST_F(ThumbnailsTest, TheDeviceIsLookedAtOnceForAllFetches) {
    device(device::kTablet, 2);
    install({withIcons("notes", {24}), withIcons("maps", {24})});
    for (int i = 0; i < 3; ++i) fetchPlain({"#org.example.notes", "#org.example.maps"});
    EXPECT_EQ(asked_, std::vector<int>(6, 24));
    EXPECT_EQ(device_.deviceInfo().timesAskedForClass(), 1);
    EXPECT_EQ(device_.deviceInfo().timesAskedForScale(), 1);
}

TEST_F(ThumbnailsTest, TheProviderAnswersBothOperationsOnTheCallingThreadBeforeItReturns) {
    install({withIcons("notes", {0})});
    const auto provider = LocalProvider::create(providerContext_);
    const auto caller = std::this_thread::get_id();
    int calls = 0;
    const auto expectHere = [&] {
        EXPECT_EQ(std::this_thread::get_id(), caller);
        ++calls;
    };
    const auto plain = provider->fetchThumbnailsForItemIdentifiers(
        {"#org.example.notes"}, {1000, 1000},
        [&](const ItemIdentifier&, const std::optional<Bytes>& data, const std::optional<Error>&) {
            EXPECT_EQ(data, bytesFrom("icon 0"));
            expectHere();
        },
        [&](const std::optional<Error>& error) {
            EXPECT_FALSE(error);
            expectHere();
        });
    EXPECT_EQ(calls, 2);
    const auto typed = provider->fetchThumbnailsForItemIdentifiers(
        {"#org.example.notes"}, {},
        [&](const ItemIdentifier&, const std::optional<Bytes>& data, const std::optional<std::string>& type,
            const std::optional<Error>&) {
            EXPECT_EQ(data, bytesFrom("icon 0"));
            EXPECT_EQ(type, "image/png");
            expectHere();
        },
        [&](const std::optional<Error>&) { expectHere(); });
    EXPECT_EQ(calls, 4);
    EXPECT_NE(plain, typed);
    EXPECT_EQ(device_.iconRenderer().rendered().size(), 1u);
}

// The default container of an application.

class DefaultContainerTest : public ProviderTest {
protected:
    DefaultContainerTest() : provider_(LocalProvider::create(providerContext_)) {
        // The look at start is over, so that its lines are not among those of a test.
        std::promise<void> looked;
        provider_->refreshInstalledAppsWithCompletionHandler([&looked, called = false]() mutable {
            if (!std::exchange(called, true)) looked.set_value();
        });
        looked.get_future().wait();
        provider_->appRefreshQueue()->sync([] {});
        newLines();
    }
    ~DefaultContainerTest() override {
        const auto queue = provider_->appRefreshQueue();
        provider_.reset();
        queue->sync([] {});
    }
    Result<hostframework::ProviderItemPtr> containerOf(const std::string& bundleIdentifier) {
        std::optional<Result<hostframework::ProviderItemPtr>> told;
        provider_->defaultApplicationContainerForBundleIdentifier(bundleIdentifier, [&](const auto& result) {
            EXPECT_FALSE(told);
            told = result;
        });
        EXPECT_TRUE(told);
        return told.value_or(failure(Error{}));
    }
    std::shared_ptr<LocalProvider> provider_;
};

TEST_F(DefaultContainerTest, IsTheAppLibraryOfTheApplication) {
    const auto notes = application("notes");
    device_.registry().setApplications({notes, application("maps")});
    const auto item = containerOf("org.example.notes");
    ASSERT_TRUE(item) << describe(item.error());
    EXPECT_EQ((*item)->itemIdentifier(), "#org.example.notes");
    EXPECT_EQ((*item)->parentItemIdentifier(), "RootContainer");
    EXPECT_EQ((*item)->fileURL(), documentsOf(notes));
    EXPECT_EQ((*item)->filename(), "notes");
    EXPECT_EQ((*item)->appContainerBundleIdentifier(), "org.example.notes");
    EXPECT_TRUE((*item)->isContainer());
    EXPECT_EQ(newLines(), (Lines{"[DEBUG] ┏ default location for org.example.notes", "[DEBUG] ┗"}));
}

TEST_F(DefaultContainerTest, OfAnUnknownApplicationIsAnInvalidParameter) {
    for (const std::string identifier : {"org.example.none", "", "#org.example.notes"}) {
        const auto item = containerOf(identifier);
        ASSERT_FALSE(item);
        EXPECT_EQ(item.error(), hostframework::invalidParameter("bundleIdentifier", identifier));
        EXPECT_EQ(newLines(), (Lines{"[DEBUG] ┏ default location for " + identifier,
                                     "[ERROR] can't create bundle proxy with '" + identifier + "'", "[DEBUG] ┗"}));
    }
}

TEST_F(DefaultContainerTest, OfAnApplicationWithoutDocumentsIsAnInvalidParameter) {
    Application bare;
    bare.bundleIdentifier = "org.example.bare";
    device_.registry().setApplications({bare});
    const auto item = containerOf("org.example.bare");
    ASSERT_FALSE(item);
    EXPECT_EQ(item.error(), hostframework::invalidParameter("bundleIdentifier", "org.example.bare"));
    EXPECT_EQ(
        newLines(),
        (Lines{"[DEBUG] ┏ default location for org.example.bare",
               "[ERROR] can't create an app library item without a data container URL",
               "[ERROR] can't create an app library item with org.example.bare (desktop-entry) at \"\"", "[DEBUG] ┗"}));
}

}  // namespace
}  // namespace tarnwell::provider
