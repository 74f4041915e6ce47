#pragma once

#include <sys/types.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

/// What the texts of procfs say. Pure functions.
namespace tarnwell::caller {

inline constexpr std::size_t kMaxProcText = 64 * 1024;
/// A desktop with many mounted images has hundreds of lines here.
inline constexpr std::size_t kMaxMountText = 1024 * 1024;

/// The real, effective, saved and file system user in "status"; nothing for a text without that line.
std::optional<std::array<uid_t, 4>> usersOf(std::string_view status);
/// The type of the file system of a mount in "mountinfo"; nothing where that mount is not among them.
std::optional<std::string> fileSystemOf(std::string_view mountinfo, std::uint64_t mount);
/// The process that the "fdinfo" of a pidfd names; -1 once it ended, nothing for any other descriptor.
std::optional<pid_t> processOfDescriptor(std::string_view fdinfo);

}  // namespace tarnwell::caller
