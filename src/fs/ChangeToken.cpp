#include "fs/ChangeToken.h"

#include "platform/archive/PropertyList.h"
#include "platform/base/Result.h"

namespace tarnwell::fs {

namespace {

constexpr const char* kVersionKey = "version";
constexpr const char* kDeviceUUIDKey = "deviceUUID";
constexpr const char* kStreamEventIDKey = "streamEventID";
constexpr const char* kOffsetKey = "offset";
constexpr const char* kAppLibraryVersionTokenKey = "appLibraryVersionToken";

/// Four 8-byte numbers and a UUID without any format around them: a form that carries no sign of what it is, so that
/// any 48 bytes would read as some token. It is refused by its length.
constexpr std::size_t kRawRecordSize = 48;

std::optional<std::uint64_t> unsignedValue(const archive::Value& dictionary, const char* key) {
    const archive::Value* value = dictionary.find(key);
    const auto* integer = value ? value->as<archive::Integer>() : nullptr;
    if (!integer || integer->negative) return std::nullopt;
    return integer->magnitude;
}

}  // namespace

Bytes ChangeToken::encode() const {
    const auto number = [](std::uint64_t value) { return archive::Value(archive::Integer::fromUnsigned(value)); };
    archive::Dictionary record;
    record.emplace_back(kVersionKey, number(version));
    record.emplace_back(kDeviceUUIDKey, archive::Value(deviceUUID.text()));
    record.emplace_back(kStreamEventIDKey, number(raw(streamEventID)));
    record.emplace_back(kOffsetKey, number(offset));
    record.emplace_back(kAppLibraryVersionTokenKey, number(appLibraryVersionToken));
    Bytes bytes = archive::writeBinaryPropertyList(archive::Value(std::move(record)));
    TARNWELL_CHECK(bytes.size() != kRawRecordSize);
    return bytes;
}

std::optional<ChangeToken> ChangeToken::decode(ByteView bytes) {
    if (bytes.size() == kRawRecordSize) return std::nullopt;
    const auto list = archive::readBinaryPropertyList(bytes);
    if (!list) return std::nullopt;

    const archive::Value* uuidValue = list->find(kDeviceUUIDKey);
    const auto* uuidText = uuidValue ? uuidValue->as<std::string>() : nullptr;
    const auto uuid = uuidText ? UUID::parse(*uuidText) : std::nullopt;
    const auto version = unsignedValue(*list, kVersionKey);
    const auto streamEventID = unsignedValue(*list, kStreamEventIDKey);
    const auto offset = unsignedValue(*list, kOffsetKey);
    const auto appLibraryVersionToken = unsignedValue(*list, kAppLibraryVersionTokenKey);
    if (!uuid || !version || !streamEventID || !offset || !appLibraryVersionToken) return std::nullopt;
    return ChangeToken{*version, *uuid, EventID{*streamEventID}, *offset, *appLibraryVersionToken};
}

std::string ChangeToken::description() const {
    return "version:" + std::to_string(version) + " deviceUUID:" + deviceUUID.text() +
           " streamEventID:" + std::to_string(raw(streamEventID)) + " offset:" + std::to_string(offset) +
           " appLibraryVersionToken:" + std::to_string(appLibraryVersionToken);
}

}  // namespace tarnwell::fs
