#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <array>
#include <filesystem>
#include <fstream>
#include <map>

#include "bench/Listing.h"
#include "bench/SampleFiles.h"
#include "bench/Suite.h"
#include "host/ProgramContext.h"
#include "platform/base/Descriptor.h"
#include "testing/TemporaryDirectory.h"
#include "testing/Variables.h"

namespace tarnwell::bench {

namespace {

namespace disk = std::filesystem;

/// Documents of each application.
constexpr std::size_t kFilesInEach = 5;

class Silence : public log::Log {
public:
    Silence() { setThreshold(log::Level::off); }

private:
    void emit(log::Level, std::string_view) override {}
};

std::string nameOf(std::size_t application) { return "org.example.Application" + std::to_string(application); }

/// The home of one person who has many Flatpaks that keep documents, laid out as their installation does it, and the
/// whole program on it.
class FlatpakHome {
public:
    Outcome<void> make(std::size_t applications) {
        makeFolders(home_ + "/Documents");
        makeFolders(installation_ + "/exports/share/applications");
        for (std::size_t i = 0; i < applications; ++i) {
            if (auto made = install(nameOf(i)); !made) return made;
        }
        applications_ = applications;
        return {};
    }
    Outcome<void> install(const std::string& identifier) const {
        const std::string application = installation_ + "/app/" + identifier;
        const std::string deployed = application + "/x86_64/stable/1";
        const std::string desktopFile = "export/share/applications/" + identifier + ".desktop";
        makeFolders(deployed + "/export/share/applications");
        testing::writeFile(deployed + "/" + desktopFile,
                           "[Desktop Entry]\nType=Application\nName=" + identifier + "\nName[de]=" + identifier +
                               "\nExec=flatpak run " + identifier +
                               " @@ %f @@\nMimeType=text/plain;\nX-Flatpak=" + identifier + "\n");
        testing::writeFile(deployed + "/metadata",
                           "[Application]\nname=" + identifier + "\n[Context]\npersistent=Documents;\n");
        disk::create_symlink("x86_64/stable", application + "/current");
        disk::create_symlink("1", application + "/x86_64/stable/active");
        disk::create_symlink("../../../app/" + identifier + "/current/active/" + desktopFile,
                             installation_ + "/exports/share/applications/" + identifier + ".desktop");
        makeFolders(containers() + "/" + identifier);
        const auto files = makeFiles(documents(identifier), kFilesInEach, Attributes::none);
        return files ? Outcome<void>() : std::unexpected(files.error());
    }
    Outcome<Cost> open() {
        std::map<std::string, std::string> variables{{"HOME", home_}, {"XDG_DATA_DIRS", home_ + "/system"}};
        variables["FLATPAK_SYSTEM_DIR"] = home_ + "/system/flatpak";
        variables["FLATPAK_CONFIG_DIR"] = home_ + "/system/etc";
        const auto settings = host::Settings::from(testing::variables(variables), std::nullopt);
        if (!settings) return std::unexpected(tarnwell::describe(settings.error()));
        const Stopwatch stopwatch;
        auto context = host::ProgramContext::create(*settings, log_);
        if (!context) return std::unexpected(tarnwell::describe(context.error()));
        const Cost cost = stopwatch.elapsed();
        context_ = std::move(*context);
        context_->prepareForRequests();
        context_->refreshApplications();  // the provider's own first look does not come in between later
        return cost;
    }
    host::ProgramContext& context() { return *context_; }
    std::string documents(const std::string& identifier) const {
        return home_ + "/.var/app/" + identifier + "/Documents";
    }
    std::string containers() const { return home_ + "/.var/app"; }
    std::size_t applications() const { return applications_; }

    /// What the provider does at its pacer's event; true when the list was another one.
    bool refresh() {
        auto& libraries = context_->appLibraries();
        const bool changed = libraries.refreshAppLibraries();
        libraries.sharedManager().upgradeFromMainCache(nullptr, applibraries::IndexCleanup::no);
        return changed;
    }

private:
    static void makeFolders(const std::string& path) { disk::create_directories(path); }

    testing::TemporaryDirectory directory_;
    const std::string home_ = directory_.path("home");
    const std::string installation_ = home_ + "/.local/share/flatpak";
    std::size_t applications_ = 0;
    Silence log_;
    std::unique_ptr<host::ProgramContext> context_;
};

/// What this process has read so far with read(2) and its like.
std::uint64_t bytesRead() {
    std::ifstream file("/proc/self/io");
    std::string name;
    std::uint64_t value = 0;
    file >> name >> value;
    return name == "rchar:" ? value : 0;
}

/// What an item of a folder needs at the least, as in SystemCallLoop.h: its status, its access, the names of its
/// attributes, and the number of its entries.
bool lookAtFolder(const std::string& path, Tally& tally) {
    const Descriptor folder(::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    struct statx status;
    std::array<char, 1024> names;
    if (!folder.valid() || ::statx(folder.get(), "", AT_EMPTY_PATH, STATX_BASIC_STATS | STATX_BTIME, &status) != 0 ||
        ::flistxattr(folder.get(), names.data(), names.size()) < 0) {
        return false;
    }
    alignas(dirent64) std::array<char, 64 * 1024> buffer;
    for (;;) {
        const long filled = ::syscall(SYS_getdents64, folder.get(), buffer.data(), buffer.size());
        if (filled < 0) return false;
        if (filled == 0) break;
        for (long at = 0; at < filled; ++tally.contained) {
            at += reinterpret_cast<const dirent64*>(buffer.data() + at)->d_reclen;
        }
    }
    tally.contained -= 2;  // the folder itself and the one above it
    ++tally.entries;
    return true;
}

std::string milliseconds(double seconds) { return fixed(seconds * 1e3, 1); }

Outcome<double> refresh(Suite& suite, benchmark::State& state) {
    FlatpakHome home;
    if (auto made = home.make(suite.sizes().applications); !made) return std::unexpected(made.error());
    waitUntilParsedFilesAreTrusted();
    const auto start = home.open();
    if (!start) return std::unexpected(start.error());

    std::vector<Cost> unchanged, oneMore;
    std::uint64_t readAgain = 0;
    for (unsigned round = 0; round <= suite.sizes().rounds; ++round) {
        const std::uint64_t before = bytesRead();
        const Stopwatch stopwatch;
        if (home.refresh()) return std::unexpected("a refresh found a change where there was none");
        const Cost cost = stopwatch.elapsed();
        readAgain = bytesRead() - before;
        if (round > 0) unchanged.push_back(cost);
    }
    const std::uint64_t cacheFile = disk::file_size(home.context().appLibraries().mainCache().cacheURL().path());
    for (unsigned round = 0; round <= suite.sizes().rounds; ++round) {
        if (auto installed = home.install("org.example.One" + std::to_string(round)); !installed) {
            return std::unexpected(installed.error());
        }
        const Stopwatch stopwatch;
        if (!home.refresh()) return std::unexpected("a refresh did not find the new application");
        if (round > 0) oneMore.push_back(stopwatch.elapsed());
    }
    const Cost same = median(std::move(unchanged)), other = median(std::move(oneMore));
    suite.report().add("Refresh of the list of applications, milliseconds",
                       {{"applications", std::to_string(home.applications())},
                        {"nothing changed", milliseconds(same.clock)},
                        {"processor", milliseconds(same.processor)},
                        {"one more", milliseconds(other.clock)},
                        {"meeting them all at the start", milliseconds(start->clock)},
                        {"bytes read where nothing changed", std::to_string(readAgain)},
                        {"of these the list itself", std::to_string(cacheFile)}});
    state.counters["unchanged_ms"] = same.clock * 1e3;
    state.counters["one_more_ms"] = other.clock * 1e3;
    state.counters["start_ms"] = start->clock * 1e3;
    state.counters["bytes_read"] = static_cast<double>(readAgain);
    state.counters["cache_file_bytes"] = static_cast<double>(cacheFile);
    return same.clock;
}

/// Whether the program is one that ends, or one that stays and is told by the kernel what changes.
enum class Program { ends, stays };

Outcome<double> listRoot(Suite& suite, benchmark::State& state, Program program) {
    FlatpakHome home;
    if (auto made = home.make(suite.sizes().applications); !made) return std::unexpected(made.error());
    waitUntilParsedFilesAreTrusted();
    if (auto opened = home.open(); !opened) return std::unexpected(opened.error());
    if (program == Program::stays && !home.context().watchForChanges()) return std::unexpected("nothing is watched");
    waitUntilTrusted();

    const auto makeEnumerator = [&] {
        return home.context().provider().enumeratorForContainerItemIdentifier(hostframework::kRootContainer);
    };
    const auto kept = makeEnumerator();
    if (!kept) return std::unexpected(tarnwell::describe(kept.error()));
    std::vector<std::string> paths;
    for (std::size_t i = 0; i < home.applications(); ++i) paths.push_back(home.documents(nameOf(i)));
    const Tally expected{home.applications(), 0, home.applications() * kFilesInEach};
    const auto costs = takeTurns(suite.sizes().rounds, expected,
                                 {{"pages", [&] { return listAllPages(**kept); }},
                                  {"with a new enumerator",
                                   [&]() -> Outcome<Tally> {
                                       const auto made = makeEnumerator();
                                       if (!made) return std::unexpected(tarnwell::describe(made.error()));
                                       const auto listed = listAllPages(**made);
                                       (*made)->invalidate();
                                       return listed;
                                   }},
                                  {"system calls", [&]() -> Outcome<Tally> {
                                       Tally tally;
                                       for (const std::string& path : paths) {
                                           if (!lookAtFolder(path, tally)) return std::unexpected(path);
                                       }
                                       return tally;
                                   }}});
    (*kept)->invalidate();
    if (!costs) return std::unexpected(costs.error());
    const std::string what = "root, " + std::to_string(home.applications()) + " libraries, pages of 200" +
                             (program == Program::stays ? ", watching" : "");
    suite.compare(state, what, "pages", expected.entries, (*costs)[0], "system calls", (*costs)[2]);
    suite.compare(state, what + ", new enumerator", "enumerator", expected.entries, (*costs)[1], "system calls",
                  (*costs)[2]);
    return (*costs)[0].clock;
}

}  // namespace

void addApplications(Suite& suite) {
    suite.add("applications/refresh", [&suite](benchmark::State& state) { return refresh(suite, state); });
    suite.add("applications/root_listing",
              [&suite](benchmark::State& state) { return listRoot(suite, state, Program::ends); });
    suite.add("applications/root_listing_watching",
              [&suite](benchmark::State& state) { return listRoot(suite, state, Program::stays); });
}

}  // namespace tarnwell::bench
