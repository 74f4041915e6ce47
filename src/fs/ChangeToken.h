#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "platform/base/Ids.h"
#include "platform/base/UUID.h"

namespace tarnwell::fs {

/// The record behind every sync anchor and every enumeration page. A plain value; any thread may use one of its own.
///
/// As bytes it is a binary property list: one dictionary with exactly the keys "version", "deviceUUID",
/// "streamEventID", "offset" and "appLibraryVersionToken", in this order. The UUID is its canonical text, the numbers
/// are unsigned 64-bit.
struct ChangeToken {
    /// Always written as 0, never tested.
    std::uint64_t version = 0;
    /// Identity of the device whose event IDs `streamEventID` belongs to.
    UUID deviceUUID;
    /// Changes after this position are still to be told.
    EventID streamEventID{0};
    /// Entries already delivered by an unfinished first enumeration; 0 otherwise.
    std::uint64_t offset = 0;
    /// Generation of the app library list; 0 where no app libraries are listed.
    std::uint64_t appLibraryVersionToken = 0;

    /// Never 48 bytes long.
    Bytes encode() const;
    /// Nothing for bytes that are no token: another format, a missing key, a value of another type or below zero, a
    /// buffer of exactly 48 bytes. Further keys and other orders are read.
    static std::optional<ChangeToken> decode(ByteView bytes);

    /// One line for logs: "version:0 deviceUUID:<text> streamEventID:7 offset:0 appLibraryVersionToken:3".
    std::string description() const;

    friend bool operator==(const ChangeToken&, const ChangeToken&) = default;
};

}  // namespace tarnwell::fs
