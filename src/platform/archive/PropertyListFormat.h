#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>

/// What the reader and the writer of binary property lists agree on. All numbers in a file are big-endian.
namespace tarnwell::archive::format {

inline constexpr std::string_view kMagic = "bplist00";

/// Trailer: 6 bytes of no meaning, the size of an offset, the size of a reference (1 byte each), then the count of
/// objects, the top object's number and the place of the offset table (8 bytes each).
inline constexpr std::size_t kTrailerSize = 32;
inline constexpr std::size_t kTrailerOffsetSize = 6;
inline constexpr std::size_t kTrailerReferenceSize = 7;
inline constexpr std::size_t kTrailerObjectCount = 8;
inline constexpr std::size_t kTrailerTopObject = 16;
inline constexpr std::size_t kTrailerOffsetTable = 24;

/// Whole markers.
inline constexpr std::uint8_t kNull = 0x00;
inline constexpr std::uint8_t kFalse = 0x08;
inline constexpr std::uint8_t kTrue = 0x09;
inline constexpr std::uint8_t kReal4 = 0x22;
inline constexpr std::uint8_t kReal8 = 0x23;
inline constexpr std::uint8_t kDate = 0x33;

/// Upper halves of markers. The lower half of kInteger is the size's power of two, of kUid the size less one, of the
/// others the count, or kCountFollows for a count that follows as an integer object.
inline constexpr std::uint8_t kInteger = 0x10;
inline constexpr std::uint8_t kData = 0x40;
inline constexpr std::uint8_t kAscii = 0x50;
inline constexpr std::uint8_t kUtf16 = 0x60;
inline constexpr std::uint8_t kUid = 0x80;
inline constexpr std::uint8_t kArray = 0xA0;
inline constexpr std::uint8_t kSet = 0xC0;
inline constexpr std::uint8_t kDictionary = 0xD0;
inline constexpr std::uint8_t kCountFollows = 0x0F;

}  // namespace tarnwell::archive::format
