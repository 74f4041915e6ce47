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
    const auto listed = session().enumerate(session::kRootContainer, std::nullopt);
    ASSERT_TRUE(listed);
    const bool shows = std::ranges::any_of(listed->items, [](const auto& item) { return item.filename == "Notizen"; });
    EXPECT_TRUE(shows);
    EXPECT_EQ(follower.nameOnceTold(notesLibrary_, "Notizen"), "Notizen");
}

}  // namespace
}  // namespace tarnwell::host
