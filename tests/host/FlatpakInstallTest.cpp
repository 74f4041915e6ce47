#include <filesystem>

#include "platform/registry/AppRegistry.h"
#include "testing/FlatpakHome.h"
#include "testing/PrivateBus.h"
#include "testing/WaitingProcess.h"
#include "tests/host/RootFollower.h"
#include "tests/host/SessionFixture.h"
#include "tests/host/SessionMirror.h"

/// What the real flatpak does to an installation, and what a program that stays makes of it. Runtime and applications
/// are a few files of the test, in a repository in its private folder; nothing is asked of any other place.
namespace tarnwell::host {
namespace {

namespace disk = std::filesystem;

class FlatpakInstallTest : public ::testing::Test {
protected:
    void SetUp() override {
        if (!testing::FlatpakHome::isFlatpakInstalled()) GTEST_SKIP() << "flatpak is not installed";
        const std::string trouble = flatpak_.begin({"/bin/true"});
        if (!trouble.empty()) GTEST_SKIP() << "flatpak cannot install here: " << trouble;
        ASSERT_EQ(flatpak_.publish("org.example.Notes", "Notes", "--persist=Documents"), "");
        ASSERT_EQ(flatpak_.publish("org.example.Maps", "Maps", ""), "");
        start();
    }
    void TearDown() override { stop(); }

    void start() {
        const auto settings = Settings::from(testing::variables(flatpak_.variables()), std::nullopt);
        ASSERT_TRUE(settings);
        log_.setThreshold(log::Level::error);
        auto context = ProgramContext::create(*settings, log_);
        ASSERT_TRUE(context) << describe(context.error());
        context_ = std::move(*context);
        ASSERT_TRUE(context_->watchForChanges());
        context_->prepareForRequests();
        session_ = std::make_unique<LocalSession>(*context_);
    }
    void stop() {
        session_.reset();
        context_.reset();
    }

    std::string containerOf(const std::string& identifier) const { return flatpak_.containerOf(identifier); }
    /// As the application does it when it is first run.
    void makeDocuments(const std::string& identifier) const {
        makeDirectories(containerOf(identifier) + "/Documents");
        writeFile(flatpak_.document(identifier, "Text.txt"), "text of " + identifier);
    }
    registry::BundleRecordPtr record(const std::string& identifier) const {
        return context_->registry().recordForBundleIdentifier(identifier);
    }
    std::string identifierOfText(const std::string& identifier) const {
        const auto found = onlyOne(
            session_->identifiersAtPaths({flatpak_.document(identifier, "Text.txt")}, session::PathUse::lookUp));
        return found.value_or("none");
    }
    bool isKnown(const std::string& identifier) const { return onlyOne(session_->items({identifier})).has_value(); }

    testing::PrivateBus bus_;
    testing::FlatpakHome flatpak_{bus_.address()};
    testing::CapturingLog log_;
    std::unique_ptr<ProgramContext> context_;
    std::unique_ptr<LocalSession> session_;
};

TEST_F(FlatpakInstallTest, AnApplicationComesGoesAndComesBack) {
    RootFollower follower(*session_);
    EXPECT_EQ(record("org.example.Notes"), nullptr);
    ASSERT_EQ(flatpak_.install("org.example.Notes"), "");
    ASSERT_NE(record("org.example.Notes"), nullptr);
    EXPECT_EQ(record("org.example.Notes")->origin(), registry::Origin::flatpak);
    EXPECT_TRUE(record("org.example.Notes")->isFileSharingEnabled());
    EXPECT_TRUE(record("org.example.Notes")->supportsOpeningDocumentsInPlace());
    makeDocuments("org.example.Notes");
    EXPECT_EQ(follower.nameOnceTold("#org.example.Notes", "Notes"), "Notes");
    const std::string text = identifierOfText("org.example.Notes");

    // The data stays, and is shown again with the application.
    ASSERT_EQ(flatpak_.run("uninstall --user -y --noninteractive org.example.Notes"), "");
    EXPECT_EQ(follower.nameOnceTold("#org.example.Notes", "none"), "none");
    EXPECT_EQ(record("org.example.Notes"), nullptr);
    EXPECT_TRUE(disk::exists(containerOf("org.example.Notes") + "/Documents/Text.txt"));
    ASSERT_EQ(flatpak_.install("org.example.Notes"), "");
    EXPECT_EQ(follower.nameOnceTold("#org.example.Notes", "Notes"), "Notes");
    EXPECT_EQ(identifierOfText("org.example.Notes"), text);

    ASSERT_EQ(flatpak_.run("uninstall --user -y --noninteractive --delete-data org.example.Notes"), "");
    EXPECT_EQ(follower.nameOnceTold("#org.example.Notes", "none"), "none");
    EXPECT_FALSE(disk::exists(containerOf("org.example.Notes")));
    ASSERT_EQ(flatpak_.install("org.example.Notes"), "");
    makeDocuments("org.example.Notes");
    EXPECT_EQ(follower.nameOnceTold("#org.example.Notes", "Notes"), "Notes");
    EXPECT_NE(identifierOfText("org.example.Notes"), text);
    EXPECT_FALSE(isKnown(text));
}

TEST_F(FlatpakInstallTest, AnUpdateMayChangeItsName) {
    ASSERT_EQ(flatpak_.install("org.example.Notes"), "");
    makeDocuments("org.example.Notes");
    RootFollower follower(*session_);
    ASSERT_EQ(follower.nameOnceTold("#org.example.Notes", "Notes"), "Notes");
    const std::string text = identifierOfText("org.example.Notes");
    ASSERT_EQ(flatpak_.publish("org.example.Notes", "Notebook", "--persist=Documents"), "");
    ASSERT_EQ(flatpak_.update(), "");
    EXPECT_EQ(record("org.example.Notes")->localizedName(), "Notebook");
    EXPECT_EQ(follower.nameOnceTold("#org.example.Notes", "Notebook"), "Notebook");
    EXPECT_EQ(identifierOfText("org.example.Notes"), text);

    // A version that keeps its documents no more.
    ASSERT_EQ(flatpak_.publish("org.example.Notes", "Notebook", ""), "");
    ASSERT_EQ(flatpak_.update(), "");
    EXPECT_EQ(follower.nameOnceTold("#org.example.Notes", "none"), "none");
}

/// Its maker gives it another ID: an update installs it under that one, and flatpak moves its data when it is first
/// run.
class RenamedFlatpakTest : public FlatpakInstallTest {
protected:
    void SetUp() override {
        std::string reason;
        if (!testing::canMakeSandboxes(reason)) GTEST_SKIP() << reason;
        ASSERT_NO_FATAL_FAILURE(FlatpakInstallTest::SetUp());
        if (IsSkipped()) return;
        ASSERT_EQ(flatpak_.install("org.example.Notes"), "");
        makeDocuments("org.example.Notes");
        makeDirectories(flatpak_.document("org.example.Notes", "Letters"));
        writeFile(flatpak_.document("org.example.Notes", "Letters/First.txt"), "dear");
        RootFollower follower(*session_);
        ASSERT_EQ(follower.nameOnceTold("#org.example.Notes", "Notes"), "Notes");
        text_ = identifierOfText("org.example.Notes");
        ASSERT_NE(text_, "none");
    }
    void update() const {
        ASSERT_EQ(flatpak_.publish("org.example.Notebook", "Notebook", "--persist=Documents"), "");
        ASSERT_EQ(flatpak_.endInFavourOf("org.example.Notes", "org.example.Notebook"), "");
        ASSERT_EQ(flatpak_.update(), "");
    }
    void runForTheFirstTime() const {
        ASSERT_EQ(flatpak_.run("run --command=true org.example.Notebook"), "");
        ASSERT_TRUE(disk::is_symlink(containerOf("org.example.Notes"))) << "flatpak moves the data elsewhere now";
        ASSERT_TRUE(disk::exists(flatpak_.document("org.example.Notebook", "Text.txt")));
    }
    /// One library, with the documents as they were known before.
    void expectTheDocumentsUnderTheNewID() {
        const auto tree = SessionMirror::listed(*session_);
        SessionMirror::Tree documents;
        for (const auto& [identifier, place] : tree) {
            if (place.second == "Text.txt" || place.second == "First.txt") documents[identifier] = place;
        }
        EXPECT_EQ(documents.size(), 2U) << "each document is there once";
        EXPECT_EQ(documents[text_], std::pair(std::string("#org.example.Notebook"), std::string("Text.txt")));
        EXPECT_FALSE(tree.contains("#org.example.Notes"));
        EXPECT_FALSE(isKnown("#org.example.Notes"));
        // The former path leads there by flatpak's link.
        EXPECT_EQ(identifierOfText("org.example.Notes"), text_);
        EXPECT_EQ(identifierOfText("org.example.Notebook"), text_);
    }
    void expectExact(SessionMirror& mirror) {
        mirror.catchUp(*session_);
        EXPECT_EQ(mirror.tree(), SessionMirror::listed(*session_));
    }

    std::string text_;
};

TEST_F(RenamedFlatpakTest, TakesItsDocumentsAlongWhileAProgramFollows) {
    RootFollower follower(*session_);
    SessionMirror root(*session_, session::kRootContainer), all(*session_, session::kWorkingSetContainer);
    SessionMirror laterRoot = root, laterAll = all;
    ASSERT_NO_FATAL_FAILURE(update());
    // Until it is run, the data is where nobody keeps documents any more.
    EXPECT_EQ(follower.nameOnceTold("#org.example.Notes", "none"), "none");
    EXPECT_EQ(record("org.example.Notes"), nullptr);
    ASSERT_NE(record("org.example.Notebook"), nullptr);
    EXPECT_FALSE(isKnown("#org.example.Notebook"));
    for (SessionMirror* mirror : {&root, &all}) expectExact(*mirror);
    EXPECT_FALSE(root.tree().contains(text_));

    ASSERT_NO_FATAL_FAILURE(runForTheFirstTime());
    EXPECT_EQ(follower.nameOnceTold("#org.example.Notebook", "Notebook"), "Notebook");
    expectTheDocumentsUnderTheNewID();
    for (SessionMirror* mirror : {&root, &all, &laterRoot, &laterAll}) expectExact(*mirror);
}

TEST_F(RenamedFlatpakTest, TakesItsDocumentsAlongWhileNoProgramRuns) {
    SessionMirror root(*session_, session::kRootContainer), all(*session_, session::kWorkingSetContainer);
    stop();
    ASSERT_NO_FATAL_FAILURE(update());
    ASSERT_NO_FATAL_FAILURE(runForTheFirstTime());
    ASSERT_NO_FATAL_FAILURE(start());
    expectTheDocumentsUnderTheNewID();
    for (SessionMirror* mirror : {&root, &all}) expectExact(*mirror);
}

TEST_F(RenamedFlatpakTest, TakesItsDocumentsAlongOverAStartInBetween) {
    SessionMirror root(*session_, session::kRootContainer), all(*session_, session::kWorkingSetContainer);
    ASSERT_NO_FATAL_FAILURE(update());
    stop();
    ASSERT_NO_FATAL_FAILURE(start());
    for (SessionMirror* mirror : {&root, &all}) expectExact(*mirror);
    stop();
    ASSERT_NO_FATAL_FAILURE(runForTheFirstTime());
    ASSERT_NO_FATAL_FAILURE(start());
    expectTheDocumentsUnderTheNewID();
    for (SessionMirror* mirror : {&root, &all}) expectExact(*mirror);
}

TEST_F(FlatpakInstallTest, OverridesDecideWhetherItKeepsDocuments) {
    ASSERT_EQ(flatpak_.install("org.example.Maps"), "");
    makeDocuments("org.example.Maps");
    RootFollower follower(*session_);
    EXPECT_FALSE(record("org.example.Maps")->isFileSharingEnabled());
    struct Row {
        const char* arguments;
        const char* name;
    };
    for (const Row& row : {Row{"--persist=Documents org.example.Maps", "Maps"}, Row{"--reset org.example.Maps", "none"},
                           Row{"--persist=. org.example.Maps", "Maps"},
                           // What the sandbox may see besides says nothing of what it keeps.
                           Row{"--nofilesystem=home org.example.Maps", "Maps"},
                           Row{"--nofilesystem=host --nofilesystem=xdg-documents org.example.Maps", "Maps"},
                           Row{"--reset org.example.Maps", "none"}, Row{"--persist=Other org.example.Maps", "none"},
                           Row{"--filesystem=home org.example.Maps", "none"}, Row{"--persist=Documents", "Maps"},
                           Row{"--reset", "none"}}) {
        SCOPED_TRACE(row.arguments);
        ASSERT_EQ(flatpak_.run(std::string("override --user ") + row.arguments), "");
        EXPECT_EQ(follower.nameOnceTold("#org.example.Maps", row.name), row.name);
        EXPECT_EQ(record("org.example.Maps")->isFileSharingEnabled(), std::string(row.name) == "Maps");
    }
}

}  // namespace
}  // namespace tarnwell::host
