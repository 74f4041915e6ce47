#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

#include "bench/Measure.h"

namespace tarnwell::bench {

/// Extended attributes that a file may get: tags, a rank, a last-used date, archived as real ones are.
enum class Attributes { none, onEveryTenth };

/// Makes a folder with that many files in it, named by consecutive numbers from `first` on. Returns the number of
/// attributes set. The folder above it must stand.
Outcome<std::uint64_t> makeFiles(const std::string& path, std::size_t count, Attributes attributes,
                                 std::size_t first = 0);
Outcome<void> makeFolder(const std::string& path);
/// Adds a byte to a file; false where that cannot be done.
bool changeFile(const std::string& path);
/// Waits until the index can trust the change times of what was made before.
void waitUntilTrusted();
/// Waits until the same is true of desktop files and the like, which lie on file systems of any kind.
void waitUntilParsedFilesAreTrusted();

/// The name of the file with that number; one in a hundred declares no type.
std::string sampleName(std::size_t number);
/// How many of the first `count` names declare no type, so that their files' contents are looked at.
std::uint64_t undeclaredNames(std::size_t count);

}  // namespace tarnwell::bench
