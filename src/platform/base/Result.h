#pragma once

#include <cstdint>
#include <expected>
#include <map>
#include <string>
#include <string_view>
#include <utility>

namespace tarnwell {

/// Who defines an error's code.
enum class ErrorDomain : std::uint8_t {
    posix,        ///< code is this kernel's errno
    generalFile,  ///< 260 no such file on read, 513 write not permitted, 516 file exists
    host,         ///< the host framework's codes (hostframework/HostError.h)
    provider,     ///< TarnwellError (items/TarnwellError.h)
    deviceUUID,   ///< the volume's UUID cannot be had (items/TarnwellError.h)
    unarchive,    ///< an archive does not hold what was asked for (archive/KeyedArchive.h)
    store,        ///< the store cannot be used (store/Store.h)
};

/// The name of a domain as messages show it, such as "POSIX".
std::string_view nameOf(ErrorDomain domain);

/// One failure: who says so, which, and what a person may want to know beside it.
struct Error {
    ErrorDomain domain = ErrorDomain::posix;
    std::int64_t code = 0;
    /// Further facts by name; kErrorMessage and kErrorPath are the common ones. Empty for "no user info".
    std::map<std::string, std::string> userInfo;

    bool is(ErrorDomain otherDomain, std::int64_t otherCode) const {
        return domain == otherDomain && code == otherCode;
    }
    friend bool operator==(const Error&, const Error&) = default;
};

inline constexpr const char* kErrorMessage = "message";
inline constexpr const char* kErrorPath = "path";

inline constexpr std::int64_t kNoSuchFileOnRead = 260;
inline constexpr std::int64_t kWriteNotPermitted = 513;
inline constexpr std::int64_t kFileExists = 516;

/// One line for logs and people: "POSIX ENOENT (No such file or directory)", then the message of the user info.
std::string describe(const Error& error);

/// The symbolic name of an errno, such as "ENOENT"; "errno 4242" for one without a name.
std::string errnoName(int code);

/// An error of the POSIX domain with that errno and no user info.
Error posixError(int code);

/// The same with a sentence for people.
Error posixError(int code, std::string message);

template <typename T>
using Result = std::expected<T, Error>;

/// A failed result.
inline std::unexpected<Error> failure(Error error) { return std::unexpected<Error>(std::move(error)); }

/// Stops the process with a message on standard error: for our own bugs only, never for input or the world.
[[noreturn]] void fatal(std::string_view message);

}  // namespace tarnwell

/// Always-on check of an invariant of ours.
#define TARNWELL_CHECK(condition)                           \
    do {                                                    \
        if (!(condition)) [[unlikely]]                      \
            ::tarnwell::fatal("check failed: " #condition); \
    } while (false)
