#pragma once

#include <array>

namespace tarnwell::mirror {

/// A root of the device: where it is below the home, and by which identifier clients know it.
struct RootFolder {
    const char* path;
    const char* identifier;
};
inline constexpr std::array<RootFolder, 3> kRoots = {
    {{"Documents", "RootContainer"}, {"Apps/Notes/Documents", "#Notes"}, {"Apps/Sketches/Documents", "#Sketches"}}};
/// On the same file system, and in no root.
inline constexpr const char* kOutside = "outside";

}  // namespace tarnwell::mirror
