#include <fcntl.h>
#include <gio/gio.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <condition_variable>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <mutex>

#include "bench/SampleFiles.h"
#include "bench/Suite.h"
#include "host/HostFileOperations.h"
#include "testing/TestDevice.h"

extern char** environ;

namespace tarnwell::bench {
namespace {

using host::HostFileOperations;

/// A storage with the operations on it, and beside it in the same file system a folder for the system calls.
class Bench {
public:
    Bench() {
        for (const char* name : {"from", "to", ".Trash"}) {
            (void)makeFolder(device_.path(name));
            (void)makeFolder(bare(name));
        }
        (void)makeFolder(source());
    }
    std::string ours(const std::string& name) const { return device_.path(name); }
    std::string bare(const std::string& name = "") const {
        const std::string folder = device_.home() + "/bare";
        std::filesystem::create_directories(folder);
        return name.empty() ? folder : folder + "/" + name;
    }
    std::string source(const std::string& name = "") const {
        return device_.home() + "/source" + (name.empty() ? "" : "/" + name);
    }
    URL url(const std::string& name) const { return device_.url(name); }
    URL urlOf(const std::string& realPath) { return device_.roots().urlForRealPath(realPath); }
    HostFileOperations& operations() { return operations_; }

    /// Starts each of them when the one `atOnce` before it is done, and waits for all; how many succeeded.
    template <typename Start>
    std::uint64_t forEach(std::size_t count, std::ptrdiff_t atOnce, const Start& start) {
        std::mutex mutex;
        std::condition_variable freed;
        std::ptrdiff_t running = 0;
        std::uint64_t done = 0;
        std::unique_lock lock(mutex);
        for (std::size_t i = 0; i < count; ++i) {
            freed.wait(lock, [&] { return running < atOnce; });
            ++running;
            lock.unlock();
            start(i, [&](const auto& result) {
                const std::lock_guard locked(mutex);
                if (isDone(result)) ++done;
                --running;
                freed.notify_one();
            });
            lock.lock();
        }
        freed.wait(lock, [&] { return running == 0; });
        return done;
    }

private:
    static bool isDone(const Result<URL>& result) { return result.has_value(); }
    static bool isDone(const std::optional<Error>& error) { return !error; }

    testing::TestDevice device_;
    HostFileOperations operations_{{device_.roots(), device_.store(), device_.log()}, device_.pool()};
};

std::string numbered(std::size_t i) { return "file " + std::to_string(i) + ".txt"; }

Outcome<void> fill(const std::string& folder, std::size_t count, std::size_t size = 4000) {
    std::filesystem::create_directories(folder);
    const std::string content(size, 'x');
    for (std::size_t i = 0; i < count; ++i) {
        std::ofstream file(folder + "/" + numbered(i));
        if (!(file << content)) return std::unexpected("no file can be made");
    }
    return {};
}

void clear(const std::string& folder) {
    std::filesystem::remove_all(folder);
    std::filesystem::create_directories(folder);
}

/// Empties the folder before each time.
std::function<Outcome<void>()> emptied(const std::string& path) {
    return [path]() -> Outcome<void> {
        clear(path);
        return {};
    };
}

/// What is timed, with what has to be done before each time and is not.
struct Way {
    std::string name;
    std::function<Outcome<void>()> prepare;
    std::function<std::uint64_t()> run;  ///< how many it did
};

Outcome<std::vector<Cost>> inTurn(unsigned rounds, std::uint64_t expected, const std::vector<Way>& ways) {
    std::vector<std::vector<Cost>> costs(ways.size());
    for (unsigned round = 0; round <= rounds; ++round) {
        for (std::size_t i = 0; i < ways.size(); ++i) {
            if (ways[i].prepare) {
                if (auto ready = ways[i].prepare(); !ready) return std::unexpected(ready.error());
                // What the preparation wrote and removed must not be written in somebody's time.
                ::sync();
            }
            const Stopwatch stopwatch;
            const std::uint64_t done = ways[i].run();
            const Cost cost = stopwatch.elapsed();
            if (done != expected) {
                return std::unexpected(ways[i].name + " did " + std::to_string(done) + " of " +
                                       std::to_string(expected));
            }
            if (round > 0) costs[i].push_back(cost);
        }
    }
    std::vector<Cost> medians;
    for (auto& of : costs) medians.push_back(median(std::move(of)));
    return medians;
}

/// Ours against each of the others; the seconds of ours.
Outcome<double> comparison(Suite& suite, benchmark::State& state, const std::string& what, std::uint64_t count,
                           std::uint64_t expected, const std::vector<Way>& ways) {
    const auto costs = inTurn(suite.sizes().rounds, expected, ways);
    if (!costs) return std::unexpected(costs.error());
    for (std::size_t i = 1; i < ways.size(); ++i) {
        suite.compare(state, what, "against_" + std::to_string(i), count, (*costs)[0], ways[i].name, (*costs)[i]);
    }
    return (*costs)[0].clock;
}

std::string howMany(std::ptrdiff_t atOnce) {
    return atOnce == 1 ? ", one by one" : ", " + std::to_string(atOnce) + " at once";
}

template <typename Call>
std::uint64_t countOf(std::size_t count, const Call& call) {
    std::uint64_t done = 0;
    for (std::size_t i = 0; i < count; ++i) done += call(i) ? 1 : 0;
    return done;
}

Outcome<double> renames(Suite& suite, benchmark::State& state, std::ptrdiff_t atOnce) {
    Bench bench;
    const std::size_t count = suite.sizes().operations;
    return comparison(suite, state, "rename" + howMany(atOnce), count, count,
                      {{"ours",
                        [&] {
                            clear(bench.ours("from"));
                            return fill(bench.ours("from"), count);
                        },
                        [&] {
                            return bench.forEach(count, atOnce, [&](std::size_t i, auto done) {
                                bench.operations().renameWithNewName(bench.url("from/" + numbered(i)),
                                                                     "new " + numbered(i), done);
                            });
                        }},
                       {"renameat2",
                        [&] {
                            clear(bench.bare("from"));
                            return fill(bench.bare("from"), count);
                        },
                        [&] {
                            const Descriptor at(::open(bench.bare("from").c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
                            return countOf(count, [&](std::size_t i) {
                                return ::renameat2(at.get(), numbered(i).c_str(), at.get(),
                                                   ("new " + numbered(i)).c_str(), RENAME_NOREPLACE) == 0;
                            });
                        }}});
}

Outcome<double> folders(Suite& suite, benchmark::State& state, std::ptrdiff_t atOnce) {
    Bench bench;
    const std::size_t count = suite.sizes().operations;
    return comparison(
        suite, state, "new folder" + howMany(atOnce), count, count,
        {{"ours", emptied(bench.ours("to")),
          [&] {
              return bench.forEach(count, atOnce, [&](std::size_t i, auto done) {
                  bench.operations().createSubfolder(bench.url("to"), numbered(i), done);
              });
          }},
         {"mkdirat", emptied(bench.bare("to")), [&] {
              const Descriptor at(::open(bench.bare("to").c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
              return countOf(count, [&](std::size_t i) { return ::mkdirat(at.get(), numbered(i).c_str(), 0777) == 0; });
          }}});
}

Outcome<double> moves(Suite& suite, benchmark::State& state, std::ptrdiff_t atOnce) {
    Bench bench;
    const std::size_t count = suite.sizes().operations;
    const auto ready = [count](const std::string& from, const std::string& to) {
        return [=]() -> Outcome<void> {
            clear(from);
            clear(to);
            return fill(from, count);
        };
    };
    return comparison(suite, state, "move" + howMany(atOnce), count, count,
                      {{"ours", ready(bench.ours("from"), bench.ours("to")),
                        [&] {
                            return bench.forEach(count, atOnce, [&](std::size_t i, auto done) {
                                bench.operations().reparentUnderFolder(bench.url("from/" + numbered(i)),
                                                                       bench.url("to"), std::nullopt,
                                                                       hostframework::Bouncing::refused, done);
                            });
                        }},
                       {"renameat2", ready(bench.bare("from"), bench.bare("to")), [&] {
                            const Descriptor from(::open(bench.bare("from").c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
                            const Descriptor to(::open(bench.bare("to").c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
                            return countOf(count, [&](std::size_t i) {
                                return ::renameat2(from.get(), numbered(i).c_str(), to.get(), numbered(i).c_str(),
                                                   RENAME_NOREPLACE) == 0;
                            });
                        }}});
}

Outcome<double> trash(Suite& suite, benchmark::State& state) {
    Bench bench;
    const std::size_t count = suite.sizes().operations;
    // GIO's own trash, in a home that goes with the benchmark.
    const std::string data = bench.bare("data");
    ::setenv("XDG_DATA_HOME", data.c_str(), 1);
    return comparison(suite, state, "trash", count, count,
                      {{"ours",
                        [&] {
                            clear(bench.ours("from"));
                            clear(bench.ours(".Trash"));
                            return fill(bench.ours("from"), count);
                        },
                        [&] {
                            return bench.forEach(count, 1, [&](std::size_t i, auto done) {
                                bench.operations().trashUnderFolder(bench.url("from/" + numbered(i)),
                                                                    bench.url(".Trash"), done);
                            });
                        }},
                       {"g_file_trash",
                        [&] {
                            clear(bench.bare("from"));
                            clear(data);
                            return fill(bench.bare("from"), count);
                        },
                        [&] {
                            return countOf(count, [&](std::size_t i) {
                                GFile* file = g_file_new_for_path(bench.bare("from/" + numbered(i)).c_str());
                                const bool done = g_file_trash(file, nullptr, nullptr) != 0;
                                g_object_unref(file);
                                return done;
                            });
                        }}});
}

/// The system calls of a safe copy.
bool copySafely(int from, int to, const std::string& name) {
    const Descriptor source(::openat(from, name.c_str(), O_RDONLY | O_CLOEXEC));
    const Descriptor copy(::openat(to, ".", O_TMPFILE | O_RDWR | O_CLOEXEC, 0644));
    struct stat status{};
    if (!source.valid() || !copy.valid() || ::fstat(source.get(), &status) != 0) return false;
    for (off_t left = status.st_size; left > 0;) {
        const ssize_t part =
            ::copy_file_range(source.get(), nullptr, copy.get(), nullptr, static_cast<size_t>(left), 0);
        if (part <= 0) return false;
        left -= part;
    }
    const std::string itself = "/proc/self/fd/" + std::to_string(copy.get());
    return ::fsync(copy.get()) == 0 && ::linkat(AT_FDCWD, itself.c_str(), to, name.c_str(), AT_SYMLINK_FOLLOW) == 0;
}

bool runs(std::vector<std::string> command) {
    std::vector<char*> arguments;
    for (std::string& word : command) arguments.push_back(word.data());
    arguments.push_back(nullptr);
    pid_t child = 0;
    int status = -1;
    return ::posix_spawnp(&child, arguments[0], nullptr, nullptr, arguments.data(), environ) == 0 &&
           ::waitpid(child, &status, 0) == child && status == 0;
}

Outcome<double> imports(Suite& suite, benchmark::State& state) {
    Bench bench;
    const std::size_t count = suite.sizes().imports;
    if (auto filled = fill(bench.source("many"), count); !filled) return std::unexpected(filled.error());
    const auto import = [&](std::ptrdiff_t atOnce) {
        return bench.forEach(count, atOnce, [&](std::size_t i, auto done) {
            bench.operations().importUnderFolder(bench.urlOf(bench.source("many/" + numbered(i))), bench.url("to"),
                                                 done);
        });
    };
    const auto bySystemCalls = [&](bool isFolderWritten) {
        const Descriptor from(::open(bench.source("many").c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
        const Descriptor to(::open(bench.bare("to").c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
        return countOf(count, [&](std::size_t i) {
            return copySafely(from.get(), to.get(), numbered(i)) && (!isFolderWritten || ::fsync(to.get()) == 0);
        });
    };
    auto one = comparison(
        suite, state, "import one by one", count, count,
        {{"ours", emptied(bench.ours("to")), [&] { return import(1); }},
         {"system calls, fsync", emptied(bench.bare("to")), [&] { return bySystemCalls(false); }},
         {"system calls, fsync, folder too", emptied(bench.bare("to")), [&] { return bySystemCalls(true); }}});
    if (!one) return one;
    return comparison(suite, state, "import 16 at once", count, count,
                      {{"ours", emptied(bench.ours("to")), [&] { return import(16); }},
                       {"system calls, fsync", emptied(bench.bare("to")), [&] { return bySystemCalls(false); }},
                       {"cp -a, no fsync", emptied(bench.bare("to")),
                        [&] { return runs({"cp", "-a", bench.source("many"), bench.bare("to")}) ? count : 0; }}});
}

Outcome<double> folderImport(Suite& suite, benchmark::State& state) {
    Bench bench;
    const std::size_t count = suite.sizes().imports;
    if (auto filled = fill(bench.source("many"), count); !filled) return std::unexpected(filled.error());
    const auto copied = [&](bool isWritten) -> std::uint64_t {
        if (!runs({"cp", "-a", bench.source("many"), bench.bare("to")})) return 0;
        const Descriptor to(::open(bench.bare("to").c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
        return !isWritten || ::syncfs(to.get()) == 0 ? 1 : 0;
    };
    return comparison(suite, state, "import a folder of files", count, 1,
                      {{"ours", emptied(bench.ours("to")),
                        [&] {
                            return bench.forEach(1, 1, [&](std::size_t, auto done) {
                                bench.operations().importUnderFolder(bench.urlOf(bench.source("many")), bench.url("to"),
                                                                     done);
                            });
                        }},
                       {"cp -a, syncfs", emptied(bench.bare("to")), [&] { return copied(true); }},
                       {"cp -a", emptied(bench.bare("to")), [&] { return copied(false); }}});
}

Outcome<double> largeFile(Suite& suite, benchmark::State& state) {
    Bench bench;
    const std::string source = bench.source("large");
    {
        std::ofstream file(source);
        const std::string block(1 << 20, 'y');
        for (std::size_t i = 0; i < suite.sizes().largeMebibytes; ++i) file << block;
        if (!file.flush()) return std::unexpected("no room for the large file");
    }
    const auto copied = [&](bool isWritten) -> std::uint64_t {
        if (!runs({"cp", "--reflink=auto", "-p", source, bench.bare("to/large")})) return 0;
        const Descriptor copy(::open(bench.bare("to/large").c_str(), O_RDONLY | O_CLOEXEC));
        return !isWritten || ::fsync(copy.get()) == 0 ? 1 : 0;
    };
    return comparison(suite, state, "import a file, by MiB", suite.sizes().largeMebibytes, 1,
                      {{"ours", emptied(bench.ours("to")),
                        [&] {
                            return bench.forEach(1, 1, [&](std::size_t, auto done) {
                                bench.operations().importUnderFolder(bench.urlOf(source), bench.url("to"), done);
                            });
                        }},
                       {"cp --reflink=auto, fsync", emptied(bench.bare("to")), [&] { return copied(true); }},
                       {"cp --reflink=auto", emptied(bench.bare("to")), [&] { return copied(false); }}});
}

Outcome<double> attributes(Suite& suite, benchmark::State& state) {
    Bench bench;
    const std::size_t count = suite.sizes().operations;
    if (auto filled = fill(bench.ours("from"), 1); !filled) return std::unexpected(filled.error());
    if (auto filled = fill(bench.bare("from"), 1); !filled) return std::unexpected(filled.error());
    const URL url = bench.url("from/" + numbered(0));
    const auto set = [](int file, std::size_t i) {
        const std::string value = "value " + std::to_string(i);
        return ::fsetxattr(file, "user.note", value.data(), value.size(), 0) == 0;
    };
    return comparison(
        suite, state, "write an attribute", count, count,
        {{"ours",
          {},
          [&] {
              return countOf(count, [&](std::size_t i) {
                  return bench.operations()
                      .readWrite(url,
                                 [&](const Descriptor& file) -> Result<void> {
                                     if (set(file.get(), i)) return {};
                                     return failure(posixError(errno));
                                 })
                      .has_value();
              });
          }},
         {"open, fsetxattr",
          {},
          [&] {
              const std::string path = bench.bare("from/" + numbered(0));
              return countOf(count, [&](std::size_t i) {
                  const Descriptor file(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
                  return set(file.get(), i);
              });
          }},
         {"fsetxattr", {}, [&] {
              const Descriptor file(::open(bench.bare("from/" + numbered(0)).c_str(), O_RDONLY | O_CLOEXEC));
              return countOf(count, [&](std::size_t i) { return set(file.get(), i); });
          }}});
}

}  // namespace

void addOperations(Suite& suite) {
    const auto add = [&](const char* name, Outcome<double> (*measure)(Suite&, benchmark::State&)) {
        suite.add(std::string("operations/") + name,
                  [&suite, measure](benchmark::State& state) { return measure(suite, state); });
    };
    // One by one each waits for a thread to take it and for its answer; together they only wait for the disk.
    for (const std::ptrdiff_t atOnce : {1, 16}) {
        const std::string many = atOnce == 1 ? "" : "_at_once";
        const auto addMany = [&](const char* name,
                                 Outcome<double> (*measure)(Suite&, benchmark::State&, std::ptrdiff_t)) {
            suite.add("operations/" + (name + many),
                      [&suite, measure, atOnce](benchmark::State& state) { return measure(suite, state, atOnce); });
        };
        addMany("rename", renames);
        addMany("new_folder", folders);
        addMany("move", moves);
    }
    add("trash", trash);
    add("import_files", imports);
    add("import_folder", folderImport);
    add("import_large", largeFile);
    add("attribute", attributes);
}

}  // namespace tarnwell::bench
