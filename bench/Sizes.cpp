#include "bench/Sizes.h"

namespace tarnwell::bench {

std::optional<Sizes> sizesNamed(std::string_view name) {
    if (name == "full") {
        return Sizes{.name = "full",
                     .flatFiles = 100'000,
                     .outerFolders = 200,
                     .foldersInEach = 250,
                     .filesInEach = 20,
                     .lookups = 100'000,
                     .pageSeries = {25'000, 50'000, 100'000},
                     .memorySeries = {10'000, 100'000, 1'000'000},
                     .operations = 10000,
                     .imports = 10000,
                     .largeMebibytes = 1024,
                     .applications = 1'000,
                     .rounds = 5};
    }
    if (name == "small") {
        return Sizes{.name = "small",
                     .flatFiles = 10'000,
                     .outerFolders = 20,
                     .foldersInEach = 250,
                     .filesInEach = 20,
                     .lookups = 10'000,
                     .pageSeries = {5'000, 10'000, 20'000},
                     .memorySeries = {1'000, 10'000, 100'000},
                     .operations = 3000,
                     .imports = 3000,
                     .largeMebibytes = 256,
                     .applications = 1'000,
                     .rounds = 5};
    }
    if (name == "ci") {
        return Sizes{.name = "ci",
                     .flatFiles = 1'000,
                     .outerFolders = 2,
                     .foldersInEach = 10,
                     .filesInEach = 20,
                     .lookups = 100,
                     .pageSeries = {250, 500, 1'000},
                     .memorySeries = {250, 1'000},
                     .operations = 200,
                     .imports = 100,
                     .largeMebibytes = 8,
                     .applications = 20,
                     .rounds = 2};
    }
    return std::nullopt;
}

}  // namespace tarnwell::bench
