#include "platform/log/ProgramLogSink.h"

#include <array>
#include <cstdlib>
#include <optional>
#include <regex>
#include <string>
#include <thread>
#include <vector>

#include <fcntl.h>
#include <poll.h>
#include <pty.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "platform/base/Descriptor.h"

namespace tarnwell::log {
namespace {

/// An environment variable set (or removed) for one scope.
class ScopedVariable {
public:
    ScopedVariable(const char* name, const std::optional<std::string>& value) : name_(name) {
        if (const char* old = std::getenv(name)) old_ = old;
        set(value);
    }
    ~ScopedVariable() { set(old_); }
    ScopedVariable(const ScopedVariable&) = delete;
    ScopedVariable& operator=(const ScopedVariable&) = delete;

private:
    void set(const std::optional<std::string>& value) {
        if (value)
            ::setenv(name_, value->c_str(), 1);
        else
            ::unsetenv(name_);
    }
    const char* name_;
    std::optional<std::string> old_;
};

/// Standard error leads to another descriptor for one scope.
class RedirectedStandardError {
public:
    explicit RedirectedStandardError(int target) : old_(::fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, 0)) {
        ::dup2(target, STDERR_FILENO);
    }
    ~RedirectedStandardError() { ::dup2(old_.get(), STDERR_FILENO); }
    RedirectedStandardError(const RedirectedStandardError&) = delete;
    RedirectedStandardError& operator=(const RedirectedStandardError&) = delete;

private:
    Descriptor old_;
};

std::string contentOf(int fd) {
    std::string content;
    std::array<char, 4096> buffer;
    ssize_t got;
    while ((got = ::pread(fd, buffer.data(), buffer.size(), static_cast<off_t>(content.size()))) > 0)
        content.append(buffer.data(), static_cast<std::size_t>(got));
    return content;
}

/// What comes out of a terminal up to the end of a line; it may come in pieces.
std::string lineShownOn(int screen) {
    std::string text;
    pollfd readable{screen, POLLIN, 0};
    while (!text.ends_with('\n') && ::poll(&readable, 1, 20'000) == 1) {
        std::array<char, 1024> buffer;
        ssize_t got = ::read(screen, buffer.data(), buffer.size());
        if (got <= 0) break;
        text.append(buffer.data(), static_cast<std::size_t>(got));
    }
    return text;
}

std::vector<std::string> linesOf(const std::string& content) {
    std::vector<std::string> lines;
    std::size_t begin = 0;
    for (std::size_t end; (end = content.find('\n', begin)) != std::string::npos; begin = end + 1)
        lines.push_back(content.substr(begin, end - begin));
    if (begin < content.size()) lines.push_back(content.substr(begin) + " (without an end)");
    return lines;
}

/// The lines without time and process number; a line of any other shape stays whole.
std::vector<std::string> messagesOf(const std::string& content) {
    static const std::regex kShape(
        R"(\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{6}[+-]\d\d:\d\d tarnwell-storage\[(\d+)\]: (.*))");
    std::vector<std::string> messages;
    for (const std::string& line : linesOf(content)) {
        std::smatch match;
        bool isMessage = std::regex_match(line, match, kShape) && match[1] == std::to_string(::getpid());
        messages.push_back(isMessage ? match[2].str() : line);
    }
    return messages;
}

class ProgramLogSinkTest : public ::testing::Test {
protected:
    ScopedVariable noJournal_{"JOURNAL_STREAM", std::nullopt};
    Descriptor file_{::memfd_create("log", MFD_CLOEXEC)};
};

TEST_F(ProgramLogSinkTest, WritesLinesWithTimeAndCategoryToStandardError) {
    {
        RedirectedStandardError redirected(file_.get());
        auto log = makeProgramLog("tarnwell-storage", Level::debug);
        log->write(Level::debug,
                   "[DEBUG] \xE2\x94\x8F"
                   "0 title");
        log->write(Level::info, "[INFO] {} %s %v");
        log->write(Level::error, "[ERROR] no");
    }
    EXPECT_EQ(messagesOf(contentOf(file_.get())), (std::vector<std::string>{"[DEBUG] \xE2\x94\x8F"
                                                                            "0 title",
                                                                            "[INFO] {} %s %v", "[ERROR] no"}));
}

TEST_F(ProgramLogSinkTest, ThresholdIsTheOneGivenAndCanChange) {
    {
        RedirectedStandardError redirected(file_.get());
        auto log = makeProgramLog("tarnwell-storage", Level::error);
        log->write(Level::debug, "1");
        log->write(Level::info, "2");
        log->write(Level::error, "3");
        log->setThreshold(Level::debug);
        log->write(Level::debug, "4");
        log->setThreshold(Level::off);
        log->write(Level::error, "5");
    }
    EXPECT_EQ(messagesOf(contentOf(file_.get())), (std::vector<std::string>{"3", "4"}));
}

TEST_F(ProgramLogSinkTest, AMessageIsOneLineWhateverItHolds) {
    {
        RedirectedStandardError redirected(file_.get());
        auto log = makeProgramLog("tarnwell-storage", Level::debug);
        log->write(Level::error, "can't open \"a\nb\x1b[2J\xFF\"");
    }
    EXPECT_EQ(messagesOf(contentOf(file_.get())), std::vector<std::string>{"can't open \"a\\nb\\x1b[2J\\xff\""});
}

TEST_F(ProgramLogSinkTest, LinesOfSeveralThreadsStayWhole) {
    constexpr int kThreads = 4, kLines = 200;
    const std::string text(300, 'x');
    {
        RedirectedStandardError redirected(file_.get());
        auto log = makeProgramLog("tarnwell-storage", Level::debug);
        std::vector<std::thread> threads;
        for (int t = 0; t < kThreads; ++t)
            threads.emplace_back([&] {
                for (int i = 0; i < kLines; ++i) log->write(Level::info, text);
            });
        for (std::thread& thread : threads) thread.join();
    }
    EXPECT_EQ(messagesOf(contentOf(file_.get())), std::vector<std::string>(kThreads * kLines, text));
}

TEST_F(ProgramLogSinkTest, AJournalStreamThatIsNotOursLeavesTheLinesOnStandardError) {
    struct stat info{};
    ASSERT_EQ(::fstat(file_.get(), &info), 0);
    const std::string device = std::to_string(info.st_dev), inode = std::to_string(info.st_ino);
    for (const std::string& stream : {device + ":" + std::to_string(info.st_ino + 1), device + ":", inode,
                                      device + ":" + inode + " ", std::string("x:y"), std::string()}) {
        ScopedVariable variable("JOURNAL_STREAM", stream);
        ASSERT_EQ(::ftruncate(file_.get(), 0), 0);
        ASSERT_EQ(::lseek(file_.get(), 0, SEEK_SET), 0);
        {
            RedirectedStandardError redirected(file_.get());
            makeProgramLog("tarnwell-storage", Level::debug)->write(Level::info, "here");
        }
        EXPECT_EQ(messagesOf(contentOf(file_.get())), std::vector<std::string>{"here"}) << stream;
    }
}

TEST_F(ProgramLogSinkTest, StandardErrorThatIsTheJournalGetsNoLinesOfItsOwn) {
    struct stat info{};
    ASSERT_EQ(::fstat(file_.get(), &info), 0);
    ScopedVariable variable("JOURNAL_STREAM", std::to_string(info.st_dev) + ":" + std::to_string(info.st_ino));
    {
        RedirectedStandardError redirected(file_.get());
        makeProgramLog("tarnwell-storage", Level::debug)->write(Level::info, "to the journal");
    }
    EXPECT_EQ(contentOf(file_.get()), "");
}

TEST_F(ProgramLogSinkTest, ATerminalGetsColorUnlessRefused) {
    struct Row {
        std::optional<std::string> noColor;
        bool colored;
    };
    const Row rows[] = {{std::nullopt, true}, {"", true}, {"1", false}};
    for (const Row& row : rows) {
        ScopedVariable terminal("TERM", "xterm-256color");
        ScopedVariable refused("NO_COLOR", row.noColor);
        int master = -1, slave = -1;
        ASSERT_EQ(::openpty(&master, &slave, nullptr, nullptr, nullptr), 0);
        Descriptor screen(master), line(slave);
        {
            RedirectedStandardError redirected(line.get());
            makeProgramLog("tarnwell-storage", Level::debug)->write(Level::error, "no");
        }
        std::string text = lineShownOn(screen.get());
        EXPECT_NE(text.find("no"), std::string::npos) << text;
        EXPECT_EQ(text.find('\x1b') != std::string::npos, row.colored) << row.noColor.value_or("unset");
    }
}

TEST_F(ProgramLogSinkTest, AStandardErrorThatCannotBeWrittenIsIgnored) {
    Descriptor full(::open("/dev/full", O_WRONLY | O_CLOEXEC));
    ASSERT_TRUE(full.valid());
    auto log = [&] {
        RedirectedStandardError redirected(full.get());
        auto made = makeProgramLog("tarnwell-storage", Level::debug);
        made->write(Level::error, "lost");
        return made;
    }();
    {
        RedirectedStandardError redirected(file_.get());
        log->write(Level::error, "seen");
    }
    EXPECT_EQ(messagesOf(contentOf(file_.get())), std::vector<std::string>{"seen"});
}

TEST(LevelFromEnvironment, IsTheLevelNamedElseTheFallback) {
    struct Row {
        std::optional<std::string> value;
        Level fallback, level;
    };
    const Row rows[] = {
        {"debug", Level::error, Level::debug},    {"info", Level::error, Level::info},
        {"error", Level::debug, Level::error},    {"off", Level::debug, Level::off},
        {std::nullopt, Level::info, Level::info}, {std::nullopt, Level::off, Level::off},
        {"", Level::info, Level::info},           {"DEBUG", Level::info, Level::info},
        {"debug ", Level::error, Level::error},   {"verbose", Level::error, Level::error},
    };
    for (const Row& row : rows) {
        ScopedVariable variable("TARNWELL_LOG", row.value);
        EXPECT_EQ(levelFromEnvironment(row.fallback), row.level) << row.value.value_or("(unset)");
    }
}

}  // namespace
}  // namespace tarnwell::log
