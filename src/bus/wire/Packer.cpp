#include "bus/wire/Packer.h"

#include <algorithm>
#include <array>

namespace tarnwell::bus {

std::size_t offsetWidthOf(std::size_t size) {
    if (size <= UINT8_MAX) return 1;
    if (size <= UINT16_MAX) return 2;
    return size <= UINT32_MAX ? 4 : 8;
}

void Packer::align(std::size_t multiple) { bytes_.resize((bytes_.size() + multiple - 1) / multiple * multiple); }

void Packer::raw(std::string_view bytes) { bytes_.insert(bytes_.end(), bytes.begin(), bytes.end()); }

void Packer::text(std::string_view value) {
    raw(value.substr(0, value.find('\0')));
    bytes_.push_back(0);
}

void Packer::number(std::uint64_t value, std::size_t width) {
    std::array<std::uint8_t, sizeof(value)> bytes{};
    for (std::size_t i = 0; i < width; ++i) bytes[i] = static_cast<std::uint8_t>(value >> (8 * i));
    bytes_.insert(bytes_.end(), bytes.begin(), bytes.begin() + static_cast<std::ptrdiff_t>(width));
}

void Packer::open() { open_.push_back({bytes_.size(), ends_.size()}); }

void Packer::endPart() { ends_.push_back(bytes_.size() - open_.back().begin); }

std::size_t Packer::offsetWidth() const {
    const std::size_t size = bytes_.size() - open_.back().begin, count = ends_.size() - open_.back().firstEnd;
    std::size_t width = 1;
    while (offsetWidthOf(size + count * width) > width) width *= 2;
    return width;
}

void Packer::closeArray() {
    const std::size_t width = offsetWidth();
    for (std::size_t i = open_.back().firstEnd; i < ends_.size(); ++i) number(ends_[i], width);
    ends_.resize(open_.back().firstEnd);
    open_.pop_back();
}

void Packer::closeStructure() {
    std::reverse(ends_.begin() + static_cast<std::ptrdiff_t>(open_.back().firstEnd), ends_.end());
    closeArray();
}

}  // namespace tarnwell::bus
