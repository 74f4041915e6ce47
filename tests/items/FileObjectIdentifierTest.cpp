#include <gtest/gtest.h>

#include <cerrno>
#include <limits>

#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include "ItemsFixture.h"
#include "hostframework/ItemIdentifier.h"

namespace tarnwell::items {
namespace {

using files::ResourceKey;
using files::ResourceValue;
using hostframework::kRootContainer;
using log::Level;
using Line = testing::CapturingLog::Line;

class FileObjectIdentifierTest : public ItemsTest {
protected:
    /// Lets an object look as if its numbers were unknown, so that it is asked itself.
    void hideNumbers(bool package = false) {
        files.answerResource(ResourceKey::fileID, ResourceValue{});
        files.answerResource(ResourceKey::documentID, ResourceValue{});
        files.answerResource(ResourceKey::isPackage, package);
    }
};

TEST_F(FileObjectIdentifierTest, WritesNumbersInUnsignedDecimal) {
    EXPECT_EQ(TWPFileObjectIdentifier::fromFileID(517), "fid=517");
    EXPECT_EQ(TWPFileObjectIdentifier::fromFileID(0), "fid=0");
    EXPECT_EQ(TWPFileObjectIdentifier::fromFileID(std::numeric_limits<std::uint64_t>::max()),
              "fid=18446744073709551615");
    EXPECT_EQ(TWPFileObjectIdentifier::fromDocumentID(42), "did=42");
    EXPECT_EQ(TWPFileObjectIdentifier::fromDocumentID(std::numeric_limits<std::uint64_t>::max()),
              "did=18446744073709551615");
}

TEST_F(FileObjectIdentifierTest, ANewFileHasADocumentIDFromItsFirstIdentifierOnAndLeadsBack) {
    std::string identifier = makeFile("a.txt");
    EXPECT_TRUE(identifier.starts_with("did=")) << identifier;
    EXPECT_EQ(identifierOf(device.url("a.txt")), identifier);
    EXPECT_EQ(resolved(identifier), device.url("a.txt"));
    EXPECT_NE(makeFile("b.txt"), identifier);
    EXPECT_EQ(logged(), Texts{});
}

TEST_F(FileObjectIdentifierTest, AFolderIsNamedByItsFileIDAndNeverAllocates) {
    std::string identifier = makeFolder("Folder/Sub");
    EXPECT_TRUE(identifier.starts_with("fid=")) << identifier;
    EXPECT_EQ(store.allocations(), 0u);
    auto status = device.files().stat(device.url("Folder/Sub"));
    ASSERT_TRUE(status);
    EXPECT_EQ(numberIn(identifier), raw(status->fileID));
    EXPECT_EQ(resolved(identifier), device.url("Folder/Sub"));
    EXPECT_EQ(identifiers.fileURLWithFileIdentifier(numberIn(identifier)), device.url("Folder/Sub"));
    EXPECT_EQ(identifiers.fileURLWithFileIdentifier(numberIn(identifier), device.device()), device.url("Folder/Sub"));
    EXPECT_EQ(logged(), Texts{});
    // Nor does the store give it one by itself.
    EXPECT_EQ(device.files().resourceValue(device.url("Folder/Sub"), ResourceKey::documentID), ResourceValue());
    EXPECT_EQ(device.generationStore().permanentStorage(device.url("Folder/Sub")).value(), std::nullopt);
}

TEST_F(FileObjectIdentifierTest, APackageIsADocument) {
    if (!packagesAreKnown()) GTEST_SKIP() << "update-mime-database does not work here, so no folder is a package";
    std::string identifier = makeFolder("Notes.docbundle");
    EXPECT_TRUE(identifier.starts_with("did=")) << identifier;
    EXPECT_EQ(identifierOf(device.url("Notes.docbundle")), identifier);
    EXPECT_EQ(resolved(identifier), device.url("Notes.docbundle"));
}

TEST_F(FileObjectIdentifierTest, LinksPipesAndSocketsAreNamedByTheirFileIDs) {
    testing::writeFile(device.path("a.txt"), "");
    testing::makeDirectories(device.path("Folder"));
    ASSERT_EQ(::symlink("a.txt", device.path("to file").c_str()), 0);
    ASSERT_EQ(::symlink("Folder", device.path("to folder").c_str()), 0);
    ASSERT_EQ(::symlink("/etc/passwd", device.path("out").c_str()), 0);
    ASSERT_EQ(::symlink("nowhere", device.path("dangling").c_str()), 0);
    ASSERT_EQ(::mkfifo(device.path("pipe").c_str(), 0600), 0);
    Descriptor socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    const std::string socketPath = device.path("s");
    ASSERT_LT(socketPath.size(), sizeof address.sun_path);
    socketPath.copy(address.sun_path, socketPath.size());
    ASSERT_EQ(::bind(socket.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
    for (const char* name : {"to file", "to folder", "out", "dangling", "pipe", "s"}) {
        std::string identifier = identifierOf(device.url(name));
        EXPECT_TRUE(identifier.starts_with("fid=")) << name << " is " << identifier;
        EXPECT_EQ(resolved(identifier), device.url(name)) << name;
    }
    EXPECT_EQ(store.allocations(), 0u);
    EXPECT_EQ(logged(), Texts{});
}

TEST_F(FileObjectIdentifierTest, RenamesAndMovesKeepAnIdentifier) {
    testing::makeDirectories(device.path("To"));
    const std::string file = makeFile("a.txt");
    const std::string folder = makeFolder("Folder");
    ASSERT_EQ(::rename(device.path("a.txt").c_str(), device.path("To/b.txt").c_str()), 0);
    ASSERT_EQ(::rename(device.path("Folder").c_str(), device.path("To/Other").c_str()), 0);
    EXPECT_EQ(identifierOf(device.url("To/b.txt")), file);
    EXPECT_EQ(identifierOf(device.url("To/Other")), folder);
    EXPECT_EQ(resolved(file), device.url("To/b.txt"));
    EXPECT_EQ(resolved(folder), device.url("To/Other"));
}

TEST_F(FileObjectIdentifierTest, TheStorageRootIsTheRootContainer) {
    EXPECT_EQ(identifiers.itemIdentifier(device.url()), kRootContainer);
    EXPECT_EQ(resolved(kRootContainer), device.url());
    EXPECT_EQ(files.calls(), 0u);
}

TEST_F(FileObjectIdentifierTest, ALibraryIsNamedByItsBundleAndWhatItHoldsByNumbers) {
    auto notes = addLibrary("notes", "org.example.notes");
    auto nameless = addLibrary("nameless", std::nullopt);
    testing::writeFile(notes.path + "/a.txt", "");
    testing::makeDirectories(nameless.path + "/Folder");
    EXPECT_EQ(identifierOf(notes.root), "#org.example.notes");
    EXPECT_EQ(identifiers.fromAppLibraryDataContainerURL(notes.root), "#org.example.notes");
    EXPECT_EQ(identifierOf(nameless.root), "#(null)");
    std::string file = identifierOf(notes.root.appending("a.txt"));
    std::string folder = identifierOf(nameless.root.appending("Folder"));
    EXPECT_TRUE(file.starts_with("did=")) << file;
    EXPECT_TRUE(folder.starts_with("fid=")) << folder;
    EXPECT_EQ(resolved(file), notes.root.appending("a.txt"));
    EXPECT_EQ(resolved(folder), nameless.root.appending("Folder"));
    EXPECT_EQ(logged(), Texts{});
}

TEST_F(FileObjectIdentifierTest, NoLibraryAtAURLIsAnErrorLine) {
    auto notes = addLibrary("notes", "org.example.notes");
    testing::makeDirectories(notes.path + "/a b");
    for (const URL& url : {notes.root.appending("a b"), device.url("x"), URL::file("/")}) {
        EXPECT_FALSE(identifiers.fromAppLibraryDataContainerURL(url));
        EXPECT_EQ(loggedLines(), (std::vector<Line>{{Level::error, "can't find bundle proxy at " + url.text()}}));
    }
    environment.appLibraries = nullptr;
    EXPECT_FALSE(identifiers.fromAppLibraryDataContainerURL(notes.root));
    EXPECT_EQ(logged(), Texts{"can't find bundle proxy at " + notes.root.text()});
}

TEST_F(FileObjectIdentifierTest, ALibraryRootWhoseRecordIsGoneHasNoIdentifier) {
    URL root = URL::file("/elsewhere/Documents");
    libraries.add(root, nullptr);
    EXPECT_FALSE(identifiers.itemIdentifier(root));
    EXPECT_EQ(logged(), Texts{"can't find bundle proxy at file:///elsewhere/Documents"});
}

TEST_F(FileObjectIdentifierTest, APlaceOutsideAllRootsHasNone) {
    addLibrary("notes", "org.example.notes");
    const struct {
        URL url;
        std::string shown;
    } rows[] = {
        {URL::file("/etc/passwd"), "/etc/passwd"},
        {URL::file("/"), "/"},
        {URL::file("/etc/../usr/./share//x"), "/usr/share/x"},
        {URL::file("/../.."), "/"},
        {URL::file(device.url().path() + "2/a"), device.url().path() + "2/a"},
        {device.url().deletingLastPathComponent(), device.url().deletingLastPathComponent().path()},
    };
    for (const auto& row : rows) {
        EXPECT_FALSE(identifiers.itemIdentifier(row.url)) << row.shown;
        EXPECT_EQ(loggedLines(),
                  (std::vector<Line>{{Level::debug, "can't compute file object identifier because \"" + row.shown +
                                                        "\" is not part of Tarnwell Storage"}}));
    }
    environment.appLibraries = nullptr;
    EXPECT_FALSE(identifiers.itemIdentifier(URL::file("/etc")));
    EXPECT_EQ(logged(), Texts{"can't compute file object identifier because \"/etc\" is not part of Tarnwell Storage"});
    EXPECT_EQ(files.calls(), 0u);
}

TEST_F(FileObjectIdentifierTest, AURLOfAnotherSchemeHasNone) {
    EXPECT_FALSE(identifiers.itemIdentifier(URL::parse("https://example.org/a")));
    EXPECT_EQ(loggedLines(),
              (std::vector<Line>{{Level::error, "can't compute file object identifier if not a file URL"}}));
}

TEST_F(FileObjectIdentifierTest, AMissingFileIsLoggedAtTheDebugLevelAndOtherTroubleAsAnError) {
    testing::makeDirectories(device.path("Folder"));
    const URL gone = device.url("gone");
    const std::string no260 = describe({ErrorDomain::generalFile, kNoSuchFileOnRead, {}});
    EXPECT_FALSE(identifiers.itemIdentifier(gone));
    auto lines = loggedLines();
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_EQ(lines[0].level, Level::debug);
    EXPECT_TRUE(lines[0].text.starts_with("can't get doc ID for " + quoted(gone.path()) + "; " + no260))
        << lines[0].text;

    const struct {
        const char* name;
        ResourceKey key;
        Error error;
        Level level;
        std::string line;
    } rows[] = {
        {"Folder",
         ResourceKey::fileID,
         {ErrorDomain::generalFile, kNoSuchFileOnRead, {}},
         Level::debug,
         "can't get file ID for " + quoted(device.url("Folder").path()) + "; " + no260},
        {"Folder", ResourceKey::fileID, posixError(EIO), Level::error,
         "can't get file ID for " + quoted(device.url("Folder").path()) + "; POSIX EIO (Input/output error)"},
        {"gone", ResourceKey::documentID, posixError(ENOENT), Level::error,
         "can't get doc ID for " + quoted(gone.path()) + "; POSIX ENOENT (No such file or directory)"},
        {"gone",
         ResourceKey::documentID,
         {ErrorDomain::generalFile, kWriteNotPermitted, {}},
         Level::error,
         "can't get doc ID for " + quoted(gone.path()) + "; general file error 513 (write not permitted)"},
    };
    for (const auto& row : rows) {
        files.clear();
        files.failResource(row.key, row.error);
        EXPECT_FALSE(identifiers.itemIdentifier(device.url(row.name))) << row.line;
        EXPECT_EQ(loggedLines(), (std::vector<Line>{{row.level, row.line}}));
    }
}

TEST_F(FileObjectIdentifierTest, ANumberOfAnotherClassStopsTheProcess) {
    const DyingProcesses processes;
    testing::writeFile(device.path("a.txt"), "");
    testing::makeDirectories(device.path("Folder"));
    files.answerResource(ResourceKey::fileID, std::string("7"));
    files.answerResource(ResourceKey::documentID, true);
    EXPECT_DEATH(identifiers.itemIdentifier(device.url("Folder")), "unexpected class for file ID");
    EXPECT_DEATH(identifiers.itemIdentifier(device.url("a.txt")), "unexpected class for doc ID");
}

TEST_F(FileObjectIdentifierTest, AFolderThatIsAskedItselfGetsTheReferenceOfItsNumberAndRemembersTheTrueOne) {
    const std::string known = makeFolder("Folder");
    hideNumbers();
    const URL url = device.url("Folder");
    const std::string identifier = identifierOf(url);
    EXPECT_TRUE(identifier.starts_with("fid=")) << identifier;
    EXPECT_NE(identifier, known);
    EXPECT_GT(numberIn(identifier), 4096u);
    EXPECT_EQ(numberIn(identifier) % alignof(std::uint64_t), 0u);
    EXPECT_EQ(files.calls(Operation::setResourceValue), 1u);
    EXPECT_EQ(url.cache().fileID(), FileID{numberIn(known)});
    EXPECT_EQ(logged(), Texts{});
    EXPECT_FALSE(resolved(identifier));
    logged();
    files.clear();
    EXPECT_EQ(identifierOf(url), known);
    EXPECT_EQ(store.allocations(), 0u);
}

TEST_F(FileObjectIdentifierTest, ALinkOrPipeThatIsAskedItselfCountsAsNoDocument) {
    testing::writeFile(device.path("a.txt"), "");
    ASSERT_EQ(::symlink("a.txt", device.path("link").c_str()), 0);
    ASSERT_EQ(::mkfifo(device.path("pipe").c_str(), 0600), 0);
    for (bool package : {false, true}) {
        hideNumbers(package);
        for (const char* name : {"link", "pipe"}) {
            std::string identifier = identifierOf(device.url(name));
            EXPECT_TRUE(identifier.starts_with("fid=")) << name << " is " << identifier;
        }
    }
    EXPECT_EQ(store.allocations(), 0u);
}

TEST_F(FileObjectIdentifierTest, ADocumentThatIsAskedItselfUsesTheNumberItHas) {
    const std::string known = makeFile("a.txt");
    const std::uint64_t before = store.allocations();
    hideNumbers();
    const URL url = device.url("a.txt");
    EXPECT_EQ(identifierOf(url), known);
    EXPECT_EQ(store.allocations(), before);
    EXPECT_EQ(url.cache().documentID(), DocumentID{static_cast<std::uint32_t>(numberIn(known))});
    files.clear();
    EXPECT_EQ(identifierOf(url), known) << "remembered on the URL";
    EXPECT_EQ(files.calls(Operation::openEventOnly), 0u);
    EXPECT_EQ(logged(), Texts{});
}

TEST_F(FileObjectIdentifierTest, ADocumentThatIsAskedItselfAndHasNoNumberIsGivenOne) {
    testing::writeFile(device.path("a.txt"), "");
    testing::makeDirectories(device.path("Folder"));
    hideNumbers(true);
    files.withholdDocumentIDs();
    for (const char* name : {"a.txt", "Folder"}) {
        const std::uint64_t before = store.allocations();
        const URL url = device.url(name);
        const std::string identifier = identifierOf(url);
        EXPECT_TRUE(identifier.starts_with("did=")) << name << " is " << identifier;
        EXPECT_EQ(store.allocations(), before + 1) << name;
        EXPECT_EQ(url.cache().documentID(), DocumentID{static_cast<std::uint32_t>(numberIn(identifier))}) << name;
        EXPECT_EQ(identifierOf(device.url(name)), identifier) << "the same one when asked again";
    }
    EXPECT_EQ(logged(), Texts{});
}

TEST_F(FileObjectIdentifierTest, AValueThatCannotBeRememberedIsLoggedAndNothingElse) {
    const std::string folder = makeFolder("Folder");
    const std::string file = makeFile("a.txt");
    hideNumbers();
    files.fail(Operation::setResourceValue, EINVAL);
    EXPECT_TRUE(identifierOf(device.url("Folder")).starts_with("fid="));
    EXPECT_EQ(identifierOf(device.url("a.txt")), file);
    EXPECT_EQ(loggedLines(),
              (std::vector<Line>{{Level::debug, "can't set resource value " + folder.substr(4) +
                                                    " for key \"fileID\"; POSIX EINVAL (Invalid argument)"},
                                 {Level::debug, "can't set resource value " + file.substr(4) +
                                                    " for key \"documentID\"; POSIX EINVAL (Invalid argument)"}}));
}

TEST_F(FileObjectIdentifierTest, EveryFailureToAskTheObjectItselfIsAnErrorLine) {
    testing::writeFile(device.path("a.txt"), "");
    const URL url = device.url("a.txt");
    const std::string path = quoted(url.path());
    auto attempt = [&](const std::string& line) {
        files.withholdDocumentIDs();
        EXPECT_FALSE(identifiers.itemIdentifier(device.url("a.txt"))) << line;
        EXPECT_EQ(loggedLines(), (std::vector<Line>{{Level::error, line}}));
        files.clear();
    };
    files.failResource(ResourceKey::isPackage, {ErrorDomain::generalFile, kNoSuchFileOnRead, {}});
    attempt("can't tell whether " + path + " is a package; general file error 260 (no such file)");
    files.fail(Operation::openEventOnly, EMFILE);
    attempt("can't open file at " + path + "; " + std::to_string(EMFILE));
    files.fail(Operation::attributeList, ESTALE);
    attempt("can't get attribute list for " + path + "; " + std::to_string(ESTALE));
    store.failAllocations(ENOSPC, 1);
    attempt("can't get permanent storage for " + path);
    EXPECT_TRUE(identifiers.itemIdentifier(device.url("a.txt")));
}

TEST_F(FileObjectIdentifierTest, EverythingBelowTheRootsLiesOnOneDevice) {
    auto notes = addLibrary("notes", "org.example.notes");
    testing::writeFile(device.path("a.txt"), "");
    ASSERT_EQ(::symlink("/etc", device.path("out").c_str()), 0);
    for (const URL& url : {device.url(), device.url("a.txt"), device.url("out"), notes.root})
        EXPECT_EQ(identifiers.deviceID(url), device.device()) << url.path();
    EXPECT_EQ(identifiers.deviceIDWithError(device.url("gone")).error(), posixError(ENOENT));
    EXPECT_EQ(identifiers.deviceIDWithError(URL::file("/etc")).error(), posixError(ENOENT));
}

TEST_F(FileObjectIdentifierTest, TheDebugTextsAreNotMadeWhileDebugIsOff) {
    log.setThreshold(Level::error);
    EXPECT_FALSE(identifiers.itemIdentifier(URL::file("/etc")));
    EXPECT_FALSE(identifiers.fileURLWithFileIdentifier(0));
    EXPECT_EQ(logged(), Texts{});
}

TEST_F(FileObjectIdentifierTest, ItsClassOperationsAreReachableByName) {
    const std::string folder = makeFolder("Folder");
    auto notes = addLibrary("notes", "org.example.notes");
    hostframework::ObjectRuntime runtime;
    TWPFileObjectIdentifier::registerOperations(runtime, environment);
    auto perform = [&](const char* operation, const std::any& argument) {
        return runtime.perform("TWPFileObjectIdentifier", operation, argument).value();
    };
    using Text = std::optional<std::string>;
    using Place = std::optional<URL>;
    EXPECT_EQ(std::any_cast<std::string>(perform("fromFileID:", std::uint64_t{5})), "fid=5");
    EXPECT_EQ(std::any_cast<std::string>(perform("fromDocumentID:", std::uint64_t{6})), "did=6");
    EXPECT_EQ(std::any_cast<Text>(perform("fromAppLibraryDataContainerURL:", notes.root)), "#org.example.notes");
    EXPECT_EQ(std::any_cast<Place>(perform("fileURLWithItemIdentifier:", folder)), device.url("Folder"));
    EXPECT_EQ(std::any_cast<Place>(perform("fileURLWithFileIdentifier:", numberIn(folder))), device.url("Folder"));
    for (const char* operation : {"fromFileID:", "fromDocumentID:", "fromAppLibraryDataContainerURL:",
                                  "fileURLWithItemIdentifier:", "fileURLWithFileIdentifier:"})
        EXPECT_FALSE(perform(operation, 'x').has_value()) << operation;
}

}  // namespace
}  // namespace tarnwell::items
