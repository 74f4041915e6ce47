#pragma once

#include <chrono>
#include <compare>
#include <cstdint>
#include <functional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace tarnwell {

/// Raw bytes of a file, an attribute, an anchor or a page.
using Bytes = std::vector<std::uint8_t>;
using ByteView = std::span<const std::uint8_t>;

/// A point of wall-clock time, nanoseconds since 1970-01-01T00:00:00Z.
using Date = std::chrono::time_point<std::chrono::system_clock, std::chrono::nanoseconds>;

/// Names one object (file, folder, link, …) below the roots for the life of a store. Never 0, never issued twice.
enum class FileID : std::uint64_t {};

/// Names one document through renames, moves and safe-saves. Never 0, never issued twice in a store.
enum class DocumentID : std::uint32_t {};

/// Names the one device that all roots of a store form together. Never 0.
enum class DeviceID : std::uint32_t {};

/// A position in the store's journal. Grows with every recorded change; 0 lies before the first.
enum class EventID : std::uint64_t {};

constexpr std::uint64_t raw(FileID id) { return static_cast<std::uint64_t>(id); }
constexpr std::uint32_t raw(DocumentID id) { return static_cast<std::uint32_t>(id); }
constexpr std::uint32_t raw(DeviceID id) { return static_cast<std::uint32_t>(id); }
constexpr std::uint64_t raw(EventID id) { return static_cast<std::uint64_t>(id); }

/// A view of a string's bytes, for interfaces that take bytes.
inline ByteView bytesOf(std::string_view text) {
    return {reinterpret_cast<const std::uint8_t*>(text.data()), text.size()};
}

/// The bytes as text, unchecked.
inline std::string_view textOf(ByteView bytes) { return {reinterpret_cast<const char*>(bytes.data()), bytes.size()}; }

}  // namespace tarnwell
