#include <sys/stat.h>

#include <cstdlib>
#include <filesystem>

#include "platform/registry/AppRegistry.h"
#include "testing/PrivateBus.h"
#include "tests/host/RootFollower.h"
#include "tests/host/SessionFixture.h"

/// What the real flatpak does to an installation, and what a program that stays makes of it. Runtime and applications
/// are a few files of the test, in a repository in its private folder; nothing is asked of any other place.
namespace tarnwell::host {
namespace {

namespace disk = std::filesystem;
using testing::readFile;

class FlatpakInstallTest : public ::testing::Test {
protected:
    void SetUp() override {
        if (std::system("command -v flatpak >/dev/null") != 0) GTEST_SKIP() << "flatpak is not installed";
        for (const char* folder : {"home/Documents", "run", "etc", "runtime/files", "runtime/usr"}) {
            makeDirectories(directory_.path(folder));
        }
        ::chmod(directory_.path("run").c_str(), 0700);
        writeFile(directory_.path("runtime/metadata"),
                  "[Runtime]\nname=org.example.Platform\nruntime=org.example.Platform/" + arch() +
                      "/1\nsdk=org.example.Platform/" + arch() + "/1\n");
        if (!flatpak("build-export --runtime --files=files REPOSITORY runtime 1") ||
            !flatpak("remote-add --user --no-gpg-verify local REPOSITORY") ||
            !flatpak("install --user -y --noninteractive --no-related local runtime/org.example.Platform")) {
            GTEST_SKIP() << "flatpak cannot install here: " << said();
        }
        ASSERT_NO_FATAL_FAILURE(publish("org.example.Notes", "Notes", "--persist=Documents"));
        ASSERT_NO_FATAL_FAILURE(publish("org.example.Maps", "Maps", ""));

        const auto settings = Settings::from(testing::variables({{"HOME", directory_.path("home")},
                                                                 {"XDG_DATA_DIRS", directory_.path("share")},
                                                                 {"FLATPAK_SYSTEM_DIR", directory_.path("system")},
                                                                 {"FLATPAK_CONFIG_DIR", directory_.path("etc")}}),
                                             std::nullopt);
        ASSERT_TRUE(settings);
        log_.setThreshold(log::Level::error);
        auto context = ProgramContext::create(*settings, log_);
        ASSERT_TRUE(context) << describe(context.error());
        context_ = std::move(*context);
        ASSERT_TRUE(context_->watchForChanges());
        context_->prepareForRequests();
        session_ = std::make_unique<LocalSession>(*context_);
    }
    void TearDown() override {
        session_.reset();
        context_.reset();
    }

    /// Runs flatpak in the test's home. REPOSITORY stands for the test's own.
    bool flatpak(std::string arguments) const {
        const std::string word = "REPOSITORY";
        for (auto at = arguments.find(word); at != std::string::npos; at = arguments.find(word)) {
            arguments.replace(at, word.size(), "'" + directory_.path("repository") + "'");
        }
        const auto set = [&](const char* name, const std::string& value) {
            return std::string(" ") + name + "='" + value + "'";
        };
        const std::string command =
            "cd '" + directory_.path() + "' && env -i PATH=\"$PATH\" LC_ALL=C" + set("HOME", directory_.path("home")) +
            set("XDG_RUNTIME_DIR", directory_.path("run")) + set("FLATPAK_SYSTEM_DIR", directory_.path("system")) +
            set("FLATPAK_SYSTEM_CACHE_DIR", directory_.path("cache")) +
            set("FLATPAK_CONFIG_DIR", directory_.path("etc")) + set("TMPDIR", directory_.path("run")) +
            set("DBUS_SESSION_BUS_ADDRESS", bus_.address()) +
            set("DBUS_SYSTEM_BUS_ADDRESS", "unix:path=" + directory_.path("none")) + " flatpak " + arguments + " >'" +
            directory_.path("said") + "' 2>&1 </dev/null";
        return std::system(command.c_str()) == 0;
    }
    std::string said() const { return readFile(directory_.path("said")); }
    void run(const std::string& arguments) const { ASSERT_TRUE(flatpak(arguments)) << arguments << "\n" << said(); }
    static std::string arch() {
#if defined(__x86_64__)
        return "x86_64";
#elif defined(__aarch64__)
        return "aarch64";
#else
        return "unknown";
#endif
    }

    /// Puts a version of an application into the repository.
    void publish(const std::string& identifier, const std::string& name, const std::string& permissions) const {
        const std::string folder = directory_.path("build-" + identifier);
        disk::remove_all(folder);
        run("build-init '" + folder + "' " + identifier + " org.example.Platform org.example.Platform 1");
        makeDirectories(folder + "/files/share/applications");
        writeFile(folder + "/files/share/applications/" + identifier + ".desktop",
                  "[Desktop Entry]\nType=Application\nName=" + name + "\nExec=program %f\nMimeType=text/plain;\n");
        run("build-finish --command=program " + permissions + " '" + folder + "'");
        run("build-export REPOSITORY '" + folder + "' 1");
    }
    void install(const std::string& identifier) const {
        run("install --user -y --noninteractive --no-related local " + identifier);
    }
    std::string containerOf(const std::string& identifier) const {
        return directory_.path("home/.var/app/" + identifier);
    }
    /// As the application does it when it is first run.
    void makeDocuments(const std::string& identifier) const {
        makeDirectories(containerOf(identifier) + "/Documents");
        writeFile(containerOf(identifier) + "/Documents/Text.txt", "text of " + identifier);
    }
    registry::BundleRecordPtr record(const std::string& identifier) const {
        return context_->registry().recordForBundleIdentifier(identifier);
    }
    std::string identifierOfText(const std::string& identifier) const {
        const auto found = onlyOne(
            session_->identifiersAtPaths({containerOf(identifier) + "/Documents/Text.txt"}, session::PathUse::lookUp));
        return found.value_or("none");
    }
    bool isKnown(const std::string& identifier) const { return onlyOne(session_->items({identifier})).has_value(); }

    testing::TemporaryDirectory directory_;
    testing::PrivateBus bus_;
    testing::CapturingLog log_;
    std::unique_ptr<ProgramContext> context_;
    std::unique_ptr<LocalSession> session_;
};

TEST_F(FlatpakInstallTest, AnApplicationComesGoesAndComesBack) {
    RootFollower follower(*session_);
    EXPECT_EQ(record("org.example.Notes"), nullptr);
    ASSERT_NO_FATAL_FAILURE(install("org.example.Notes"));
    ASSERT_NE(record("org.example.Notes"), nullptr);
    EXPECT_EQ(record("org.example.Notes")->origin(), registry::Origin::flatpak);
    EXPECT_TRUE(record("org.example.Notes")->isFileSharingEnabled());
    EXPECT_TRUE(record("org.example.Notes")->supportsOpeningDocumentsInPlace());
    makeDocuments("org.example.Notes");
    EXPECT_EQ(follower.nameOnceTold("#org.example.Notes", "Notes"), "Notes");
    const std::string text = identifierOfText("org.example.Notes");

    // The data stays, and is shown again with the application.
    ASSERT_NO_FATAL_FAILURE(run("uninstall --user -y --noninteractive org.example.Notes"));
    EXPECT_EQ(follower.nameOnceTold("#org.example.Notes", "none"), "none");
    EXPECT_EQ(record("org.example.Notes"), nullptr);
    EXPECT_TRUE(disk::exists(containerOf("org.example.Notes") + "/Documents/Text.txt"));
    ASSERT_NO_FATAL_FAILURE(install("org.example.Notes"));
    EXPECT_EQ(follower.nameOnceTold("#org.example.Notes", "Notes"), "Notes");
    EXPECT_EQ(identifierOfText("org.example.Notes"), text);

    ASSERT_NO_FATAL_FAILURE(run("uninstall --user -y --noninteractive --delete-data org.example.Notes"));
    EXPECT_EQ(follower.nameOnceTold("#org.example.Notes", "none"), "none");
    EXPECT_FALSE(disk::exists(containerOf("org.example.Notes")));
    ASSERT_NO_FATAL_FAILURE(install("org.example.Notes"));
    makeDocuments("org.example.Notes");
    EXPECT_EQ(follower.nameOnceTold("#org.example.Notes", "Notes"), "Notes");
    EXPECT_NE(identifierOfText("org.example.Notes"), text);
    EXPECT_FALSE(isKnown(text));
}

TEST_F(FlatpakInstallTest, AnUpdateMayChangeItsName) {
    ASSERT_NO_FATAL_FAILURE(install("org.example.Notes"));
    makeDocuments("org.example.Notes");
    RootFollower follower(*session_);
    ASSERT_EQ(follower.nameOnceTold("#org.example.Notes", "Notes"), "Notes");
    const std::string text = identifierOfText("org.example.Notes");
    ASSERT_NO_FATAL_FAILURE(publish("org.example.Notes", "Notebook", "--persist=Documents"));
    ASSERT_NO_FATAL_FAILURE(run("update --user -y --noninteractive --no-related"));
    EXPECT_EQ(record("org.example.Notes")->localizedName(), "Notebook");
    EXPECT_EQ(follower.nameOnceTold("#org.example.Notes", "Notebook"), "Notebook");
    EXPECT_EQ(identifierOfText("org.example.Notes"), text);

    // A version that keeps its documents no more.
    ASSERT_NO_FATAL_FAILURE(publish("org.example.Notes", "Notebook", ""));
    ASSERT_NO_FATAL_FAILURE(run("update --user -y --noninteractive --no-related"));
    EXPECT_EQ(follower.nameOnceTold("#org.example.Notes", "none"), "none");
}

TEST_F(FlatpakInstallTest, OverridesDecideWhetherItKeepsDocuments) {
    ASSERT_NO_FATAL_FAILURE(install("org.example.Maps"));
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
        ASSERT_NO_FATAL_FAILURE(run(std::string("override --user ") + row.arguments));
        EXPECT_EQ(follower.nameOnceTold("#org.example.Maps", row.name), row.name);
        EXPECT_EQ(record("org.example.Maps")->isFileSharingEnabled(), std::string(row.name) == "Maps");
    }
}

}  // namespace
}  // namespace tarnwell::host
