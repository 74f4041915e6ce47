#include "platform/mime/TypeDatabase.h"

#include <fcntl.h>
#include <gio/gio.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <fstream>
#include <set>
#include <sstream>
#include <thread>

#include "tests/mime/TypeFolder.h"

namespace tarnwell::mime {
namespace {

/// What the session's library says of a name; empty where it knows nothing.
std::string libraryType(const std::string& name) {
    gchar* type = ::g_content_type_guess(name.c_str(), nullptr, 0, nullptr);
    const std::string result = type;
    ::g_free(type);
    return result == "application/octet-stream" ? "" : result;
}

/// A name for every pattern of the installed database, in several cases.
std::set<std::string> namesFromDatabase() {
    std::set<std::string> names;
    std::ifstream file("/usr/share/mime/globs2");
    for (std::string line; std::getline(file, line);) {
        const std::size_t begin = line.find(':', line.find(':') + 1);
        if (line.starts_with('#') || begin == std::string::npos) continue;
        std::string pattern = line.substr(begin + 1, line.find(':', begin + 1) - begin - 1);
        // A set becomes one of its members.
        for (std::size_t open; (open = pattern.find('[')) != std::string::npos;) {
            pattern.replace(open, pattern.find(']', open) - open + 1, 1, pattern[open + 1]);
        }
        for (const char* instead : {"name", "two words", "a.b", ""}) {
            std::string name = pattern;
            for (std::size_t star; (star = name.find('*')) != std::string::npos;) name.replace(star, 1, instead);
            for (const bool upper : {false, true}) {
                if (upper) std::ranges::transform(name, name.begin(), [](char c) { return ::g_ascii_toupper(c); });
                if (!name.empty()) names.insert(name);
            }
        }
    }
    return names;
}

TEST(TypeDatabase, AgreesWithTheSessionsLibraryOnNames) {
    std::set<std::string> names = namesFromDatabase();
    if (names.empty()) GTEST_SKIP() << "no type database is installed";
    EXPECT_GT(names.size(), 1000U);
    names.insert({"plain",
                  "a.unknown-suffix",
                  "two words",
                  "README",
                  "readme.md",
                  "Makefile.am",
                  "x.tar.gz",
                  "x.TAR.gz",
                  "x.C",
                  "x.c",
                  "core",
                  "Core",
                  "core.1",
                  "libx.so",
                  "libx.so.1.2.3",
                  "a.txt~",
                  ".bashrc",
                  ".txt",
                  ".",
                  "..",
                  "a..b",
                  "x.anim2",
                  "123.vdr",
                  "1234.vdr",
                  "CMakeLists.txt",
                  "\xc3\xa4.pdf"});
    const auto database = TypeDatabase::create();
    int differences = 0;
    for (const auto& name : names) {
        const std::string_view type = database->typeForName(name);
        const std::string expected = libraryType(name);
        if (type == expected) continue;
        ++differences;
        ADD_FAILURE() << name << " is " << type << " but the library says " << expected;
        if (differences == 20) break;
    }
}

TEST(TypeDatabase, GuessesFromContent) {
    const auto database = TypeDatabase::create();
    struct Row {
        std::string head, type;
    };
    std::vector<Row> rows{
        {"", "application/x-zerosize"},
        {"just words\n", "text/plain"},
        {std::string("\x01\x02\x00\xff\xfe\x90", 6), "application/octet-stream"},
    };
    if (!namesFromDatabase().empty()) {
        rows.push_back({"\x89PNG\r\n\x1a\n", "image/png"});
        rows.push_back({"%PDF-1.4\n", "application/pdf"});
    }
    for (const auto& row : rows) {
        SCOPED_TRACE(row.type);
        EXPECT_EQ(database->typeForContent(bytesOf(row.head)), row.type);
    }
}

TEST(TypeDatabase, GivesTextsThatLast) {
    const auto database = TypeDatabase::create();
    const std::string_view first = database->typeForContent(bytesOf("words"));
    const std::string_view name = database->typeForName("a.txt");
    for (int i = 0; i < 1000; ++i) {
        const std::string many(static_cast<std::size_t>(i), i % 2 == 0 ? 'a' : '\x01');
        database->typeForContent(bytesOf(many));
    }
    EXPECT_EQ(database->typeForContent(bytesOf("words")).data(), first.data());
    EXPECT_EQ(database->typeForName("b.txt").data(), name.data());
    EXPECT_EQ(first, "text/plain");
}

TEST(TypeDatabase, AnswersAllThreadsAlike) {
    const auto database = TypeDatabase::create();
    std::vector<std::thread> threads;
    std::vector<std::string> answers(4);
    for (auto& answer : answers) {
        threads.emplace_back([&database, &answer] {
            for (const char* name : {"a.txt", "b.png", "Makefile", "c"}) {
                answer += database->typeForName(name);
                answer += database->isPackageName(name) ? " package;" : ";";
            }
            answer += database->typeForContent(bytesOf("words"));
        });
    }
    for (auto& thread : threads) thread.join();
    for (const auto& answer : answers) EXPECT_EQ(answer, answers.front());
}

/// Runs a program without output, with a data folder of its own; true when it ended well.
bool run(const std::vector<std::string>& words, const std::string& dataHome, const std::string& output = "/dev/null") {
    const pid_t child = ::fork();
    if (child == 0) {
        ::setenv("XDG_DATA_HOME", dataHome.c_str(), 1);
        const int file = ::open(output.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
        ::dup2(file, STDOUT_FILENO);
        ::dup2(file, STDERR_FILENO);
        std::vector<char*> arguments;
        for (const auto& word : words) arguments.push_back(const_cast<char*>(word.c_str()));
        arguments.push_back(nullptr);
        ::execvp(arguments[0], arguments.data());
        ::_exit(127);
    }
    int status = 0;
    return child > 0 && ::waitpid(child, &status, 0) == child && status == 0;
}

constexpr const char* kPrepared = "TARNWELL_TEST_TYPES_PREPARED";

/// Whether this process is the one that a test started for itself, with its folder prepared.
bool isPrepared() { return std::getenv(kPrepared) != nullptr; }

/// Runs the current test once more in a new process, because the library reads its folders once in a process.
void passAgainWith(const TypeFolder& folder) {
    const auto* test = testing::UnitTest::GetInstance()->current_test_info();
    const std::string name = std::string(test->test_suite_name()) + "." + test->name();
    const std::string output = folder.path() / "output";
    const bool passed = run({"env", std::string(kPrepared) + "=1", std::filesystem::read_symlink("/proc/self/exe"),
                             "--gtest_filter=" + name},
                            folder.path(), output);
    std::ifstream stream(output);
    std::stringstream told;
    told << stream.rdbuf();
    EXPECT_TRUE(passed) << told.str();
    EXPECT_NE(told.str().find("[       OK ] " + name), std::string::npos) << told.str();
}

constexpr std::string_view kTypes = R"(<?xml version="1.0"?>
<mime-info xmlns="http://www.freedesktop.org/standards/shared-mime-info">
  <mime-type type="application/x-tarnwell-bundle">
    <sub-class-of type="inode/directory"/>
    <glob pattern="*.twbundle"/>
    <glob pattern="Bundle of bundles"/>
  </mime-type>
  <mime-type type="application/x-tarnwell-special-bundle">
    <sub-class-of type="application/x-tarnwell-bundle"/>
    <glob pattern="*.special.twbundle"/>
  </mime-type>
  <mime-type type="application/x-tarnwell-flat"><glob pattern="*.twflat"/></mime-type>
  <mime-type type="inode/directory"><glob pattern="*.twfolder"/></mime-type>
</mime-info>
)";

TEST(TypeDatabase, KnowsPackagesThatTheSessionDeclares) {
    if (!isPrepared()) {
        const TypeFolder folder;
        folder.write("mime/packages/tarnwell.xml", kTypes);
        if (!run({"update-mime-database", folder.path() / "mime"}, folder.path())) {
            GTEST_SKIP() << "update-mime-database does not work here";
        }
        return passAgainWith(folder);
    }
    const auto database = TypeDatabase::create();
    struct Row {
        std::string name, type;
        bool package;
    };
    const Row rows[] = {
        {"a.twbundle", "application/x-tarnwell-bundle", true},
        {"A.TWBUNDLE", "application/x-tarnwell-bundle", true},
        {"bundle of bundles", "application/x-tarnwell-bundle", true},
        {"a.special.twbundle", "application/x-tarnwell-special-bundle", true},
        {"a.twflat", "application/x-tarnwell-flat", false},
        {"a.twfolder", "inode/directory", false},
        {"twbundle", "", false},
        {"a.twbundle.x-unknown", "", false},
        {"", "", false},
    };
    for (int round = 0; round < 2; ++round) {
        for (const auto& row : rows) {
            SCOPED_TRACE(row.name);
            EXPECT_EQ(database->typeForName(row.name), row.type);
            EXPECT_EQ(database->isPackageName(row.name), row.package);
        }
    }
}

TEST(TypeDatabase, ReadsNamesAtTheFirstLookUpAndKeepsThem) {
    if (!isPrepared()) {
        const TypeFolder folder;
        return passAgainWith(folder);
    }
    const auto database = TypeDatabase::create();
    const std::filesystem::path mime = std::filesystem::path(std::getenv("XDG_DATA_HOME")) / "mime";
    std::filesystem::create_directories(mime);
    std::ofstream(mime / "globs2") << "50:text/early:*.tw-early\n";
    EXPECT_EQ(database->typeForName("a.tw-early"), "text/early");
    std::ofstream(mime / "globs2") << "50:text/late:*.tw-late\n";
    EXPECT_EQ(database->typeForName("a.tw-late"), "");
    EXPECT_EQ(database->typeForName("a.tw-early"), "text/early");
    EXPECT_EQ(TypeDatabase::create()->typeForName("a.tw-late"), "text/late");
}

}  // namespace
}  // namespace tarnwell::mime
