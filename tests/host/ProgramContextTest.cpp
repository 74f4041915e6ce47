#include "host/ProgramContext.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <any>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <future>
#include <map>
#include <mutex>

#include "host/Listing.h"
#include "host/Paths.h"
#include "testing/CapturingLog.h"
#include "testing/TemporaryDirectory.h"
#include "testing/Variables.h"

namespace tarnwell::host {
namespace {

using testing::makeDirectories;
using testing::writeFile;

/// A home with documents and one application, Notes.
class ProgramContextTest : public ::testing::Test {
protected:
    ProgramContextTest() {
        makeDirectories(home_ + "/Documents/Folder");
        writeFile(home_ + "/Documents/Folder/one.txt", "1");
        install("Notes");
    }

    void install(const std::string& name) {
        makeDirectories(home_ + "/Apps/" + name + "/Documents");
        makeDirectories(home_ + "/.local/share/applications");
        writeFile(home_ + "/.local/share/applications/" + name + ".desktop",
                  "[Desktop Entry]\nType=Application\nName=" + name + "\nExec=true\nX-Tarnwell-DataContainer=~/Apps/" +
                      name + "\nX-Tarnwell-SupportsDocumentBrowser=true\n");
    }

    Settings settings(const std::optional<std::string>& storage = std::nullopt) const {
        const std::map<std::string, std::string> variables{{"HOME", home_}, {"XDG_DATA_DIRS", home_ + "/system"}};
        auto result = Settings::from(testing::variables(variables), storage);
        EXPECT_TRUE(result);
        return *result;
    }

    std::unique_ptr<ProgramContext> open(const std::optional<std::string>& storage = std::nullopt) {
        auto context = ProgramContext::create(settings(storage), log_);
        EXPECT_TRUE(context) << describe(context.error());
        (*context)->prepareForRequests();
        return std::move(*context);
    }

    static std::vector<std::string> namesIn(ProgramContext& context, const std::string& container) {
        const auto items = listContainer(context.provider(), container);
        EXPECT_TRUE(items);
        std::vector<std::string> names;
        for (const auto& listed : *items) names.push_back(listed.path);
        std::ranges::sort(names);
        return names;
    }

    testing::TemporaryDirectory directory_;
    std::string home_ = directory_.path("home");
    testing::CapturingLog log_;
};

using Texts = std::vector<std::string>;

TEST_F(ProgramContextTest, IsReadyForACompleteListing) {
    auto context = open();
    EXPECT_EQ(namesIn(*context, hostframework::kRootContainer), (Texts{"Folder", "Notes"}));
    EXPECT_TRUE(log_.texts(log::Level::error).empty()) << ::testing::PrintToString(log_.texts(log::Level::error));
}

TEST_F(ProgramContextTest, WaitsForTheLookAtTheApplicationsOnANewMachine) {
    auto context = open();
    EXPECT_EQ(context->appLibraries().mainCache().queue().sync(
                  [&] { return context->appLibraries().mainCache().versionToken(); }),
              1u);
    EXPECT_EQ(context->appLibraries().sharedManager().versionToken(), 1u);
}

TEST_F(ProgramContextTest, FindsApplicationsThatCameAndWentBetweenStarts) {
    open();
    install("Maps");
    {
        auto context = open();
        EXPECT_EQ(namesIn(*context, hostframework::kRootContainer), (Texts{"Folder", "Maps", "Notes"}));
        EXPECT_EQ(context->appLibraries().sharedManager().versionToken(), 2u);
    }
    std::remove((home_ + "/.local/share/applications/Notes.desktop").c_str());
    auto context = open();
    EXPECT_EQ(namesIn(*context, hostframework::kRootContainer), (Texts{"Folder", "Maps"}));
    EXPECT_FALSE(context->provider().itemForIdentifier("#Notes"));
}

TEST_F(ProgramContextTest, ThatFindsNothingNewHasTheLibrariesAtOnce) {
    open();
    log_.clear();
    auto context = open();
    EXPECT_EQ(context->appLibraries().sharedManager().versionToken(), 1u);
    EXPECT_TRUE(context->provider().itemForIdentifier("#Notes"));
}

TEST_F(ProgramContextTest, DoesNotWaitForTheLookAtTheApplicationsWhenNothingIsNew) {
    open();
    auto created = ProgramContext::create(settings(), log_);
    ASSERT_TRUE(created);
    auto& context = **created;
    // With its queue held, the provider's look cannot come to its end.
    std::promise<void> held, release;
    context.provider().appRefreshQueue()->async([&] {
        held.set_value();
        release.get_future().wait();
    });
    held.get_future().wait();
    log_.clear();
    auto ready = std::async(std::launch::async, [&] { context.prepareForRequests(); });
    EXPECT_EQ(ready.wait_for(std::chrono::seconds(10)), std::future_status::ready);
    EXPECT_TRUE(context.provider().itemForIdentifier("#Notes"));
    for (const auto& line : log_.texts()) EXPECT_FALSE(line.ends_with(" pacer event")) << line;
    release.set_value();
    ready.wait();
    context.provider().appRefreshQueue()->sync([] {});
}

TEST_F(ProgramContextTest, TellsItsHandlersWhatTheProviderSignals) {
    auto created = ProgramContext::create(settings(), log_);
    ASSERT_TRUE(created);
    auto& context = **created;
    std::mutex mutex;
    std::condition_variable changed;
    bool root = false;
    const auto id = context.providerManager().addSignalHandler([&](const std::string& container) {
        const std::lock_guard lock(mutex);
        root = root || container == hostframework::kRootContainer;
        changed.notify_all();
    });
    context.prepareForRequests();
    {
        std::unique_lock lock(mutex);
        EXPECT_TRUE(changed.wait_for(lock, std::chrono::seconds(30), [&] { return root; }));
    }
    context.providerManager().removeSignalHandler(id);
}

TEST_F(ProgramContextTest, TellsTheWorkingSetOfLibrariesThatThisStartBrought) {
    open();
    auto created = ProgramContext::create(settings(), log_);
    ASSERT_TRUE(created);
    auto& context = **created;
    // The signal of the provider's own start is on its way already, and comes first.
    std::mutex mutex;
    std::condition_variable changed;
    int workingSet = 0;
    bool came = false;
    const auto id = context.providerManager().addSignalHandler([&](const std::string& container) {
        const std::lock_guard lock(mutex);
        if (container == hostframework::kWorkingSetContainer) ++workingSet;
        came = came || container == "before";
        changed.notify_all();
    });
    context.providerManager().signalEnumeratorForContainer("before", {});
    {
        std::unique_lock lock(mutex);
        ASSERT_TRUE(changed.wait_for(lock, std::chrono::seconds(30), [&] { return came; }));
        workingSet = 0;
    }
    context.prepareForRequests();
    {
        std::unique_lock lock(mutex);
        EXPECT_TRUE(changed.wait_for(lock, std::chrono::seconds(30), [&] { return workingSet > 0; }));
    }
    context.providerManager().removeSignalHandler(id);
}

TEST_F(ProgramContextTest, HasTheProvidersClassesByName) {
    auto context = open();
    const auto storage = context->objectRuntime().perform(
        "TWPFileObjectIdentifier", "fileURLWithItemIdentifier:", std::string(hostframework::kRootContainer));
    ASSERT_TRUE(storage.has_value());
    EXPECT_EQ(std::any_cast<std::optional<URL>>(*storage), context->providerManager().documentStorageURL());
    const auto roots = context->objectRuntime().perform("TWPAppLibraryManager", "rootURLsForAppLibraries");
    ASSERT_TRUE(roots.has_value());
    EXPECT_EQ(std::any_cast<std::vector<URL>>(*roots).size(), 1u);
}

TEST_F(ProgramContextTest, MayBeMadeAndTakenApartAgainAndAgain) {
    std::optional<std::string> identifier;
    for (int round = 0; round < 8; ++round) {
        auto context = open();
        const auto url = urlForPath(context->roots(), home_ + "/Documents/Folder/one.txt");
        ASSERT_TRUE(url);
        const auto found = identifierForURL(*context, *url);
        ASSERT_TRUE(found);
        if (!identifier) identifier = found;
        EXPECT_EQ(found, identifier);
    }
}

TEST_F(ProgramContextTest, TakenApartWithARefreshPendingEndsInGoodOrder) {
    for (int round = 0; round < 4; ++round) {
        auto context = ProgramContext::create(settings(), log_);
        ASSERT_TRUE(context);
        (*context)->provider().refreshInstalledAppsWithCompletionHandler([] {});
    }
}

TEST_F(ProgramContextTest, TwoAtATimeWorkOnTwoStores) {
    auto first = open();
    Settings other = settings(home_ + "/Documents");
    other.stateDirectory = directory_.path("other state");
    other.applicationSupport = directory_.path("other data");
    auto second = ProgramContext::create(other, log_);
    ASSERT_TRUE(second) << describe(second.error());
    (*second)->prepareForRequests();
    EXPECT_EQ(namesIn(**second, hostframework::kRootContainer), namesIn(*first, hostframework::kRootContainer));
}

TEST_F(ProgramContextTest, RefusesAStorageRootThatSharesFilesWithAnApplication) {
    for (const std::string root : {"", "/Apps", "/Apps/Notes", "/Apps/Notes/Documents"}) {
        SCOPED_TRACE(root);
        const auto context = ProgramContext::create(settings(home_ + root), log_);
        ASSERT_FALSE(context);
        EXPECT_TRUE(context.error().is(ErrorDomain::posix, EXDEV)) << describe(context.error());
        EXPECT_NE(context.error().userInfo.at(kErrorMessage).find("the data of the application Notes"),
                  std::string::npos);
    }
}

TEST_F(ProgramContextTest, PathsOutsideOfTheRootsHaveNoURL) {
    auto context = open();
    writeFile(home_ + "/private.txt", "x");
    EXPECT_EQ(urlForPath(context->roots(), home_ + "/private.txt").error().code, EXDEV);
    EXPECT_EQ(urlForPath(context->roots(), home_ + "/none").error().code, ENOENT);
    EXPECT_EQ(urlForPath(context->roots(), "").error().code, ENOENT);
    EXPECT_EQ(urlForPath(context->roots(), std::string("a\0b", 3)).error().code, ENOENT);
}

}  // namespace
}  // namespace tarnwell::host
