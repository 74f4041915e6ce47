#include "host/ConfinedSession.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <set>

#include "testing/ScriptedSession.h"

/// Every request of an application in a sandbox, about its own library, another's, the storage root, and nothing.
namespace tarnwell::host {
namespace {

using session::Item;
using session::ItemIdentifier;
using session::JobControl;
using session::Session;

/// A host with two libraries: answers every request about what there is, whoever asks.
class TwoLibraries : public testing::ScriptedSession {
public:
    TwoLibraries() {
        add("#org.own", "RootContainer", std::nullopt, true);
        add("did=1", "#org.own", "org.own", false);
        add("did=2", "did=1", "org.own", false);
        add("#org.other", "RootContainer", std::nullopt, true);
        add("did=8", "#org.other", "org.other", false);
        add("RootContainer", "RootContainer", std::nullopt, false);
        add("did=9", "RootContainer", std::nullopt, false);
        page = session::Page{{known_.at("did=2"), known_.at("did=8"), known_.at("did=9")}, Bytes{1}};
        anchor = Bytes{1};
        batch = session::ChangeBatch{
            {{"did=2", known_.at("did=2")}, {"did=8", known_.at("did=8")}, {"did=77", {}}}, Bytes{2}, false};
        item = known_.at("did=2");
        cleaned = session::CleanedTrash{};
        applicationList = std::vector<session::Application>{{known_.at("#org.own"), "flatpak", "user", "/c"},
                                                            {known_.at("#org.other"), "flatpak", "user", "/d"}};
        refreshed = session::Refreshed{};
        found =
            session::SearchResult{{{known_.at("did=2"), "a"}, {known_.at("did=8"), "b"}, {known_.at("did=9"), "c"}}, 0};
        state = session::Status{};
        opens = [] { return Descriptor(); };
    }

    Each<Item> items(const std::vector<ItemIdentifier>& identifiers) override {
        Each<Item> outcomes;
        for (const auto& identifier : identifiers) {
            const auto one = known_.find(identifier);
            outcomes.push_back(one != known_.end() ? Result<Item>(one->second)
                                                   : failure(Error{ErrorDomain::provider, 0, {}}));
        }
        return outcomes;
    }
    Each<ItemIdentifier> identifiersAtPaths(const std::vector<std::string>& paths, session::PathUse) override {
        Each<ItemIdentifier> outcomes;
        for (const auto& path : paths) {
            outcomes.push_back(known_.contains(path.substr(1)) ? Result<ItemIdentifier>(path.substr(1))
                               : path == "/outside"            ? failure(posixError(EXDEV, "it lies elsewhere"))
                                                               : failure(posixError(ENOENT, "nothing")));
        }
        return outcomes;
    }
    Each<Item> trash(const std::vector<ItemIdentifier>& identifiers, JobControl&) override {
        return touch(identifiers);
    }
    Each<Item> move(const std::vector<ItemIdentifier>& identifiers, const ItemIdentifier& parent,
                    const std::optional<std::string>&, JobControl&) override {
        touched.insert(parent);
        return touch(identifiers);
    }
    Each<Item> restore(const std::vector<ItemIdentifier>& identifiers, const std::optional<ItemIdentifier>& parent,
                       JobControl&) override {
        touched.insert(parent.value_or("where it came from"));
        return touch(identifiers);
    }
    Each<session::Removed> remove(const std::vector<ItemIdentifier>& identifiers, JobControl&) override {
        touch(identifiers);
        return Each<session::Removed>(identifiers.size(), session::Removed{"x", "/x"});
    }
    Each<Bytes> thumbnails(const std::vector<ItemIdentifier>& identifiers, unsigned) override {
        touch(identifiers);
        return Each<Bytes>(identifiers.size(), Bytes{1});
    }

    /// What was asked for, of those that change or read something.
    std::set<std::string> touched;

private:
    void add(const std::string& identifier, const std::string& parent, std::optional<std::string> application,
             bool isLibrary) {
        Item one;
        one.identifier = identifier;
        one.parent = parent;
        one.appContainerBundleIdentifier = std::move(application);
        one.isContainer = isLibrary;
        one.isFolder = true;
        known_.emplace(identifier, one);
    }
    Each<Item> touch(const std::vector<ItemIdentifier>& identifiers) {
        touched.insert(identifiers.begin(), identifiers.end());
        return items(identifiers);
    }
    std::map<std::string, Item> known_;
};

class ConfinedSessionTest : public ::testing::Test {
protected:
    ConfinedSessionTest() { inner_->watching = {}; }

    std::shared_ptr<TwoLibraries> inner_ = std::make_shared<TwoLibraries>();
    std::optional<ItemIdentifier> library_ = "#org.own";
    ConfinedSession confined_{inner_, [this] { return library_; }};
    JobControl job_;
};

bool isNoSuchItem(const Error& error) { return error.is(ErrorDomain::host, session::kNoSuchItem); }

/// One way to ask about an item: the error it ends with, if any.
struct Question {
    const char* name;
    std::function<std::optional<Error>(Session&, const std::string&, JobControl&)> ask;
};

template <typename T>
std::optional<Error> errorOf(const Result<T>& result) {
    return result ? std::nullopt : std::optional(result.error());
}

const std::vector<Question>& questions() {
    static const std::vector<Question> all = {
        {"items", [](Session& s, const std::string& i, JobControl&) { return errorOf(s.items({i}).at(0)); }},
        {"enumerate", [](Session& s, const std::string& i, JobControl&) { return errorOf(s.enumerate(i, {})); }},
        {"currentAnchor", [](Session& s, const std::string& i, JobControl&) { return errorOf(s.currentAnchor(i)); }},
        {"changes", [](Session& s, const std::string& i, JobControl&) { return errorOf(s.changes(i, {1})); }},
        {"watch", [](Session& s, const std::string& i, JobControl&) { return errorOf(s.watch(i, [] {})); }},
        {"open",
         [](Session& s, const std::string& i, JobControl&) { return errorOf(s.open(i, Session::Access::read)); }},
        {"makeFolder", [](Session& s, const std::string& i, JobControl&) { return errorOf(s.makeFolder("n", i)); }},
        {"rename", [](Session& s, const std::string& i, JobControl&) { return errorOf(s.rename(i, "n")); }},
        {"move",
         [](Session& s, const std::string& i, JobControl& j) { return errorOf(s.move({i}, "did=1", {}, j).at(0)); }},
        {"move to",
         [](Session& s, const std::string& i, JobControl& j) { return errorOf(s.move({"did=2"}, i, {}, j).at(0)); }},
        {"trash", [](Session& s, const std::string& i, JobControl& j) { return errorOf(s.trash({i}, j).at(0)); }},
        {"restore",
         [](Session& s, const std::string& i, JobControl& j) { return errorOf(s.restore({i}, {}, j).at(0)); }},
        {"restore to",
         [](Session& s, const std::string& i, JobControl& j) { return errorOf(s.restore({"did=2"}, i, j).at(0)); }},
        {"remove", [](Session& s, const std::string& i, JobControl& j) { return errorOf(s.remove({i}, j).at(0)); }},
        {"setTags", [](Session& s, const std::string& i, JobControl&) { return errorOf(s.setTags(i, {})); }},
        {"setRank", [](Session& s, const std::string& i, JobControl&) { return errorOf(s.setRank(i, 1)); }},
        {"setLastUsed", [](Session& s, const std::string& i, JobControl&) { return errorOf(s.setLastUsed(i, {})); }},
        {"thumbnails",
         [](Session& s, const std::string& i, JobControl&) { return errorOf(s.thumbnails({i}, 0).at(0)); }},
        {"search below", [](Session& s, const std::string& i,
                            JobControl&) { return errorOf(s.search({.query = "x", .below = i}, {})); }},
    };
    return all;
}

TEST_F(ConfinedSessionTest, OfItsOwnItMayAskEverything) {
    for (const auto& question : questions()) {
        for (const char* own : {"#org.own", "did=1", "did=2"}) {
            const auto error = question.ask(confined_, own, job_);
            EXPECT_FALSE(error) << question.name << " " << own << ": " << describe(*error);
        }
    }
}

TEST_F(ConfinedSessionTest, WhatIsNotItsOwnIsAnsweredAsWhatIsNotThere) {
    for (const auto& question : questions()) {
        const auto absent = question.ask(confined_, "did=4242", job_);
        ASSERT_TRUE(absent && isNoSuchItem(*absent)) << question.name;
        for (const char* other : {"#org.other", "did=8", "did=9", "RootContainer", "WorkingSetContainer",
                                  "AllDirectoriesContainer", "", "#org.ow", "#org.own2"}) {
            inner_->touched.clear();
            const auto before = inner_->requests().size();
            const auto error = question.ask(confined_, other, job_);
            ASSERT_TRUE(error) << question.name << " " << other;
            // Down to the letter, but for the identifier that was asked for.
            Error expected = *absent;
            for (auto& [key, value] : expected.userInfo) {
                if (value == "did=4242") value = other;
            }
            EXPECT_EQ(*error, expected) << question.name << " " << other;
            EXPECT_TRUE(inner_->touched.empty()) << question.name << " " << other;
            EXPECT_EQ(inner_->requests().size(), before) << question.name << " " << other;
        }
    }
}

TEST_F(ConfinedSessionTest, WithoutALibraryThereIsNothing) {
    library_ = std::nullopt;
    for (const auto& question : questions()) {
        for (const char* any : {"#org.own", "did=2", "did=8", "RootContainer"}) {
            const auto error = question.ask(confined_, any, job_);
            ASSERT_TRUE(error && isNoSuchItem(*error)) << question.name << " " << any;
        }
    }
    EXPECT_TRUE(confined_.applications()->empty());
    EXPECT_TRUE(confined_.search({.query = "x"}, {})->items.empty());
    EXPECT_TRUE(confined_.restore({}, {}, job_).empty());
    // As soon as it has one, it sees it.
    library_ = "#org.own";
    EXPECT_TRUE(confined_.items({"did=2"}).at(0));
}

TEST_F(ConfinedSessionTest, PathsLeadToItsOwnOnly) {
    for (const auto use : {session::PathUse::lookUp, session::PathUse::target}) {
        const auto outcomes = confined_.identifiersAtPaths(
            {"/did=2", "/did=8", "/did=9", "/RootContainer", "/nothing", "/outside", "/#org.other"}, use);
        EXPECT_EQ(outcomes.at(0), Result<ItemIdentifier>("did=2"));
        for (std::size_t i = 1; i < outcomes.size(); ++i) {
            ASSERT_FALSE(outcomes[i]) << i;
            EXPECT_EQ(outcomes[i].error(), outcomes.at(4).error()) << i;
        }
    }
}

TEST_F(ConfinedSessionTest, WhatIsNotItsOwnIsLeftOutOfAnswers) {
    const auto page = confined_.enumerate("#org.own", {});
    ASSERT_EQ(page->items.size(), 1U);
    EXPECT_EQ(page->items[0].identifier, "did=2");
    EXPECT_EQ(page->next, Bytes{1});
    const auto batch = confined_.changes("#org.own", {1});
    ASSERT_EQ(batch->changes.size(), 3U);
    EXPECT_TRUE(batch->changes[0].item);
    EXPECT_FALSE(batch->changes[1].item);
    EXPECT_FALSE(batch->changes[2].item);
    ASSERT_EQ(confined_.applications()->size(), 1U);
    EXPECT_EQ(confined_.applications()->at(0).item.identifier, "#org.own");
    const auto found = confined_.search({.query = "x"}, {});
    ASSERT_EQ(found->items.size(), 1U);
    EXPECT_EQ(found->items[0].item.identifier, "did=2");
    EXPECT_EQ(inner_->requests().back(), "search x [] [] #org.own relevance untrashed 100");
}

TEST_F(ConfinedSessionTest, OfSeveralThingsItsOwnAreDone) {
    const auto outcomes = confined_.trash({"did=8", "did=2", "did=9", "did=1"}, job_);
    ASSERT_EQ(outcomes.size(), 4U);
    EXPECT_FALSE(outcomes[0]);
    EXPECT_EQ(outcomes[1]->identifier, "did=2");
    EXPECT_FALSE(outcomes[2]);
    EXPECT_EQ(outcomes[3]->identifier, "did=1");
    EXPECT_EQ(inner_->touched, (std::set<std::string>{"did=1", "did=2"}));
}

TEST_F(ConfinedSessionTest, WithoutAParentItRestoresToItsLibrary) {
    (void)confined_.restore({"did=2"}, std::nullopt, job_);
    EXPECT_TRUE(inner_->touched.contains("#org.own"));
    EXPECT_FALSE(inner_->touched.contains("where it came from"));
}

TEST_F(ConfinedSessionTest, WhatConcernsTheWholeDeviceIsRefused) {
    const auto isRefused = [](const auto& outcome) {
        return !outcome && outcome.error().is(ErrorDomain::posix, EACCES);
    };
    EXPECT_TRUE(isRefused(confined_.import({"/etc/passwd"}, "#org.own", job_).at(0)));
    EXPECT_TRUE(isRefused(confined_.cleanTrash(Date())));
    EXPECT_TRUE(isRefused(confined_.refresh()));
    EXPECT_TRUE(isRefused(confined_.status()));
    EXPECT_TRUE(inner_->requests().empty());
}

TEST_F(ConfinedSessionTest, ItLearnsOfNoOtherApplication) {
    EXPECT_TRUE(confined_.defaultContainer("org.own"));
    const auto other = confined_.defaultContainer("org.other"), none = confined_.defaultContainer("org.none");
    ASSERT_TRUE(!other && !none);
    EXPECT_EQ(other.error().userInfo.at(kErrorMessage), none.error().userInfo.at(kErrorMessage));
    EXPECT_EQ(other.error().code, none.error().code);
    // Neither by the places that a query names.
    for (const char* query : {"in:Other x", "x -in:Other", "in:#org.own x"}) {
        const auto found = confined_.search({.query = query}, {});
        ASSERT_FALSE(found) << query;
        EXPECT_TRUE(found.error().is(ErrorDomain::posix, EINVAL)) << query;
    }
    EXPECT_EQ(inner_->requests(), std::vector<std::string>{"defaultContainer org.own"});
}

TEST_F(ConfinedSessionTest, WhatIsTakenElsewhereWhileItIsOpenedIsNotHandedOut) {
    inner_->opens = [&] {
        library_ = "#org.moved";
        return Descriptor();
    };
    EXPECT_FALSE(confined_.open("did=2", Session::Access::read));
}

}  // namespace
}  // namespace tarnwell::host
