#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>
#include <vector>

#include "platform/base/Ids.h"

namespace tarnwell::bus {

/// Writes a GVariant from its first byte to its last. A container's framing offsets, which say where its parts of
/// variable size end, come after them, each as wide as the whole container needs
/// (https://docs.gtk.org/glib/gvariant-format.html says how).
class Packer {
public:
    /// The part that comes next begins at a multiple of it. Every container here begins at one of 8, the most that
    /// there is, so that places in it and in the whole have the same alignment.
    void align(std::size_t multiple);
    void raw(std::string_view bytes);
    /// With the NUL that ends it; a NUL in the text ends it before.
    void text(std::string_view value);
    /// In little-endian order; aligned by the caller.
    void number(std::uint64_t value, std::size_t width);

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
    std::size_t offsetWidth() const;

    Bytes bytes_;
    std::vector<Open> open_;
    std::vector<std::size_t> ends_;  ///< of the open containers, relative to their beginnings
};

/// How wide the framing offsets of a container are that has so many bytes, offsets included.
std::size_t offsetWidthOf(std::size_t size);

}  // namespace tarnwell::bus
