#include "platform/base/UUID.h"

#include <cerrno>
#include <cstddef>

#include <sys/random.h>

#include "platform/base/Result.h"

namespace tarnwell {
namespace {

constexpr std::size_t kTextLength = 36;

constexpr bool isHyphenPosition(std::size_t position) {
    return position == 8 || position == 13 || position == 18 || position == 23;
}

/// 0 to 15, or -1 for a character that is no hexadecimal digit.
constexpr int digitValue(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    return -1;
}

}  // namespace

UUID UUID::random() {
    UUID uuid;
    ssize_t got;
    do {
        got = ::getrandom(uuid.bytes.data(), uuid.bytes.size(), 0);
    } while (got < 0 && errno == EINTR);
    if (got != static_cast<ssize_t>(uuid.bytes.size())) fatal("the kernel gives no random bytes");
    uuid.bytes[6] = static_cast<std::uint8_t>((uuid.bytes[6] & 0x0F) | 0x40);  // version 4
    uuid.bytes[8] = static_cast<std::uint8_t>((uuid.bytes[8] & 0x3F) | 0x80);  // the standard variant
    return uuid;
}

std::optional<UUID> UUID::parse(std::string_view text) {
    if (text.size() != kTextLength) return std::nullopt;
    UUID uuid;
    std::size_t digits = 0;
    for (std::size_t i = 0; i < kTextLength; ++i) {
        if (isHyphenPosition(i)) {
            if (text[i] != '-') return std::nullopt;
            continue;
        }
        int value = digitValue(text[i]);
        if (value < 0) return std::nullopt;
        std::uint8_t& byte = uuid.bytes[digits / 2];
        byte = static_cast<std::uint8_t>(byte << 4 | value);
        ++digits;
    }
    return uuid;
}

std::string UUID::text() const {
    constexpr char kDigits[] = "0123456789ABCDEF";
    std::string result;
    result.reserve(kTextLength);
    for (std::uint8_t byte : bytes) {
        if (isHyphenPosition(result.size())) result += '-';
        result += kDigits[byte >> 4];
        result += kDigits[byte & 0x0F];
    }
    return result;
}

}  // namespace tarnwell
