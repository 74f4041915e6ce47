#include <gtest/gtest.h>

#include <filesystem>
#include <functional>
#include <iterator>
#include <map>
#include <optional>
#include <set>

#include "applibraries/AppLibraryContext.h"
#include "host/Changes.h"
#include "host/Listing.h"
#include "host/ProgramContext.h"
#include "testing/CapturingLog.h"
#include "testing/TemporaryDirectory.h"
#include "testing/Variables.h"

namespace tarnwell::host {
namespace {

namespace disk = std::filesystem;
using hostframework::ItemIdentifier;
using testing::makeDirectories;
using testing::writeFile;
using Texts = std::set<std::string>;

/// What a client knows of a container by what it was told: it takes each batch, and drops what hangs under what it was
/// told to be gone.
class Client {
public:
    Client(ProgramContext& context, const ItemIdentifier& container) : container_(container) { begin(context); }
    /// With nothing that it knew before.
    void begin(ProgramContext& context) {
        items_.clear();
        goOn(context);
        const auto listed = listContainer(context.provider(), hostframework::kRootContainer,
                                          {.depth = Depth::recursive, .progress = {}});
        ASSERT_TRUE(listed);
        for (const auto& one : *listed) items_[one.item->itemIdentifier()] = one.item;
        const auto anchor = currentSyncAnchor(context.provider(), container_);
        ASSERT_TRUE(anchor && *anchor);
        anchor_ = **anchor;
        catchUp();  // the working set knows of libraries what it was told before
    }
    /// Stops asking, so that the program may end.
    void pause() { follower_.reset(); }
    /// Asks this start of the program with what it has from the former one.
    void goOn(ProgramContext& context) {
        auto follower = ChangeFollower::create(context.provider(), container_);
        ASSERT_TRUE(follower) << describe(follower.error());
        follower_.emplace(std::move(*follower));
    }
    void catchUp() {
        told_.clear();
        deleted_.clear();
        for (bool more = true; more;) {
            const auto batch = follower_->changesSince(anchor_);
            ASSERT_TRUE(batch) << describe(batch.error());
            for (const ChangeReport& report : batch->reports) {
                if (report.updated) {
                    items_[report.updated->itemIdentifier()] = report.updated;
                    told_.insert(report.updated->filename());
                } else {
                    deleted_.insert(*report.deleted);
                    drop(*report.deleted);
                }
            }
            anchor_ = batch->anchor;
            more = batch->moreComing;
        }
    }
    /// Names of what was told to be there in the last batches, and identifiers of what was told to be gone.
    const Texts& told() const { return told_; }
    const Texts& deleted() const { return deleted_; }
    /// The names of all that it knows.
    Texts names() const {
        Texts names;
        for (const auto& [identifier, item] : items_) names.insert(item->filename());
        return names;
    }
    std::string identifierOf(const std::string& name) const {
        for (const auto& [identifier, item] : items_) {
            if (item->filename() == name) return identifier;
        }
        return "none";
    }

private:
    void drop(const ItemIdentifier& gone) {
        items_.erase(gone);
        std::vector<ItemIdentifier> below;
        for (const auto& [identifier, item] : items_) {
            if (item->parentItemIdentifier() == gone) below.push_back(identifier);
        }
        for (const ItemIdentifier& identifier : below) drop(identifier);
    }

    ItemIdentifier container_;
    std::optional<ChangeFollower> follower_;
    hostframework::SyncAnchor anchor_;
    std::map<ItemIdentifier, hostframework::ProviderItemPtr> items_;
    Texts told_, deleted_;
};

/// A device with one application, Notes, whose documents are made again while the program runs: told by the kernel, or
/// comparing.
class LibraryMadeAgainTest : public ::testing::TestWithParam<bool> {
protected:
    LibraryMadeAgainTest() {
        makeDirectories(home_ + "/Documents");
        makeDirectories(home_ + "/.local/share/applications");
        install();
        makeDocuments("1");
        open();
    }

    void install() const {
        writeFile(home_ + "/.local/share/applications/net.example.Notes.desktop",
                  "[Desktop Entry]\nType=Application\nName=Notes\nExec=true\nX-Tarnwell-DataContainer=~/Notes\n"
                  "X-Tarnwell-SupportsDocumentBrowser=true\n");
    }
    void uninstall() const { disk::remove(home_ + "/.local/share/applications/net.example.Notes.desktop"); }
    /// A file that is in every generation under one name, and one of its own.
    void makeDocuments(const std::string& generation) const {
        makeDirectories(documents_ + "/folder");
        writeFile(documents_ + "/folder/Same.txt", "text of " + generation);
        writeFile(documents_ + "/Only in " + generation + ".txt", generation);
    }

    void open() {
        const std::map<std::string, std::string> variables{{"HOME", home_}, {"XDG_DATA_DIRS", home_ + "/system"}};
        const auto settings = Settings::from(testing::variables(variables), std::nullopt);
        ASSERT_TRUE(settings);
        auto context = ProgramContext::create(*settings, log_);
        ASSERT_TRUE(context) << describe(context.error());
        context_ = std::move(*context);
        if (GetParam()) {
            ASSERT_TRUE(context_->watchForChanges());
        }
        context_->prepareForRequests();
    }
    /// Ends the program, has something done, and starts it again; the client keeps its anchor.
    void whileNothingRuns(Client& client, const std::function<void()>& done) {
        startAgain(client, done);
        client.goOn(*context_);
        client.catchUp();
    }
    void startAgain(Client& client, const std::function<void()>& done) {
        client.pause();
        context_.reset();
        done();
        open();
    }
    /// Looks at the applications now, without the pace that is kept otherwise.
    void look() {
        context_->appLibraries().refreshAppLibraries();
        context_->appLibraries().sharedManager().upgradeFromMainCache(nullptr, applibraries::IndexCleanup::no);
    }
    bool isKnown(const ItemIdentifier& identifier) {
        return context_->provider().itemForIdentifier(identifier).has_value();
    }
    /// The name of what the identifier leads to; "none" where it leads nowhere.
    std::string nameOf(const ItemIdentifier& identifier) {
        const auto item = context_->provider().itemForIdentifier(identifier);
        return item ? (*item)->filename() : "none";
    }

    testing::TemporaryDirectory directory_;
    const std::string home_ = directory_.path("home");
    const std::string documents_ = home_ + "/Notes/Documents";
    testing::CapturingLog log_;
    std::unique_ptr<ProgramContext> context_;
};

INSTANTIATE_TEST_SUITE_P(Sources, LibraryMadeAgainTest, ::testing::Bool(),
                         [](const auto& given) { return given.param ? "Watching" : "Comparing"; });

const Texts kFirst{"Notes", "folder", "Same.txt", "Only in 1.txt"};
const Texts kSecond{"Notes", "folder", "Same.txt", "Only in 2.txt"};

TEST_P(LibraryMadeAgainTest, ClientsAreToldOfAFolderThatTookTheRemovedOnesPlace) {
    Client client(*context_, hostframework::kWorkingSetContainer);
    ASSERT_EQ(client.names(), kFirst);
    const Texts former{client.identifierOf("folder"), client.identifierOf("Same.txt"),
                       client.identifierOf("Only in 1.txt")};

    disk::remove_all(documents_);
    context_->refreshApplications();
    makeDocuments("2");
    context_->refreshApplications();
    client.catchUp();
    EXPECT_EQ(client.names(), kSecond);
    for (const char* name : {"folder", "Same.txt", "Only in 2.txt"}) {
        EXPECT_FALSE(former.contains(client.identifierOf(name))) << name << " has the identifier of another file";
    }
    for (const ItemIdentifier& identifier : former) EXPECT_FALSE(isKnown(identifier)) << identifier;
    EXPECT_FALSE(client.deleted().contains("#net.example.Notes"));

    writeFile(documents_ + "/folder/Later.txt", "text");
    client.catchUp();
    EXPECT_TRUE(client.told().contains("Later.txt"));
    const auto listed = listContainer(context_->provider(), client.identifierOf("folder"));
    ASSERT_TRUE(listed);
    EXPECT_EQ(listed->size(), 2U);
}

TEST_P(LibraryMadeAgainTest, AnApplicationThatIsInstalledAgainHasItsNewDocuments) {
    for (const ItemIdentifier& container :
         {ItemIdentifier(hostframework::kRootContainer), ItemIdentifier(hostframework::kWorkingSetContainer)}) {
        SCOPED_TRACE(container);
        Client client(*context_, container);
        const std::string former = client.identifierOf("Same.txt");
        uninstall();
        disk::remove_all(home_ + "/Notes");
        context_->refreshApplications();
        client.catchUp();
        EXPECT_TRUE(client.deleted().contains("#net.example.Notes"));
        EXPECT_EQ(client.names(), Texts());

        makeDocuments("2");
        install();
        context_->refreshApplications();
        client.catchUp();
        EXPECT_EQ(client.names(), kSecond);
        EXPECT_NE(client.identifierOf("Same.txt"), former);
        EXPECT_FALSE(isKnown(former));

        disk::remove_all(documents_);
        makeDocuments("1");
        context_->refreshApplications();
        client.catchUp();
        EXPECT_EQ(client.names(), kFirst);
    }
}

TEST_P(LibraryMadeAgainTest, WhatIsUnavailableIsNotToldToBeGone) {
    Client client(*context_, hostframework::kWorkingSetContainer);
    const std::string former = client.identifierOf("Same.txt");
    // Moved aside, nothing of it is gone, and another folder stands in its place.
    disk::rename(documents_, home_ + "/aside");
    context_->refreshApplications();
    client.catchUp();
    EXPECT_EQ(client.deleted(), Texts());
    makeDocuments("2");
    context_->refreshApplications();
    client.catchUp();
    EXPECT_EQ(client.deleted(), Texts());
    EXPECT_TRUE(client.told().contains("Only in 2.txt"));
    EXPECT_EQ(nameOf(former), "none");
    EXPECT_NE(context_->provider().persistentIdentifierForItemAtURL(
                  context_->roots().urlForRealPath(documents_ + "/folder/Same.txt")),
              former);
    writeFile(home_ + "/aside/folder/Unseen.txt", "text");
    client.catchUp();
    EXPECT_FALSE(client.told().contains("Unseen.txt"));

    // Back in its place it is what it was, and the other one is known to be gone.
    disk::remove_all(documents_);
    disk::rename(home_ + "/aside", documents_);
    context_->refreshApplications();
    client.catchUp();
    EXPECT_EQ(nameOf(former), "Same.txt");
    EXPECT_FALSE(client.deleted().contains(former));
    Texts expected = kFirst;
    expected.insert("Unseen.txt");
    EXPECT_EQ(client.names(), expected);
}

TEST_P(LibraryMadeAgainTest, WhatWasMovedOutBeforeTheFolderWentKeepsItsIdentifier) {
    Client client(*context_, hostframework::kWorkingSetContainer);
    const std::string former = client.identifierOf("Same.txt");
    disk::rename(documents_ + "/folder/Same.txt", home_ + "/Documents/Saved.txt");
    disk::remove_all(documents_);
    makeDocuments("2");
    context_->refreshApplications();
    client.catchUp();
    EXPECT_EQ(nameOf(former), "Saved.txt");
    EXPECT_EQ(client.identifierOf("Saved.txt"), former);
    Texts expected = kSecond;
    expected.insert("Saved.txt");
    EXPECT_EQ(client.names(), expected);
}

TEST_P(LibraryMadeAgainTest, ClientsAreToldOfWhatWasMadeAgainWhileNothingRan) {
    for (const ItemIdentifier& container :
         {ItemIdentifier(hostframework::kRootContainer), ItemIdentifier(hostframework::kWorkingSetContainer)}) {
        SCOPED_TRACE(container);
        Client client(*context_, container);
        ASSERT_EQ(client.names(), kFirst);
        const Texts former{client.identifierOf("folder"), client.identifierOf("Same.txt"),
                           client.identifierOf("Only in 1.txt")};
        whileNothingRuns(client, [&] {
            uninstall();
            disk::remove_all(home_ + "/Notes");
            install();
            makeDocuments("2");
        });
        EXPECT_EQ(client.names(), kSecond);
        EXPECT_FALSE(client.deleted().contains("#net.example.Notes"));
        for (const char* name : {"folder", "Same.txt", "Only in 2.txt"}) {
            EXPECT_FALSE(former.contains(client.identifierOf(name))) << name << " has the identifier of another file";
        }
        for (const ItemIdentifier& identifier : former) EXPECT_FALSE(isKnown(identifier)) << identifier;
        whileNothingRuns(client, [&] {
            disk::remove_all(documents_);
            makeDocuments("1");
        });
        EXPECT_EQ(client.names(), kFirst);
    }
}

TEST_P(LibraryMadeAgainTest, WhatWentBeforeOneStartAndCameBeforeAnotherIsNew) {
    for (const ItemIdentifier& container :
         {ItemIdentifier(hostframework::kRootContainer), ItemIdentifier(hostframework::kWorkingSetContainer)}) {
        SCOPED_TRACE(container);
        Client client(*context_, container);
        const std::string former = client.identifierOf("Same.txt");
        const auto goOn = [&] {
            // The list of libraries that a client of the root has must be that of the program.
            if (container == hostframework::kRootContainer) return client.begin(*context_);
            client.goOn(*context_);
            client.catchUp();
        };
        startAgain(client, [&] {
            uninstall();
            disk::remove_all(home_ + "/Notes");
        });
        goOn();
        EXPECT_EQ(client.names(), Texts());
        startAgain(client, [&] {
            install();
            makeDocuments("1");
        });
        goOn();
        EXPECT_EQ(client.names(), kFirst);
        EXPECT_NE(client.identifierOf("Same.txt"), former);
        EXPECT_FALSE(isKnown(former));
    }
}

TEST_P(LibraryMadeAgainTest, WhatStandsBesideItsPlaceMayComeBack) {
    for (const auto& [from, to] :
         {std::pair(documents_, documents_ + ".old"), std::pair(home_ + "/Notes", home_ + "/Notes of before")}) {
        SCOPED_TRACE(to);
        Client client(*context_, hostframework::kWorkingSetContainer);
        const std::string former = client.identifierOf("Same.txt");
        whileNothingRuns(client, [&, from = from, to = to] {
            disk::rename(from, to);
            makeDocuments("2");
        });
        EXPECT_EQ(client.deleted(), Texts());
        EXPECT_TRUE(client.told().contains("Only in 2.txt"));
        whileNothingRuns(client, [&, from = from, to = to] {
            disk::remove_all(from);
            disk::rename(to, from);
        });
        EXPECT_EQ(client.identifierOf("Only in 2.txt"), "none");
        EXPECT_EQ(client.names(), kFirst);
        EXPECT_EQ(client.identifierOf("Same.txt"), former);
        EXPECT_EQ(nameOf(former), "Same.txt");

        // Further away it is out of sight like any document.
        whileNothingRuns(client, [&] {
            makeDirectories(home_ + "/far/away");
            disk::rename(documents_, home_ + "/far/away/Documents");
            makeDocuments("2");
        });
        EXPECT_EQ(client.names(), kSecond);
        EXPECT_FALSE(isKnown(former));
        whileNothingRuns(client, [&] {
            disk::remove_all(documents_);
            disk::remove_all(home_ + "/far");
            makeDocuments("1");
        });
        EXPECT_EQ(client.names(), kFirst);
    }
}

TEST_P(LibraryMadeAgainTest, AContainerThatIsMovedToAnotherApplicationTakesItsDocumentsAlong) {
    for (const ItemIdentifier& container :
         {ItemIdentifier(hostframework::kRootContainer), ItemIdentifier(hostframework::kWorkingSetContainer)}) {
        SCOPED_TRACE(container);
        Client client(*context_, container);
        const std::string text = client.identifierOf("Same.txt"), folder = client.identifierOf("folder");
        disk::rename(home_ + "/Notes", home_ + "/Renamed");
        disk::create_directory_symlink("Renamed", home_ + "/Notes");
        const std::string entry = home_ + "/.local/share/applications/net.example.Renamed.desktop";
        writeFile(entry,
                  "[Desktop Entry]\nType=Application\nName=Renamed\nExec=true\nX-Tarnwell-DataContainer=~/Renamed\n"
                  "X-Tarnwell-SupportsDocumentBrowser=true\n");
        uninstall();
        context_->refreshApplications();
        client.catchUp();
        EXPECT_TRUE(client.deleted().contains("#net.example.Notes"));
        EXPECT_EQ(client.names(), (Texts{"Renamed", "folder", "Same.txt", "Only in 1.txt"}));
        EXPECT_EQ(client.identifierOf("Same.txt"), text);
        EXPECT_EQ(client.identifierOf("folder"), folder);
        EXPECT_EQ(nameOf(text), "Same.txt");
        writeFile(home_ + "/Renamed/Documents/folder/Later.txt", "text");
        client.catchUp();
        EXPECT_TRUE(client.told().contains("Later.txt"));
        disk::remove(home_ + "/Renamed/Documents/folder/Later.txt");

        // And back.
        disk::remove(home_ + "/Notes");
        disk::rename(home_ + "/Renamed", home_ + "/Notes");
        disk::remove(entry);
        install();
        context_->refreshApplications();
        client.catchUp();
        EXPECT_EQ(client.names(), kFirst);
        EXPECT_EQ(client.identifierOf("Same.txt"), text);
    }
}

TEST_P(LibraryMadeAgainTest, NothingOfTheFormerOnesIsHeldOpen) {
    Client client(*context_, hostframework::kWorkingSetContainer);
    const auto makeAgain = [&](int round) {
        if (round % 2 == 0) {
            disk::remove_all(documents_);
        } else {
            disk::rename(documents_, home_ + "/aside" + std::to_string(round));
        }
        makeDocuments("1");
        look();
        client.catchUp();
    };
    const auto openDescriptors = [] {
        return std::distance(disk::directory_iterator("/proc/self/fd"), disk::directory_iterator());
    };
    for (int round = 0; round < 4; ++round) makeAgain(round);
    const auto before = openDescriptors();
    for (int round = 4; round < 34; ++round) makeAgain(round);
    EXPECT_LE(openDescriptors(), before + 2);
}

}  // namespace
}  // namespace tarnwell::host
