#pragma once

#include <benchmark/benchmark.h>

#include <functional>
#include <memory>
#include <string>

#include "bench/Measure.h"
#include "bench/Report.h"
#include "bench/SampleDevice.h"
#include "bench/Sizes.h"

namespace tarnwell::host {
class ProgramContext;
}
namespace tarnwell::log {
class Log;
}

namespace tarnwell::bench {

/// Where the benchmarks are registered and what they share. Outlives the run.
class Suite {
public:
    Suite(const Sizes& sizes, std::string program) : sizes_(sizes), program_(std::move(program)) {}

    const Sizes& sizes() const { return sizes_; }
    Report& report() { return report_; }
    /// The path of this program, which a benchmark starts again to measure in a fresh process.
    const std::string& program() const { return program_; }

    /// Does its own rounds, and gives the seconds that one round of ours took. May set counters.
    using Body = std::function<Outcome<double>(benchmark::State& state)>;
    /// The suite keeps the body alive until it goes.
    void add(const std::string& name, Body body);

    /// The device with the tree of folders, made and known to the index by the first call.
    Outcome<SampleDevice*> treeDevice();
    static constexpr const char* kTree = "tree";
    /// Makes the files and folders of that tree on a device.
    Outcome<void> makeTree(SampleDevice& device) const { return makeTree(device.path(kTree)); }
    /// The same as that folder, whose parent stands.
    Outcome<void> makeTree(const std::string& folder) const;

    /// Counters of a comparison, and its row in the table.
    void compare(benchmark::State& state, const std::string& what, const std::string& key, std::uint64_t count,
                 const Cost& ours, const std::string& otherName, const Cost& other);

private:
    const Sizes sizes_;
    const std::string program_;
    Report report_;
    std::unique_ptr<SampleDevice> treeDevice_;
};

/// Says on standard error what is being done, since it may take minutes.
void progress(const std::string& what);

void addListings(Suite& suite);
void addTree(Suite& suite);
void addLookups(Suite& suite);
void addPages(Suite& suite);
void addChanges(Suite& suite);
void addLive(Suite& suite);
void addOperations(Suite& suite);
void addSearch(Suite& suite);
void addIcons(Suite& suite);
void addBus(Suite& suite);
void addApplications(Suite& suite);
void addMemory(Suite& suite);
void addWatchman(Suite& suite);

/// The part of the memory benchmark that runs in a process of its own, on that person's home: prints one line of
/// numbers. Returns the exit status.
int measureMemory(const std::string& home, std::size_t entries);
/// The program itself on the person whose home that folder is, with no applications.
Outcome<std::unique_ptr<host::ProgramContext>> startProgram(const std::string& home, log::Log& log);
/// Follows that person's documents in a process of its own, and answers what is asked on standard input: "live",
/// "anchor" or "since ANCHOR". An answer ends with a line "end ANCHOR". Returns the exit status.
int follow(const std::string& home);

}  // namespace tarnwell::bench
