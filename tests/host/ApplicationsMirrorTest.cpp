#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <random>
#include <set>
#include <tuple>
#include <utility>

#include "applibraries/AppLibraryContext.h"
#include "fs/ChangeToken.h"
#include "host/Changes.h"
#include "host/EnumeratorHolder.h"
#include "host/Listing.h"
#include "host/ProgramContext.h"
#include "hostframework/HostError.h"
#include "testing/CapturingLog.h"
#include "testing/LongRun.h"
#include "testing/TemporaryDirectory.h"
#include "testing/Variables.h"

/// Applications that come, go, move and change at random on a real device, with restarts in between, and clients that
/// come back with anchors of any age: each request ends as the generations of both sides say, and a client that obeys
/// knows what is on the device.
namespace tarnwell::host {
namespace {

namespace disk = std::filesystem;
using hostframework::ItemIdentifier;
using hostframework::SyncAnchor;
using testing::makeDirectories;
using testing::writeFile;

/// What is known of an item: the container it lies in and its name.
struct Known {
    ItemIdentifier parent;
    std::string name;
    friend bool operator==(const Known&, const Known&) = default;
};
using Tree = std::map<ItemIdentifier, Known>;

Known knownOf(const hostframework::ProviderItem& item) { return {item.parentItemIdentifier(), item.filename()}; }

void drop(Tree& tree, const ItemIdentifier& gone) {
    tree.erase(gone);
    std::vector<ItemIdentifier> below;
    for (const auto& [identifier, known] : tree) {
        if (known.parent == gone) below.push_back(identifier);
    }
    for (const ItemIdentifier& identifier : below) drop(tree, identifier);
}

std::string differenceOf(const Tree& mine, const Tree& truth) {
    std::string text;
    for (const auto& [identifier, known] : truth) {
        const auto found = mine.find(identifier);
        if (found == mine.end()) {
            text += "\n  not known: " + identifier + " " + known.name + " in " + known.parent;
        } else if (!(found->second == known)) {
            text += "\n  known as " + found->second.name + " in " + found->second.parent + ": " + identifier + " " +
                    known.name + " in " + known.parent;
        }
    }
    for (const auto& [identifier, known] : mine) {
        if (!truth.contains(identifier)) text += "\n  gone: " + identifier + " " + known.name + " in " + known.parent;
    }
    return text;
}

/// A home in which applications of three kinds are installed and removed, and the program on it. Its registry is looked
/// at when the test says so.
class Device {
public:
    Device() {
        makeDirectories(home_ + "/Documents");
        for (const char* folder : {kUser, kSystem, kUserFlatpaks, kSystemFlatpaks}) makeDirectories(home_ + folder);
        start();
    }

    /// A new start of the program; nobody may be following.
    void start() {
        context_.reset();
        const std::map<std::string, std::string> variables{{"HOME", home_},
                                                           {"XDG_DATA_DIRS", home_ + "/system"},
                                                           {"FLATPAK_SYSTEM_DIR", home_ + "/system/flatpak"},
                                                           {"FLATPAK_CONFIG_DIR", home_ + "/system/etc"}};
        const auto settings = Settings::from(testing::variables(variables), std::nullopt);
        ASSERT_TRUE(settings);
        auto context = ProgramContext::create(*settings, log_);
        ASSERT_TRUE(context) << describe(context.error());
        context_ = std::move(*context);
        refresh();
    }
    /// As the program does at each look; how many generations it began: one for another list, and one for other names.
    unsigned refresh() {
        auto& libraries = context_->appLibraries();
        const bool changed = libraries.refreshAppLibraries();
        libraries.sharedManager().upgradeFromMainCache(nullptr, applibraries::IndexCleanup::no);
        const bool renamed = libraries.renewNames("en:", applibraries::AppLibraryContext::Look::again);
        return (changed ? 1U : 0U) + (renamed ? 1U : 0U);
    }
    std::uint64_t mainToken() {
        auto& cache = context_->appLibraries().mainCache();
        return cache.queue().sync([&] { return cache.versionToken(); });
    }
    std::uint64_t workingSetFileToken() {
        auto& cache = context_->appLibraries().workingSetCache();
        return cache.queue().sync([&] { return cache.load().versionToken; });
    }
    void loseWorkingSetFile() { disk::remove(home_ + "/.local/share/Tarnwell Storage/searchable-app-libraries.plist"); }

    static constexpr int kApplications = 6;
    /// Even ones are desktop entries, odd ones Flatpaks.
    static std::string identifierOf(int application) { return "net.example.App" + std::to_string(application); }
    std::string containerOf(int application) const {
        return home_ + (isFlatpak(application) ? "/.var/app/" + identifierOf(application)
                                               : "/Apps/" + std::to_string(application));
    }
    std::string documentsOf(int application) const { return containerOf(application) + "/Documents"; }
    bool isInstalled(int application) const {
        return disk::is_symlink(entryOf(application, false)) || disk::exists(entryOf(application, false)) ||
               disk::is_symlink(entryOf(application, true)) || disk::exists(entryOf(application, true));
    }
    void install(int application, bool forUser, const std::string& name) const {
        const std::string identifier = identifierOf(application);
        if (!isFlatpak(application)) {
            replaceFile(entryOf(application, forUser), entryText(name) +
                                                           "X-Tarnwell-DataContainer=" + containerOf(application) +
                                                           "\nX-Tarnwell-SupportsDocumentBrowser=true\n");
            return;
        }
        // Each version is deployed beside the former one, then "active" leads to it.
        const std::string app = home_ + (forUser ? kUserFlatpaks : kSystemFlatpaks) + "/../../../app/" + identifier;
        const std::string branch = app + "/x86_64/stable";
        int version = 1;
        while (disk::exists(branch + "/" + std::to_string(version))) ++version;
        const std::string deployed = branch + "/" + std::to_string(version);
        makeDirectories(deployed + "/export/share/applications");
        writeFile(deployed + "/export/share/applications/" + identifier + ".desktop",
                  entryText(name) + "Exec=flatpak run " + identifier + " %f\nMimeType=text/plain;\n");
        writeFile(deployed + "/metadata", "[Application]\nname=" + identifier + "\n[Context]\npersistent=Documents;\n");
        leadTo(branch + "/active", std::to_string(version));
        leadTo(app + "/current", "x86_64/stable");
        leadTo(entryOf(application, forUser),
               "../../../app/" + identifier + "/current/active/export/share/applications/" + identifier + ".desktop");
    }
    void uninstall(int application) const {
        for (const bool forUser : {false, true}) disk::remove(entryOf(application, forUser));
    }
    std::string pathOf(const std::string& relative) const { return home_ + "/" + relative; }
    ProgramContext& context() { return *context_; }

private:
    static constexpr const char* kUser = "/.local/share/applications";
    static constexpr const char* kSystem = "/system/applications";
    static constexpr const char* kUserFlatpaks = "/.local/share/flatpak/exports/share/applications";
    static constexpr const char* kSystemFlatpaks = "/system/flatpak/exports/share/applications";

    static bool isFlatpak(int application) { return application % 2 == 1; }
    std::string entryOf(int application, bool forUser) const {
        const char* folder =
            isFlatpak(application) ? (forUser ? kUserFlatpaks : kSystemFlatpaks) : (forUser ? kUser : kSystem);
        return home_ + folder + "/" + identifierOf(application) + ".desktop";
    }
    static std::string entryText(const std::string& name) {
        return "[Desktop Entry]\nType=Application\nName=" + name + "\n";
    }
    static void replaceFile(const std::string& path, const std::string& text) {
        writeFile(path + ".new", text);
        disk::rename(path + ".new", path);
    }
    static void leadTo(const std::string& link, const std::string& target) {
        disk::remove(link + ".new");
        disk::create_symlink(target, link + ".new");
        disk::rename(link + ".new", link);
    }

    testing::TemporaryDirectory directory_;
    const std::string home_ = directory_.path("home");
    testing::CapturingLog log_;
    std::unique_ptr<ProgramContext> context_;
};

/// One client of the root or the working set. It keeps what it knew at earlier anchors, too.
class Client {
public:
    Client(Device& device, ItemIdentifier container) : device_(device), container_(std::move(container)) { begin(); }

    /// From scratch: everything from an enumerator's pages, folder by folder, and the anchor of that enumerator.
    void begin() {
        tree_.clear();
        const std::uint64_t generation = expectedGeneration();
        auto made = device_.context().provider().enumeratorForContainerItemIdentifier(container_);
        ASSERT_TRUE(made) << describe(made.error());
        EnumeratorHolder enumerator(std::move(*made));
        collect(*enumerator);
        std::optional<SyncAnchor> anchor;
        enumerator->currentSyncAnchorWithCompletionHandler([&](const auto& current) { anchor = current; });
        ASSERT_TRUE(anchor);
        anchor_ = *anchor;
        EXPECT_EQ(tokenOf(anchor_), generation);
        keep();
    }
    /// Asks with what it knew at an earlier anchor or, with the newest, goes on; a follower that stays or a new one.
    void ask(std::size_t which, bool stays) {
        const auto [anchor, tree] = kept_.at(which);
        anchor_ = anchor;
        tree_ = tree;
        if (!stays || !follower_) {
            auto made = ChangeFollower::create(device_.context().provider(), container_);
            ASSERT_TRUE(made);
            follower_ = std::make_shared<ChangeFollower>(std::move(*made));
            generation_ = expectedGeneration();
        }
        const std::uint64_t since = tokenOf(anchor_), main = device_.mainToken();
        const bool expires = since != 0 && since != generation_;
        const bool hasNews = since == 0 || main != generation_, upgrades = main != generation_;
        std::set<ItemIdentifier> toldLibraries, goneLibraries, toList;
        for (bool more = true, isFirst = true; more; isFirst = false) {
            const auto batch = follower_->changesSince(anchor_);
            if (isFirst && expires) {
                ASSERT_FALSE(batch) << "an anchor of generation " << since << " was honoured by " << generation_;
                EXPECT_TRUE(batch.error().is(ErrorDomain::host, hostframework::kSyncAnchorExpired))
                    << describe(batch.error());
                ++outcomes_[lastOutcome_ = "expired"];
                follower_.reset();
                begin();
                return;
            }
            ASSERT_TRUE(batch) << describe(batch.error()) << "; anchor " << since << ", local " << generation_
                               << ", main " << main;
            for (const ChangeReport& report : batch->reports) {
                if (report.updated) {
                    const auto& identifier = report.updated->itemIdentifier();
                    auto& known = tree_[identifier];
                    if (known.name == kNotListed) toList.insert(identifier);
                    known = knownOf(*report.updated);
                    if (identifier.starts_with('#')) toldLibraries.insert(identifier);
                } else {
                    drop(tree_, *report.deleted);
                    if (report.deleted->starts_with('#')) goneLibraries.insert(*report.deleted);
                }
            }
            anchor_ = batch->anchor;
            more = batch->moreComing;
        }
        lastOutcome_ = since == 0 ? "full list" : hasNews ? "differences of lists" : "files only";
        ++outcomes_[lastOutcome_];
        for (const ItemIdentifier& library : toList) collect(library);
        generation_ = main;
        EXPECT_EQ(tokenOf(anchor_), main);
        if (!hasNews) {
            EXPECT_EQ(toldLibraries, std::set<ItemIdentifier>());
            EXPECT_EQ(goneLibraries, std::set<ItemIdentifier>());
        } else {
            EXPECT_EQ(toldLibraries, librariesOnDevice());
        }
        if (container_ == hostframework::kWorkingSetContainer && upgrades) {
            EXPECT_EQ(device_.workingSetFileToken(), main);
        }
        check();
        keep();
    }
    void stopFollowing() { follower_.reset(); }
    /// A follower with the generation that it has.
    using Follower = std::pair<std::shared_ptr<ChangeFollower>, std::uint64_t>;
    Follower takeFollower() { return {std::exchange(follower_, nullptr), generation_}; }
    void giveFollower(Follower follower) { std::tie(follower_, generation_) = std::move(follower); }
    const std::string& lastOutcome() const { return lastOutcome_; }
    std::size_t anchors() const { return kept_.size(); }
    const std::map<std::string, int>& outcomes() const { return outcomes_; }

private:
    static constexpr std::size_t kMostKept = 12;
    static constexpr const char* kNotListed = "/";

    static std::uint64_t tokenOf(const SyncAnchor& anchor) {
        const auto token = fs::ChangeToken::decode(anchor);
        EXPECT_TRUE(token);
        return token ? token->appLibraryVersionToken : 0;
    }
    /// Which generation an enumerator has that is made now: that of its cache file.
    std::uint64_t expectedGeneration() {
        return container_ == hostframework::kWorkingSetContainer ? device_.workingSetFileToken() : device_.mainToken();
    }
    /// Of a library that the working set's list still has and the device has not, nothing can be known yet.
    void collect(const ItemIdentifier& container) {
        auto made = device_.context().provider().enumeratorForContainerItemIdentifier(container);
        if (!made && container.starts_with('#')) {
            tree_.at(container).name = kNotListed;
            return;
        }
        ASSERT_TRUE(made) << describe(made.error());
        EnumeratorHolder enumerator(std::move(*made));
        collect(*enumerator);
    }
    void collect(hostframework::ProviderEnumerator& enumerator) {
        struct Collector : hostframework::EnumerationObserver {
            void didEnumerateItems(const std::vector<hostframework::ProviderItemPtr>& found) override {
                items.insert(items.end(), found.begin(), found.end());
            }
            void finishEnumeratingUpToPage(const std::optional<hostframework::EnumerationPage>& after) override {
                next = after;
            }
            void finishEnumeratingWithError(const Error& error) override { ADD_FAILURE() << describe(error); }
            std::vector<hostframework::ProviderItemPtr> items;
            std::optional<hostframework::EnumerationPage> next;
        };
        std::optional<hostframework::EnumerationPage> page = hostframework::kInitialPageSortedByName;
        std::vector<ItemIdentifier> folders;
        while (page) {
            const auto collector = std::make_shared<Collector>();
            enumerator.enumerateItemsForObserver(collector, *page);
            page = collector->next;
            for (const auto& item : collector->items) {
                const bool isNew = tree_.insert_or_assign(item->itemIdentifier(), knownOf(*item)).second;
                if (isNew && item->isFolder()) folders.push_back(item->itemIdentifier());
            }
        }
        for (const ItemIdentifier& folder : folders) collect(folder);
    }
    std::set<ItemIdentifier> librariesOnDevice() {
        std::set<ItemIdentifier> identifiers;
        for (const auto& [identifier, known] : truth()) {
            if (identifier.starts_with('#')) identifiers.insert(identifier);
        }
        return identifiers;
    }
    Tree truth() {
        Tree tree;
        const auto listed = listContainer(device_.context().provider(), hostframework::kRootContainer,
                                          {.depth = Depth::recursive, .progress = {}});
        EXPECT_TRUE(listed);
        for (const auto& one : *listed) tree[one.item->itemIdentifier()] = knownOf(*one.item);
        return tree;
    }
    void check() { EXPECT_EQ(differenceOf(tree_, truth()), "") << container_; }
    void keep() {
        if (kept_.size() == kMostKept) kept_.erase(kept_.begin());
        kept_.emplace_back(anchor_, tree_);
    }

    Device& device_;
    const ItemIdentifier container_;
    std::shared_ptr<ChangeFollower> follower_;
    std::string lastOutcome_;
    std::uint64_t generation_ = 0;  ///< that the follower's enumerator has
    Tree tree_;
    SyncAnchor anchor_;
    std::vector<std::pair<SyncAnchor, Tree>> kept_;
    std::map<std::string, int> outcomes_;
};

/// Every cell of the decision by which a request with an anchor of one generation is answered, each reached by what
/// happens on a device. `Client` knows what has to come of it; here it is named.
TEST(ApplicationsMirror, EveryAnswerOfTheVersionDecisionIsReached) {
    struct Row {
        const char* what;
        const char* outcome;
        std::function<void(Device& device, Client& client)> happens;
    };
    const auto next = [](Device& device) {
        int application = 0;
        while (device.isInstalled(application)) ++application;
        device.install(application, true, "Name");
        makeDirectories(device.documentsOf(application));
        EXPECT_TRUE(device.refresh());
    };
    const auto newest = [](Client& client) { return client.anchors() - 1; };
    const Row rows[] = {
        {"nothing ever installed", "full list", [&](Device&, Client& client) { client.ask(0, false); }},
        {"the first application, by an anchor from before", "full list",
         [&](Device& device, Client& client) {
             next(device);
             client.ask(0, false);
         }},
        {"from zero by a follower that has the list", "full list",
         [&](Device& device, Client& client) {
             next(device);
             client.ask(0, true);
             client.ask(0, true);
         }},
        {"nothing new", "files only",
         [&](Device& device, Client& client) {
             next(device);
             client.ask(0, true);
             client.ask(newest(client), true);
         }},
        {"one more, and one less", "differences of lists",
         [&](Device& device, Client& client) {
             next(device);
             client.ask(0, true);
             next(device);
             client.ask(newest(client), true);
             device.uninstall(0);
             EXPECT_TRUE(device.refresh());
             client.ask(newest(client), true);
         }},
        {"two generations at once", "differences of lists",
         [&](Device& device, Client& client) {
             next(device);
             client.ask(0, true);
             next(device);
             next(device);
             client.ask(newest(client), true);
         }},
        {"an anchor of a generation that the follower left", "expired",
         [&](Device& device, Client& client) {
             next(device);
             client.ask(0, true);
             next(device);
             client.ask(newest(client), true);
             client.ask(newest(client) - 1, true);
         }},
        {"an anchor ahead of a follower that stays behind", "expired",
         [&](Device& device, Client& client) {
             next(device);
             client.ask(0, true);
             const auto behind = client.takeFollower();
             next(device);
             client.ask(newest(client), false);
             client.begin();
             client.giveFollower(behind);
             client.ask(newest(client), true);
         }},
    };
    for (const ItemIdentifier& container :
         {ItemIdentifier(hostframework::kRootContainer), ItemIdentifier(hostframework::kWorkingSetContainer)}) {
        for (const Row& row : rows) {
            SCOPED_TRACE(container + ": " + row.what);
            Device device;
            Client client(device, container);
            row.happens(device, client);
            EXPECT_EQ(client.lastOutcome(), row.outcome);
        }
    }
}

class Workday {
public:
    explicit Workday(std::uint64_t seed) : random_(seed) {
        for (const char* container : {"root", "workingset", "workingset"}) {
            clients_.push_back(std::make_unique<Client>(
                device_, std::string(container) == "root" ? ItemIdentifier(hostframework::kRootContainer)
                                                          : ItemIdentifier(hostframework::kWorkingSetContainer)));
        }
    }
    void step() {
        for (std::size_t changes = below(4); changes > 0; --changes) change();
        if (below(4) != 0) {
            const std::uint64_t before = device_.mainToken();
            const unsigned generations = device_.refresh();
            // A program that began a moment ago may look at the applications by itself meanwhile.
            EXPECT_GE(device_.mainToken(), before + generations);
            EXPECT_LE(device_.mainToken(), before + generations + 1);
            EXPECT_EQ(device_.refresh(), 0U) << "nothing changed since";
        }
        if (below(12) == 0) restart();
        if (below(25) == 0) device_.loseWorkingSetFile();
        // A list that is not looked at yet is told of later: what clients are asked to know is the list's documents.
        device_.refresh();
        Client& client = *clients_[below(clients_.size())];
        const std::size_t which = below(3) == 0 ? below(client.anchors()) : client.anchors() - 1;
        client.ask(which, below(2) == 0);
    }
    std::string outcomes() const {
        std::map<std::string, int> sum;
        for (const auto& client : clients_) {
            for (const auto& [outcome, times] : client->outcomes()) sum[outcome] += times;
        }
        std::string text;
        for (const auto& [outcome, times] : sum) text += " " + outcome + ": " + std::to_string(times);
        return text;
    }

private:
    std::size_t below(std::size_t end) { return std::uniform_int_distribution<std::size_t>(0, end - 1)(random_); }
    std::string newName(const std::string& what) { return what + " " + std::to_string(++number_); }

    void change() {
        const int application = static_cast<int>(below(Device::kApplications));
        const std::string documents = device_.documentsOf(application);
        switch (below(10)) {
            case 0:
            case 1:
                // Installed, updated, renamed, or brought from the system to the user.
                device_.install(application, below(2) == 0, newName("Name"));
                if (below(4) != 0) makeDirectories(documents);
                break;
            case 2:
                device_.uninstall(application);  // its data stays
                break;
            case 3:
                device_.uninstall(application);
                disk::remove_all(device_.containerOf(application));
                break;
            case 4:
                // Written again with another name, or elsewhere, so that it comes at another place in the list.
                if (!device_.isInstalled(application)) break;
                device_.uninstall(application);
                device_.install(application, below(2) == 0, newName("Name"));
                break;
            case 5:
                if (!device_.isInstalled(application) || !disk::exists(documents)) break;
                disk::remove_all(documents);
                makeDirectories(documents);
                break;
            case 6:
            case 7:
                if (disk::exists(documents)) changeFiles(documents);
                break;
            default:
                changeFiles(device_.pathOf("Documents"));
        }
    }
    void changeFiles(const std::string& folder) {
        std::vector<std::string> names;
        for (const auto& entry : disk::directory_iterator(folder)) names.push_back(entry.path().filename());
        std::ranges::sort(names);
        switch (names.empty() ? 0 : below(4)) {
            case 0:
                writeFile(folder + "/" + newName("file"), "text");
                break;
            case 1:
                makeDirectories(folder + "/" + newName("folder"));
                break;
            case 2:
                disk::rename(folder + "/" + names[below(names.size())], folder + "/" + newName("moved"));
                break;
            default:
                disk::remove_all(folder + "/" + names[below(names.size())]);
        }
    }
    void restart() {
        // Documents that are made again are known to be others only to a program that had the former ones open, and
        // looks at them: a new start cannot tell a folder that was removed from one that is not available, of which
        // nothing is told. So everybody is told before.
        device_.refresh();
        EXPECT_TRUE(device_.context().events().currentEventID({}, events::Interest::everything));
        for (const auto& client : clients_) client->ask(client->anchors() - 1, true);
        for (const auto& client : clients_) client->stopFollowing();
        device_.start();
    }

    std::mt19937_64 random_;
    Device device_;
    std::vector<std::unique_ptr<Client>> clients_;
    int number_ = 0;
};

TEST(ApplicationsMirror, AClientThatObeysKnowsWhatIsOnTheDevice) {
    const std::uint64_t seed = testing::chooseSeed("ApplicationsMirror");
    const int steps = testing::isLongRun() ? 5000 : 120;
    Workday day(seed);
    for (int step = 0; step < steps; ++step) {
        SCOPED_TRACE("step " + std::to_string(step) + " with TARNWELL_DEEP_SEED=" + std::to_string(seed));
        day.step();
        if (::testing::Test::HasFailure()) return;
    }
    std::printf("outcomes:%s\n", day.outcomes().c_str());
    for (const char* outcome : {"expired", "differences of lists", "files only"}) {
        EXPECT_NE(day.outcomes().find(outcome), std::string::npos) << outcome << " with TARNWELL_DEEP_SEED=" << seed;
    }
}

}  // namespace
}  // namespace tarnwell::host
