#pragma once

#include <optional>
#include <string>
#include <vector>

#include "items/Environment.h"
#include "platform/archive/KeyedArchive.h"

/// Extended attributes of items: bytes in and out, and the archived values in them.
namespace tarnwell::items {

/// The attribute's bytes; nothing when it is missing (silently) or cannot be read (logged).
std::optional<Bytes> valueOfAttribute(const Environment& environment, const std::string& name, const URL& url);

/// Sets the attribute on an open object, or removes it when there is no value; removing a missing one succeeds.
Result<void> writeAttribute(const Environment& environment, const Descriptor& descriptor, const std::string& name,
                            const std::optional<Bytes>& value);

/// The archived values; nothing, after one error line, for bytes that hold no such value.
std::optional<Date> decodeDate(ProgramLog& log, ByteView bytes);
std::optional<archive::Number> decodeNumber(ProgramLog& log, ByteView bytes);
std::optional<std::string> decodeString(ProgramLog& log, ByteView bytes);
std::optional<std::vector<std::string>> decodeStrings(ProgramLog& log, ByteView bytes);

}  // namespace tarnwell::items
