#include "bus/wire/Packer.h"

#include <algorithm>

namespace tarnwell::bus {
namespace {

std::uint8_t* put(std::uint8_t* to, std::string_view bytes) { return std::ranges::copy(bytesOf(bytes), to).out; }

std::uint8_t* put(std::uint8_t* to, std::uint64_t number, std::size_t width) {
    return std::copy_n(littleEndian(number).begin(), width, to);
}

/// For so many offsets after so many bytes.
std::size_t offsetWidth(std::size_t size, std::size_t count) {
    std::size_t width = 1;
    while (offsetWidthOf(size + count * width) > width) width *= 2;
    return width;
}

}  // namespace

std::size_t offsetWidthOf(std::size_t size) {
    if (size <= UINT8_MAX) return 1;
    if (size <= UINT16_MAX) return 2;
    return size <= UINT32_MAX ? 4 : 8;
}

std::uint8_t* Packer::grow(std::size_t size) {
    const std::size_t before = bytes_.size();
    bytes_.resize(before + size);
    return bytes_.data() + before;
}

void Packer::align(std::size_t multiple) { bytes_.resize(aligned(bytes_.size(), multiple)); }

void Packer::raw(std::string_view bytes) { put(grow(bytes.size()), bytes); }

void Packer::text(std::string_view value) {
    value = value.substr(0, value.find('\0'));
    put(grow(value.size() + 1), value);
}

void Packer::entry(std::string_view key, std::string_view value, std::size_t nuls, std::string_view type) {
    align(kVariant);
    const std::size_t keyEnd = key.size() + 1, valueBegin = aligned(keyEnd, kVariant);
    const std::size_t size = valueBegin + value.size() + nuls + type.size();
    const std::size_t width = offsetWidth(size, 1);
    std::uint8_t* const begin = grow(size + width);
    put(begin, key);
    put(put(put(begin + valueBegin, value) + nuls, type), keyEnd, width);
    endPart();
}

void Packer::open() { open_.push_back({bytes_.size(), ends_.size()}); }

void Packer::endPart() { ends_.push_back(bytes_.size() - open_.back().begin); }

void Packer::closeArray() {
    const auto [begin, firstEnd] = open_.back();
    const std::size_t count = ends_.size() - firstEnd, width = offsetWidth(bytes_.size() - begin, count);
    std::uint8_t* to = grow(count * width);
    for (std::size_t i = firstEnd; i < ends_.size(); ++i) to = put(to, ends_[i], width);
    ends_.resize(firstEnd);
    open_.pop_back();
}

void Packer::closeStructure() {
    std::reverse(ends_.begin() + static_cast<std::ptrdiff_t>(open_.back().firstEnd), ends_.end());
    closeArray();
}

}  // namespace tarnwell::bus
