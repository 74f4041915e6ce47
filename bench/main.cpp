#include <benchmark/benchmark.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <climits>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "bench/Suite.h"

namespace {

using namespace tarnwell::bench;

constexpr const char* kUsage =
    "usage: tarnwell-bench [--size full|small|ci] [--json] [--benchmark_filter=REGEX] [further --benchmark_ options]\n";

struct Options {
    std::string size = "full";
    bool json = false;
};

/// Takes our options out of the arguments; nothing when one is wrong.
std::optional<Options> takeOptions(std::vector<char*>& arguments) {
    Options options;
    if (const char* size = std::getenv("TARNWELL_BENCH_SIZE"); size != nullptr && *size != '\0') options.size = size;
    std::vector<char*> others;
    for (std::size_t i = 0; i < arguments.size(); ++i) {
        const std::string_view argument = arguments[i];
        if (argument == "--json") {
            options.json = true;
        } else if (argument == "--size") {
            if (++i == arguments.size()) return std::nullopt;
            options.size = arguments[i];
        } else {
            others.push_back(arguments[i]);
        }
    }
    arguments = std::move(others);
    return options;
}

/// Leaves everything to the tables that follow at the end.
class SilentReporter : public benchmark::BenchmarkReporter {
public:
    bool ReportContext(const Context&) override { return true; }
    void ReportRuns(const std::vector<Run>&) override {}
};

std::string pathOfThisProgram() {
    std::array<char, PATH_MAX> path;
    const ssize_t length = ::readlink("/proc/self/exe", path.data(), path.size());
    return {path.data(), static_cast<std::size_t>(std::max<ssize_t>(length, 0))};
}

int run(const Options& options, const Sizes& sizes) {
    Suite suite(sizes, pathOfThisProgram());
    // Memory first, while no other benchmark has made files that the kernel keeps in mind.
    addMemory(suite);
    addWatchman(suite);
    addListings(suite);
    addChanges(suite);
    addLive(suite);
    addPages(suite);
    addTree(suite);
    addLookups(suite);
    addSearch(suite);
    addOperations(suite);
    addIcons(suite);
    addBus(suite);
    addApplications(suite);
    benchmark::AddCustomContext("size", sizes.name);
    benchmark::AddCustomContext("rounds", std::to_string(sizes.rounds));

    std::unique_ptr<benchmark::BenchmarkReporter> reporter;
    if (options.json) {
        reporter = std::make_unique<benchmark::JSONReporter>();
    } else {
        reporter = std::make_unique<SilentReporter>();
    }
    const std::size_t ran = benchmark::RunSpecifiedBenchmarks(reporter.get());
    if (!options.json) std::fputs(suite.report().text().c_str(), stdout);
    for (const std::string& failure : suite.report().failures()) progress("failed: " + failure);
    if (ran == 0) progress("no benchmark has such a name");
    // What is registered refers to the suite, which goes now.
    benchmark::ClearRegisteredBenchmarks();
    return ran > 0 && suite.report().failures().empty() ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv) {
    std::vector<char*> arguments(argv, argv + argc);
    // A program beside this one that ends is noticed by the answer that does not come.
    (void)std::signal(SIGPIPE, SIG_IGN);
    // How the memory benchmark starts this program again.
    if (argc == 4 && std::string_view(argv[1]) == "--measure-memory") {
        return measureMemory(argv[2], std::strtoull(argv[3], nullptr, 10));
    }
    // How the comparison with watchman does.
    if (argc == 3 && std::string_view(argv[1]) == "--follow") return follow(argv[2]);
    const auto options = takeOptions(arguments);
    const auto sizes = options ? sizesNamed(options->size) : std::nullopt;
    int count = static_cast<int>(arguments.size());
    arguments.push_back(nullptr);
    benchmark::Initialize(&count, arguments.data());
    if (!sizes || benchmark::ReportUnrecognizedArguments(count, arguments.data())) {
        std::fputs(kUsage, stderr);
        return 2;
    }
    return run(*options, *sizes);
}
