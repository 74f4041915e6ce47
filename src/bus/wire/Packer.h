#pragma once

#include <array>
#include <bit>
#include <cstddef>
#include <cstdint>
#include <string_view>
#include <utility>
#include <vector>

#include "platform/base/Ids.h"

namespace tarnwell::bus {

/// Writes a GVariant from its first byte to its last. A container's framing offsets, which say where its parts of
/// variable size end, come after them, each as wide as the whole container needs
/// (https://docs.gtk.org/glib/gvariant-format.html says how).
class Packer {
public:
    /// The alignment of a variant, the largest that there is.
    static constexpr std::size_t kVariant = 8;

    /// Room for so many bytes in all, to be had at once.
    void reserve(std::size_t size) { bytes_.reserve(size); }

    /// The part that comes next begins at a multiple of it. Every container here begins at one of kVariant, so that
    /// places in it and in the whole have the same alignment.
    void align(std::size_t multiple);
    void raw(std::string_view bytes);
    /// With the NUL that ends it; a NUL in the text ends it before.
    void text(std::string_view value);
    /// The next part of an open a{sv}: a key, and a variant that holds the value, so many NULs and its type.
    void entry(std::string_view key, std::string_view value, std::size_t nuls, std::string_view type);

    /// A container begins here; containers are closed in the reverse order.
    void open();
    /// The part that was written last has a variable size and ends here.
    void endPart();
    /// Writes the offsets of the ends that were noted, the first one first.
    void closeArray();
    /// The same for a structure or an entry of a dictionary, whose offsets come in the reverse order.
    void closeStructure();

    Bytes take() { return std::move(bytes_); }

private:
    struct Open {
        std::size_t begin;
        std::size_t firstEnd;
    };
    /// So many bytes more; the first of them.
    std::uint8_t* grow(std::size_t size);

    Bytes bytes_;
    std::vector<Open> open_;
    std::vector<std::size_t> ends_;  ///< of the open containers, relative to their beginnings
};

inline std::size_t aligned(std::size_t at, std::size_t multiple) { return (at + multiple - 1) / multiple * multiple; }

inline std::array<std::uint8_t, sizeof(std::uint64_t)> littleEndian(std::uint64_t value) {
    if constexpr (std::endian::native == std::endian::big) value = std::byteswap(value);
    return std::bit_cast<std::array<std::uint8_t, sizeof(value)>>(value);
}

/// How wide the framing offsets of a container are that has so many bytes, offsets included.
std::size_t offsetWidthOf(std::size_t size);

}  // namespace tarnwell::bus
