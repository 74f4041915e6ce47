#include <filesystem>

#include "tests/host/RootFollower.h"
#include "tests/host/SessionFixture.h"

namespace tarnwell::host {
namespace {

class ApplicationNamesTest : public LocalSessionTest {
protected:
    ApplicationNamesTest() {
        name("Notes", "Notizen");
        EXPECT_TRUE(context().watchForChanges());
    }
    /// As an update does it: another file under the name.
    void name(const std::string& plain, const std::string& german) {
        writeFile(entryOf("Notes") + ".new",
                  "[Desktop Entry]\nType=Application\nName=" + plain + "\nName[de]=" + german +
                      "\nExec=true\nX-Tarnwell-DataContainer=~/Apps/Notes\nX-Tarnwell-SupportsDocumentBrowser=true\n");
        std::filesystem::rename(entryOf("Notes") + ".new", entryOf("Notes"));
    }
    std::string nameOf(const session::ItemIdentifier& library) {
        const auto item = onlyOne(session().items({library}));
        return item ? item->filename : "none";
    }
    std::string listedName(session::Session& from) {
        const auto listed = from.enumerate(session::kRootContainer, std::nullopt);
        EXPECT_TRUE(listed);
        for (const auto& item : listed->items) {
            if (item.identifier == notesLibrary_) return item.filename;
        }
        return "none";
    }
    std::set<std::string> namesOfApplications() {
        std::set<std::string> names;
        const auto applications = session().applications();
        EXPECT_TRUE(applications);
        for (const auto& application : *applications) names.insert(application.item.filename);
        return names;
    }
};

TEST_F(ApplicationNamesTest, AnotherNameIsToldToWhoeverFollows) {
    RootFollower follower(session());
    ASSERT_EQ(follower.nameOnceTold(notesLibrary_, "Notes"), "Notes");
    name("Notebook", "Notizbuch");
    EXPECT_EQ(follower.nameOnceTold(notesLibrary_, "Notebook"), "Notebook");
    EXPECT_EQ(nameOf(notesLibrary_), "Notebook");
    EXPECT_EQ(namesOfApplications(), (std::set<std::string>{"Maps", "Notebook"}));
    EXPECT_TRUE(follower.deleted().empty());
}

TEST_F(ApplicationNamesTest, FollowTheSessionsLanguage) {
    RootFollower follower(session());
    ASSERT_EQ(follower.nameOnceTold(notesLibrary_, "Notes"), "Notes");
    context().setLanguages({"de_AT", "de"});
    EXPECT_EQ(follower.nameOnceTold(notesLibrary_, "Notizen"), "Notizen");
    EXPECT_EQ(nameOf(notesLibrary_), "Notizen");
    EXPECT_EQ(namesOfApplications(), (std::set<std::string>{"Maps", "Notizen"}));
    name("Notebook", "Notizbuch");
    EXPECT_EQ(follower.nameOnceTold(notesLibrary_, "Notizbuch"), "Notizbuch");
    context().setLanguages({"fr"});
    EXPECT_EQ(follower.nameOnceTold(notesLibrary_, "Notebook"), "Notebook");
    EXPECT_TRUE(follower.deleted().empty());
}

TEST_F(ApplicationNamesTest, WhoeverListsIsToldOnceMoreByTheNextChanges) {
    const auto first = session().enumerate(session::kRootContainer, std::nullopt);
    ASSERT_TRUE(first);
    RootFollower follower(session());
    context().setLanguages({"de"});
    ASSERT_TRUE(session().refresh());
    LocalSession other(context());
    EXPECT_EQ(listedName(other), "Notizen");
    EXPECT_EQ(follower.nameOnceTold(notesLibrary_, "Notizen"), "Notizen");
    EXPECT_EQ(listedName(session()), "Notizen");
}

/// While nothing runs, and while it runs and the client is away.
TEST_F(ApplicationNamesTest, OneThatChangedMeanwhileIsMetByWhoeverComesBack) {
    Bytes root = anchorOf(session::kRootContainer), workingSet = anchorOf(session::kWorkingSetContainer);
    const auto isExpired = [&](const session::ItemIdentifier& container, const Bytes& anchor) {
        return failsWith(session().changes(container, anchor), ErrorDomain::host, session::kSyncAnchorExpired);
    };
    session_.reset();
    end();
    name("Notebook", "Notizbuch");
    EXPECT_TRUE(isExpired(session::kRootContainer, root));
    EXPECT_EQ(listedName(session()), "Notebook");

    root = anchorOf(session::kRootContainer);
    session_.reset();
    name("Jotter", "Block");
    context().refreshApplications();
    EXPECT_TRUE(isExpired(session::kRootContainer, root));
    EXPECT_EQ(listedName(session()), "Jotter");
    // The working set's own list stays the one that the search index was told of, until somebody asks.
    const auto batch = session().changes(session::kWorkingSetContainer, workingSet);
    EXPECT_TRUE(
        batch ? std::ranges::any_of(batch->changes,
                                    [](const auto& change) { return change.item && change.item->filename == "Jotter"; })
              : batch.error().is(ErrorDomain::host, session::kSyncAnchorExpired));
}

TEST_F(ApplicationNamesTest, ThatAreTheSameKeepEveryAnchor) {
    const Bytes root = anchorOf(session::kRootContainer);
    for (int start = 0; start < 3; ++start) {
        session_.reset();
        end();
        context().refreshApplications();
        const auto batch = session().changes(session::kRootContainer, root);
        ASSERT_TRUE(batch) << describe(batch.error());
        EXPECT_TRUE(batch->changes.empty());
    }
}

TEST_F(ApplicationNamesTest, ProgramsOfDifferentLanguagesTakeTurnsWithoutExpiringAnchors) {
    Bytes root = anchorOf(session::kRootContainer);
    for (const char* language : {"de_AT.UTF-8", "C", "de_AT.UTF-8", "C"}) {
        session_.reset();
        end();
        language_ = language;
        const auto batch = session().changes(session::kRootContainer, root);
        ASSERT_TRUE(batch) << language << ": " << describe(batch.error());
        EXPECT_TRUE(batch->changes.empty());
        EXPECT_EQ(listedName(session()), std::string(language) == "C" ? "Notes" : "Notizen");
    }
    session_.reset();
    end();
    // Seen by the one, it is told to both.
    name("Notes", "Merkzettel");
    EXPECT_TRUE(session().changes(session::kRootContainer, root)) << "the same name in this language";
    session_.reset();
    end();
    language_ = "de_AT.UTF-8";
    EXPECT_TRUE(
        failsWith(session().changes(session::kRootContainer, root), ErrorDomain::host, session::kSyncAnchorExpired));
    EXPECT_EQ(listedName(session()), "Merkzettel");
}

}  // namespace
}  // namespace tarnwell::host
