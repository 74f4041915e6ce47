#include "bus/wire/Errors.h"

#include <array>
#include <cerrno>
#include <charconv>
#include <map>
#include <optional>

#include "session/Session.h"

namespace tarnwell::bus {
namespace {

constexpr std::string_view kPrefix = "org.tarnwell.Error.";

struct Named {
    ErrorDomain domain;
    std::int64_t code;
    std::string_view name;
};

/// Those with a name of their own.
constexpr std::array kNamed = {
    Named{ErrorDomain::host, session::kSyncAnchorExpired, "SyncAnchorExpired"},
    Named{ErrorDomain::host, session::kNoSuchItem, "NoSuchItem"},
    Named{ErrorDomain::host, session::kFilenameCollision, "FilenameCollision"},
    Named{ErrorDomain::host, session::kInvalidParameter, "InvalidParameter"},
    Named{ErrorDomain::generalFile, kNoSuchFileOnRead, "NoSuchFile"},
    Named{ErrorDomain::generalFile, kWriteNotPermitted, "WriteNotPermitted"},
    Named{ErrorDomain::generalFile, kFileExists, "FileExists"},
    Named{ErrorDomain::provider, 0, "InvalidItemIdentifier"},
    Named{ErrorDomain::provider, 1, "InvalidItemURL"},
    Named{ErrorDomain::provider, 2, "ItemNotFound"},
    Named{ErrorDomain::deviceUUID, 0, "DeviceUnavailable"},
};

struct Family {
    ErrorDomain domain;
    std::string_view name;
};

/// The others by domain and number.
constexpr std::array kFamilies = {
    Family{ErrorDomain::generalFile, "File.Code"},  Family{ErrorDomain::host, "Host.Code"},
    Family{ErrorDomain::provider, "Provider.Code"}, Family{ErrorDomain::deviceUUID, "Device.Code"},
    Family{ErrorDomain::unarchive, "Archive.Code"}, Family{ErrorDomain::store, "Store.Code"},
    Family{ErrorDomain::posix, "Posix.Code"},
};

constexpr std::string_view kPosix = "Posix.";

/// A name of the bus has no minus.
std::string numbered(std::int64_t code) { return code < 0 ? "Minus" + std::to_string(-code) : std::to_string(code); }

std::optional<std::int64_t> numberOf(std::string_view text) {
    const bool negative = text.starts_with("Minus");
    if (negative) text.remove_prefix(5);
    std::int64_t value = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (error != std::errc() || end != text.data() + text.size() || value < 0) return std::nullopt;
    return negative ? -value : value;
}

const std::map<std::string, int, std::less<>>& errnosByName() {
    static const std::map<std::string, int, std::less<>> byName = [] {
        std::map<std::string, int, std::less<>> names;
        // The highest that this kernel has is EHWPOISON, 133.
        for (int code = 1; code < 200; ++code) {
            const std::string name = errnoName(code);
            if (name.starts_with('E')) names.emplace(name, code);
        }
        return names;
    }();
    return byName;
}

}  // namespace

std::string errorName(const Error& error) {
    for (const Named& named : kNamed) {
        if (error.is(named.domain, named.code)) return std::string(kPrefix) + std::string(named.name);
    }
    if (error.domain == ErrorDomain::posix && error.code > 0 && error.code < 200) {
        const std::string name = errnoName(static_cast<int>(error.code));
        if (name.starts_with('E')) return std::string(kPrefix) + std::string(kPosix) + name;
    }
    for (const Family& family : kFamilies) {
        if (error.domain == family.domain) {
            return std::string(kPrefix) + std::string(family.name) + numbered(error.code);
        }
    }
    return std::string(kPrefix) + "Unknown";
}

Error errorOfName(std::string_view name, std::string message) {
    const auto made = [&](ErrorDomain domain, std::int64_t code) {
        Error error{domain, code, {}};
        // What is said of every error of that kind is no sentence of this one's.
        if (!message.empty() && message != describe(error)) error.userInfo[kErrorMessage] = std::move(message);
        return error;
    };
    if (name == kAccessDenied) return made(ErrorDomain::posix, EACCES);
    if (name == kLimitsExceeded) return made(ErrorDomain::posix, EBUSY);
    if (name.starts_with(kPrefix)) {
        const std::string_view rest = name.substr(kPrefix.size());
        for (const Named& named : kNamed) {
            if (rest == named.name) return made(named.domain, named.code);
        }
        if (rest.starts_with(kPosix)) {
            const auto& codes = errnosByName();
            if (const auto found = codes.find(rest.substr(kPosix.size())); found != codes.end()) {
                return made(ErrorDomain::posix, found->second);
            }
        }
        for (const Family& family : kFamilies) {
            if (!rest.starts_with(family.name)) continue;
            if (const auto code = numberOf(rest.substr(family.name.size()))) return made(family.domain, *code);
        }
        return made(ErrorDomain::posix, EPROTO);
    }
    if (name == "org.freedesktop.DBus.Error.NoReply" || name == "org.freedesktop.DBus.Error.Disconnected") {
        return posixError(ECONNRESET, "the service ended before it answered; ask again");
    }
    if (name == "org.freedesktop.DBus.Error.ServiceUnknown" || name == "org.freedesktop.DBus.Error.NameHasNoOwner") {
        return posixError(ECONNREFUSED, "the service does not run; \"tarnwell serve\" starts it");
    }
    if (name == "org.freedesktop.DBus.Error.AccessDenied") return made(ErrorDomain::posix, EACCES);
    return posixError(EPROTO, std::string(name) + (message.empty() ? "" : ": " + message));
}

std::string errorMessage(const Error& error) {
    const auto message = error.userInfo.find(kErrorMessage);
    return message != error.userInfo.end() ? message->second : describe(error);
}

void writeError(Writer& writer, const Error& error) {
    writer.open('e', "sv").string("error").open('v', "s").string(errorName(error)).close().close();
    writer.open('e', "sv").string("message").open('v', "s").string(errorMessage(error)).close().close();
    if (error.userInfo.empty()) return;
    writer.open('e', "sv").string("info").open('v', "a{say}").open('a', "{say}");
    for (const auto& [key, value] : error.userInfo) writer.open('e', "say").string(key).bytes(value).close();
    writer.close().close().close();
}

}  // namespace tarnwell::bus
