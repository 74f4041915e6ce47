#pragma once

#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstring>
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

/// Reads numbers of one size of 1 to 8 bytes. It reads 8 bytes in any case: for places from which at least so many are
/// left in the file, as from all before the trailer.
class NumberReader {
public:
    constexpr explicit NumberReader(std::size_t size) : size_(size), shift_(64 - 8 * size) {}

    std::size_t size() const { return size_; }
    std::uint64_t at(const std::uint8_t* place) const {
        std::uint64_t word;
        std::memcpy(&word, place, sizeof word);
        if constexpr (std::endian::native == std::endian::little) word = std::byteswap(word);
        return word >> shift_;
    }
    /// The number at a position of a row of them.
    std::uint64_t at(const std::uint8_t* row, std::size_t position) const { return at(row + position * size_); }

private:
    std::size_t size_;
    std::size_t shift_;
};

inline std::uint64_t numberAt(const std::uint8_t* place, std::size_t size) { return NumberReader(size).at(place); }

}  // namespace tarnwell::archive::format
