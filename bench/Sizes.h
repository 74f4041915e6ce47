#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace tarnwell::bench {

/// How much is measured. "full" is what results are quoted for, "small" a tenth of it, "ci" shows only that everything
/// still runs.
struct Sizes {
    std::string name;
    std::size_t flatFiles = 0;            ///< files of the flat folder
    std::size_t outerFolders = 0;         ///< of the tree
    std::size_t foldersInEach = 0;        ///< folders in each of those
    std::size_t filesInEach = 0;          ///< files in each of these
    std::size_t lookups = 0;              ///< identifiers looked up in one round
    std::vector<std::size_t> pageSeries;  ///< entries of the folders whose pages are compared, rising
    std::vector<std::size_t> memorySeries;
    std::size_t operations = 0;      ///< renames and the like in one round
    std::size_t imports = 0;         ///< small files imported in one round
    std::size_t largeMebibytes = 0;  ///< of the one large file
    std::size_t applications = 0;    ///< installed applications that keep documents
    unsigned rounds = 0;

    std::size_t treeFolders() const { return outerFolders * (1 + foldersInEach); }
    std::size_t treeFiles() const { return outerFolders * foldersInEach * filesInEach; }
};

/// Nothing for an unknown name.
std::optional<Sizes> sizesNamed(std::string_view name);

}  // namespace tarnwell::bench
