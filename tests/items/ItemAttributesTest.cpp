#include "items/ItemAttributes.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>

#include <fcntl.h>
#include <grp.h>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

#include "ItemsFixture.h"

namespace tarnwell::items {
namespace {

using log::Level;
using Line = testing::CapturingLog::Line;

const std::string kName = "com.vellum.trash.putback#PS";

Bytes bytes(std::string_view text) { return Bytes(text.begin(), text.end()); }

class ItemAttributesTest : public ItemsTest {
protected:
    void SetUp() override { testing::writeFile(device.path("a.txt"), ""); }
    Descriptor open(const std::string& relative) {
        return Descriptor(::open(device.path(relative).c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW));
    }
    std::optional<Bytes> read(const std::string& relative) {
        return valueOfAttribute(environment, kName, device.url(relative));
    }
};

TEST(ItemAttributeNames, AreTheExactOnes) {
    EXPECT_EQ(std::string(LocalItem::xattrLastUsedDateName), "com.vellum.lastuseddate#PS");
    EXPECT_EQ(std::string(LocalItem::xattrTagDataName), "com.vellum.metadata:_kMDItemUserTags");
    EXPECT_EQ(std::string(LocalItem::xattrFavoriteRankName), "com.vellum.favorite-rank.number#PS");
    EXPECT_EQ(std::string(LocalItem::xattrTrashDateName), "com.vellum.trash.time#PS");
    EXPECT_EQ(std::string(LocalItem::xattrTrashPutBackName), "com.vellum.trash.putback#PS");
}

TEST_F(ItemAttributesTest, AMissingAttributeIsNothingAndSilent) {
    EXPECT_FALSE(read("a.txt"));
    EXPECT_FALSE(read(""));
    EXPECT_EQ(logged(), Texts{});
}

TEST_F(ItemAttributesTest, AnAttributeGivesItsExactBytes) {
    for (const std::string& value : {std::string("x"), std::string("\0\xFF\n", 3), std::string(3000, 'v')}) {
        testing::setUserAttribute(device.path("a.txt"), kName, value);
        EXPECT_EQ(read("a.txt"), bytes(value)) << value.size() << " bytes";
    }
    testing::setUserAttribute(device.path("a.txt"), kName, "");
    EXPECT_EQ(read("a.txt"), Bytes{});
    EXPECT_EQ(logged(), Texts{});
}

TEST_F(ItemAttributesTest, AnAttributeOfSixtyFourKiBIsReadWhole) {
    if (::access("/dev/shm", W_OK) != 0)
        GTEST_SKIP() << "no /dev/shm, and other file systems keep less in an attribute";
    const char* set = std::getenv("TARNWELL_TEST_DIR");
    const std::optional<std::string> before = set != nullptr ? std::optional<std::string>(set) : std::nullopt;
    ::setenv("TARNWELL_TEST_DIR", "/dev/shm", 1);
    testing::TemporaryDirectory memory;
    if (before)
        ::setenv("TARNWELL_TEST_DIR", before->c_str(), 1);
    else
        ::unsetenv("TARNWELL_TEST_DIR");
    testing::makeDirectories(memory.path("app/Documents"));
    const std::string path = memory.path("app/Documents/a.txt");
    testing::writeFile(path, "");
    const std::string value(64 * 1024, 'v');
    if (::lsetxattr(path.c_str(), ("user." + kName).c_str(), value.data(), value.size(), 0) != 0)
        GTEST_SKIP() << "/dev/shm keeps no attribute of 64 KiB here: " << errnoName(errno);
    auto record = installApplication(memory.path("app"), "org.example.memory", std::nullopt);
    const URL url = record->dataContainerURL()->appending("Documents").appending("a.txt");
    EXPECT_EQ(valueOfAttribute(environment, kName, url), bytes(value));
    EXPECT_EQ(logged(), Texts{});
    const std::string& rankName = LocalItem::xattrFavoriteRankName;
    ASSERT_EQ(::lsetxattr(path.c_str(), ("user." + rankName).c_str(), value.data(), value.size(), 0), 0);
    auto rank = valueOfAttribute(environment, rankName, url);
    ASSERT_TRUE(rank);
    EXPECT_FALSE(decodeNumber(programLog, *rank));
    EXPECT_EQ(logged(), Texts{"[ERROR] got " + describe(archive::unarchiveNumber(*rank).error()) +
                              " while unarchiving object from 65536 bytes"});
}

TEST_F(ItemAttributesTest, ALinkDoesNotShowItsTargetsAttribute) {
    testing::setUserAttribute(device.path("a.txt"), kName, "target's");
    ASSERT_EQ(::symlink("a.txt", device.path("link").c_str()), 0);
    EXPECT_FALSE(read("link"));
}

TEST_F(ItemAttributesTest, AMissingFileIsNothingAtTheDebugLevel) {
    EXPECT_FALSE(read("gone"));
    EXPECT_EQ(loggedLines(), (std::vector<Line>{{Level::debug, "[DEBUG] can't get xattr " + kName +
                                                                   "; POSIX ENOENT (No such file or directory)"}}));
}

TEST_F(ItemAttributesTest, AFailureToReadIsNothingAndLoggedByItsCode) {
    testing::setUserAttribute(device.path("a.txt"), kName, "value");
    const struct {
        int code;
        unsigned after;
        Level level;
        const char* line;
    } rows[] = {
        {ENOENT, 0, Level::debug,
         "[DEBUG] can't get xattr com.vellum.trash.putback#PS; POSIX ENOENT (No such file or directory)"},
        {EACCES, 0, Level::error,
         "[ERROR] can't get xattr com.vellum.trash.putback#PS; POSIX EACCES (Permission denied)"},
        {EPERM, 0, Level::error,
         "[ERROR] can't get xattr com.vellum.trash.putback#PS; POSIX EPERM (Operation not permitted)"},
        {E2BIG, 0, Level::error,
         "[ERROR] can't get xattr com.vellum.trash.putback#PS; POSIX E2BIG (Argument list too long)"},
        {ENOENT, 1, Level::debug,
         "[DEBUG] can't copy data for xattr com.vellum.trash.putback#PS; POSIX ENOENT (No such file or directory)"},
        {ENODATA, 1, Level::error,
         "[ERROR] can't copy data for xattr com.vellum.trash.putback#PS; POSIX ENODATA (No data available)"},
        {EIO, 1, Level::error,
         "[ERROR] can't copy data for xattr com.vellum.trash.putback#PS; POSIX EIO (Input/output error)"},
    };
    for (const auto& row : rows) {
        files.clear();
        files.fail(Operation::getAttribute, row.code, 1, row.after);
        EXPECT_FALSE(read("a.txt")) << row.line;
        EXPECT_EQ(loggedLines(), (std::vector<Line>{{row.level, row.line}}));
        EXPECT_EQ(files.calls(Operation::getAttribute), row.after + 1) << row.line;
    }
}

TEST_F(ItemAttributesTest, AnAttributeThatGrowsMeanwhileIsLoggedAndOneThatShrinksKeepsTheFirstLength) {
    testing::setUserAttribute(device.path("a.txt"), kName, "12345");
    files.meanwhile(
        Operation::getAttribute, [&] { testing::setUserAttribute(device.path("a.txt"), kName, "1234567"); }, 1);
    EXPECT_FALSE(read("a.txt"));
    EXPECT_EQ(logged(),
              Texts{"[ERROR] can't copy data for xattr " + kName + "; POSIX ERANGE (Numerical result out of range)"});
    files.clear();
    files.meanwhile(Operation::getAttribute, [&] { testing::setUserAttribute(device.path("a.txt"), kName, "1"); }, 1);
    EXPECT_EQ(read("a.txt"), bytes(std::string("1\0\0\0\0\0\0", 7)));
    EXPECT_EQ(logged(), Texts{});
}

TEST_F(ItemAttributesTest, WritingCreatesReplacesAndRemoves) {
    Descriptor file = open("a.txt");
    EXPECT_TRUE(writeAttribute(environment, file, kName, bytes("one")));
    EXPECT_EQ(read("a.txt"), bytes("one"));
    EXPECT_TRUE(writeAttribute(environment, file, kName, bytes("")));
    EXPECT_EQ(read("a.txt"), Bytes{});
    EXPECT_TRUE(writeAttribute(environment, file, kName, bytes("two")));
    EXPECT_EQ(read("a.txt"), bytes("two"));
    EXPECT_TRUE(writeAttribute(environment, file, kName, std::nullopt));
    EXPECT_FALSE(read("a.txt"));
    EXPECT_TRUE(writeAttribute(environment, file, kName, std::nullopt));
    EXPECT_EQ(logged(), Texts{});
}

TEST_F(ItemAttributesTest, AFailureToWriteIsReturnedAndLoggedByItsCode) {
    Descriptor file = open("a.txt");
    const struct {
        Operation operation;
        std::optional<Bytes> value;
        int code;
        Level level;
        const char* line;
    } rows[] = {
        {Operation::setAttribute, bytes("v"), EACCES, Level::debug,
         "[DEBUG] can't set xattr \"com.vellum.trash.putback#PS\"; POSIX EACCES (Permission denied)"},
        {Operation::setAttribute, bytes("v"), ENOSPC, Level::error,
         "[ERROR] can't set xattr \"com.vellum.trash.putback#PS\"; POSIX ENOSPC (No space left on device)"},
        {Operation::setAttribute, bytes("v"), ENODATA, Level::error,
         "[ERROR] can't set xattr \"com.vellum.trash.putback#PS\"; POSIX ENODATA (No data available)"},
        {Operation::removeAttribute, std::nullopt, EACCES, Level::debug,
         "[DEBUG] can't remove xattr \"com.vellum.trash.putback#PS\"; POSIX EACCES (Permission denied)"},
        {Operation::removeAttribute, std::nullopt, EIO, Level::error,
         "[ERROR] can't remove xattr \"com.vellum.trash.putback#PS\"; POSIX EIO (Input/output error)"},
    };
    for (const auto& row : rows) {
        files.clear();
        files.fail(row.operation, row.code);
        auto done = writeAttribute(environment, file, kName, row.value);
        ASSERT_FALSE(done) << row.line;
        EXPECT_EQ(done.error(), posixError(row.code)) << row.line;
        EXPECT_EQ(loggedLines(), (std::vector<Line>{{row.level, row.line}}));
        EXPECT_EQ(files.calls(row.operation), 1u) << row.line;
    }
    files.clear();
    files.fail(Operation::removeAttribute, ENODATA);
    EXPECT_TRUE(writeAttribute(environment, file, kName, std::nullopt));
    EXPECT_EQ(logged(), Texts{});
}

/// Gives up the superuser's rights for good; does nothing for other users.
void becomeNobody() {
    if (::geteuid() != 0) return;
    if (::setgroups(0, nullptr) != 0 || ::setgid(65534) != 0 || ::setuid(65534) != 0) std::_Exit(3);
}

TEST_F(ItemAttributesTest, AFileThatTheProcessMayNotModifyFailsWithPermissionDeniedAtTheDebugLevel) {
    const DyingProcesses processes;
    EXPECT_EXIT(
        {
            Descriptor file = open("a.txt");
            if (::fchmod(file.get(), 0444) != 0) std::_Exit(4);
            becomeNobody();
            auto done = writeAttribute(environment, file, kName, bytes("v"));
            for (const std::string& text : logged()) std::fprintf(stderr, "logged: %s\n", text.c_str());
            std::_Exit(!done && done.error() == posixError(EACCES) ? 0 : 5);
        },
        ::testing::ExitedWithCode(0),
        "logged: \\[DEBUG\\] can't set xattr \"com.vellum.trash.putback#PS\"; POSIX EACCES \\(Permission denied\\)");
}

}  // namespace
}  // namespace tarnwell::items
