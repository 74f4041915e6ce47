#pragma once

#include <cstdint>
#include <string>

#include "bench/Measure.h"

namespace tarnwell::bench {

/// What a listing costs at the least: nothing but the system calls that its answers need, and only as many as needed.
/// For each entry getdents64 in buffers of 64 KiB, statx relative to the open folder, access from the mode bits, one
/// listxattr, and a read of each attribute that an item shows and that exists. No item is made.
///
/// Lists one folder, or with `below` also the folders below it: each is read once, which counts its entries as well.
enum class Depth { folder, below };
Outcome<Tally> lookAtEntries(const std::string& folder, Depth depth);

}  // namespace tarnwell::bench
