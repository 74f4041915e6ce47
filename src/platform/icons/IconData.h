#pragma once

#include <cstddef>
#include <optional>
#include <string>

#include "platform/base/Ids.h"
#include "platform/base/Result.h"

namespace tarnwell::icons {

/// Larger files are no icons.
inline constexpr std::size_t kMaxIconFileBytes = 4u << 20;
/// Sides of rendered pictures, in pixels.
inline constexpr unsigned kMinPictureSide = 1;
inline constexpr unsigned kMaxPictureSide = 1024;

/// The sizes in which an application's icon is asked for, by the numbers that clients know.
struct IconVariant {
    int number = 0;
    unsigned points = 48;
    unsigned scale = 1;
    unsigned pixels() const { return points * scale; }
};
/// 0, 15 and 32 are 48 points at scale 1, 2 and 3; 1 and 24 are 64 points at scale 1 and 2. Nothing for other numbers.
std::optional<IconVariant> iconVariant(int number);

enum class IconFormat { png, svg };
/// What the bytes look like; nothing for anything but PNG and plain SVG text. Says nothing of whether they are sound.
std::optional<IconFormat> formatOf(ByteView bytes);

/// An icon as some file holds it.
struct IconData {
    Bytes bytes;
    IconFormat format = IconFormat::png;
    /// The side of the square that it is wanted for.
    unsigned pixels = 48;
    /// For messages: the file that it came from, or "built in".
    std::string source;
};

/// What an application without an icon has, for variants at scale 1: a drawing that is part of the program.
IconData genericIcon(unsigned pixels);

/// The icon in a file that anybody may have put there: a regular file of 1 to kMaxIconFileBytes bytes that holds PNG or
/// SVG. Links are followed; nothing else is opened, so neither a FIFO nor a device is touched. EINVAL for a file of
/// another kind or content, EFBIG past the limit.
Result<IconData> readIcon(const std::string& path, unsigned pixels);

}  // namespace tarnwell::icons
