#include "platform/icons/RenderProcess.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstring>

#include "platform/base/Descriptor.h"
#include "platform/base/SystemCall.h"
#include "platform/icons/PngCheck.h"

namespace tarnwell::icons {
namespace {

using Clock = std::chrono::steady_clock;

/// Exit statuses of the program that draws.
constexpr int kExitUnsound = 3;
constexpr int kExitTooLarge = 4;
constexpr int kExitNotConfined = 5;

constexpr const char* kUnsound = "no picture can be made of it";
constexpr const char* kTooLarge = "it needs more memory or time than an icon may";

/// Not one of the three that the child gets from us: what is put there would take its place.
Result<Descriptor> aboveStandardStreams(Descriptor descriptor) {
    if (descriptor.get() > STDERR_FILENO) return descriptor;
    const int fd = ::fcntl(descriptor.get(), F_DUPFD_CLOEXEC, STDERR_FILENO + 1);
    if (fd < 0) return failedCall();
    return Descriptor(fd);
}

/// A file without a name that holds the bytes, read from its beginning.
Result<Descriptor> memoryFile(ByteView bytes) {
    const int fd = ::memfd_create("tarnwell-icon", MFD_CLOEXEC);
    if (fd < 0) return failedCall();
    Descriptor file(fd);
    for (std::size_t written = 0; written < bytes.size();) {
        const ssize_t count = untilNotInterrupted(
            [&] { return ::pwrite(fd, bytes.data() + written, bytes.size() - written, static_cast<off_t>(written)); });
        if (count < 0) return failedCall();
        written += static_cast<std::size_t>(count);
    }
    return aboveStandardStreams(std::move(file));
}

struct Pipe {
    Descriptor reader, writer;
};
Result<Pipe> makePipe() {
    std::array<int, 2> ends{};
    if (::pipe2(ends.data(), O_CLOEXEC) != 0) return failedCall();
    Descriptor reader(ends[0]);
    auto writer = aboveStandardStreams(Descriptor(ends[1]));
    if (!writer) return failure(writer.error());
    return Pipe{std::move(reader), std::move(*writer)};
}

/// What is done in the new process before the program begins.
class SpawnPlan {
public:
    SpawnPlan() {
        posix_spawn_file_actions_init(&actions);
        posix_spawnattr_init(&attributes);
    }
    ~SpawnPlan() {
        posix_spawn_file_actions_destroy(&actions);
        posix_spawnattr_destroy(&attributes);
    }
    SpawnPlan(const SpawnPlan&) = delete;
    SpawnPlan& operator=(const SpawnPlan&) = delete;

    int set(int input, int output) {
        sigset_t none, all;
        sigemptyset(&none);
        sigfillset(&all);
        const std::array results{
            posix_spawn_file_actions_adddup2(&actions, input, STDIN_FILENO),
            posix_spawn_file_actions_adddup2(&actions, output, STDOUT_FILENO),
            posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, "/dev/null", O_WRONLY, 0),
            posix_spawn_file_actions_addclosefrom_np(&actions, STDERR_FILENO + 1),
            posix_spawnattr_setsigmask(&attributes, &none), posix_spawnattr_setsigdefault(&attributes, &all),
            // Of a group of its own, so that an interrupt from the terminal ends the program in its own time.
            posix_spawnattr_setpgroup(&attributes, 0),
            posix_spawnattr_setflags(&attributes,
                                     POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF | POSIX_SPAWN_SETPGROUP)};
        const auto* const failed = std::ranges::find_if(results, [](int result) { return result != 0; });
        return failed == results.end() ? 0 : *failed;
    }

    posix_spawn_file_actions_t actions;
    posix_spawnattr_t attributes;
};

/// A child process that is waited for, and killed before if it is still there.
class Child {
public:
    explicit Child(pid_t process)
        : process_(process), handle_(static_cast<int>(::syscall(SYS_pidfd_open, process, 0))) {}
    ~Child() {
        if (process_ > 0) (void)end();
    }
    Child(const Child&) = delete;
    Child& operator=(const Child&) = delete;

    const Descriptor& handle() const { return handle_; }
    /// Its status as waitpid gives it.
    Result<int> wait() {
        int status = 0;
        const pid_t process = std::exchange(process_, -1);
        if (untilNotInterrupted([&] { return ::waitpid(process, &status, 0); }) < 0) return failedCall();
        return status;
    }
    Result<int> end() {
        ::kill(process_, SIGKILL);
        return wait();
    }

private:
    pid_t process_;
    Descriptor handle_;
};

Result<pid_t> start(const std::string& program, const IconData& icon, int input, int output) {
    SpawnPlan plan;
    if (const int failed = plan.set(input, output); failed != 0) return failure(posixError(failed));
    std::string name = "tarnwell-render-icon";
    std::string format = icon.format == IconFormat::png ? "png" : "svg";
    std::string side = std::to_string(icon.pixels);
    std::array<char*, 4> arguments{name.data(), format.data(), side.data(), nullptr};
    // Nothing of the person's environment is of use to it.
    std::array<char*, 1> environment{nullptr};
    pid_t process = -1;
    const int failed =
        ::posix_spawn(&process, program.c_str(), &plan.actions, &plan.attributes, arguments.data(), environment.data());
    if (failed != 0) return failure(posixError(failed, "\"" + program + "\" cannot be started"));
    return process;
}

Error timedOut() { return posixError(ETIMEDOUT, "it took too long to draw"); }

/// Waits until the descriptor is readable or at its end; false when the time is over.
Result<bool> waitUntilReady(int descriptor, Clock::time_point deadline) {
    for (;;) {
        const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now());
        if (left.count() <= 0) return false;
        pollfd waited{descriptor, POLLIN, 0};
        const int ready = ::poll(&waited, 1, static_cast<int>(left.count()));
        if (ready > 0) return true;
        if (ready < 0 && errno != EINTR) return failedCall();
    }
}

Result<Bytes> readOutput(int descriptor, std::size_t limit, Clock::time_point deadline) {
    Bytes output;
    std::array<std::uint8_t, 16 * 1024> buffer;
    for (;;) {
        const auto ready = waitUntilReady(descriptor, deadline);
        if (!ready) return failure(ready.error());
        if (!*ready) return failure(timedOut());
        const ssize_t count = untilNotInterrupted([&] { return ::read(descriptor, buffer.data(), buffer.size()); });
        if (count < 0) return failedCall();
        if (count == 0) return output;
        if (output.size() + static_cast<std::size_t>(count) > limit) {
            return failure(posixError(EIO, "the renderer wrote more than a picture takes"));
        }
        output.insert(output.end(), buffer.begin(), buffer.begin() + count);
    }
}

/// What the way in which the process ended says.
Result<void> outcomeOf(int status) {
    if (WIFSIGNALED(status)) {
        // The kernel's answer to who uses up his processor time.
        if (WTERMSIG(status) == SIGKILL || WTERMSIG(status) == SIGXCPU) return failure(posixError(EFBIG, kTooLarge));
        return failure(posixError(
            EBADMSG, std::string(kUnsound) + ": the renderer ended with signal " + std::to_string(WTERMSIG(status))));
    }
    switch (WEXITSTATUS(status)) {
        case 0:
            return {};
        case kExitUnsound:
            return failure(posixError(EBADMSG, kUnsound));
        case kExitTooLarge:
            return failure(posixError(EFBIG, kTooLarge));
        case kExitNotConfined:
            return failure(posixError(EPERM, "the renderer cannot be confined on this system"));
        default:
            return failure(posixError(EIO, "the renderer ended with status " + std::to_string(WEXITSTATUS(status))));
    }
}

}  // namespace

Result<Bytes> renderInProcess(const std::string& program, const IconData& icon, std::chrono::milliseconds patience) {
    if (icon.pixels < kMinPictureSide || icon.pixels > kMaxPictureSide) {
        return failure(posixError(EINVAL, "a picture has 1 to " + std::to_string(kMaxPictureSide) + " pixels a side"));
    }
    const auto deadline = Clock::now() + patience;
    const auto input = memoryFile(icon.bytes);
    if (!input) return failure(input.error());
    auto output = makePipe();
    if (!output) return failure(output.error());
    const auto process = start(program, icon, input->get(), output->writer.get());
    if (!process) return failure(process.error());
    Child child(*process);
    output->writer = Descriptor();

    auto picture = readOutput(output->reader.get(), maxPngBytes(icon.pixels), deadline);
    if (!picture) return failure(picture.error());
    // It has nothing left to do but to end; without a handle, its own time limit sees to that.
    if (child.handle().valid()) {
        const auto ended = waitUntilReady(child.handle().get(), deadline);
        if (!ended) return failure(ended.error());
        if (!*ended) return failure(timedOut());
    }
    const auto status = child.wait();
    // Where this process ignores its children's ends there is no status; the picture has to speak for itself.
    if (!status && !status.error().is(ErrorDomain::posix, ECHILD)) return failure(status.error());
    if (status) {
        if (auto outcome = outcomeOf(*status); !outcome) return failure(outcome.error());
    }
    if (!isSoundPng(*picture, icon.pixels)) return failure(posixError(EIO, "the renderer wrote no sound picture"));
    return picture;
}

}  // namespace tarnwell::icons
