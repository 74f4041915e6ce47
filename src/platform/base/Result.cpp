#include "platform/base/Result.h"

#include <cstdlib>
#include <cstring>
#include <limits>
#include <utility>

#include <unistd.h>

namespace tarnwell {
namespace {

struct DomainName {
    ErrorDomain domain;
    std::string_view name;
};

constexpr DomainName kDomainNames[] = {
    {ErrorDomain::posix, "POSIX"},
    {ErrorDomain::generalFile, "general file error"},
    {ErrorDomain::host, "host error"},
    {ErrorDomain::provider, "provider error"},
    {ErrorDomain::deviceUUID, "device UUID error"},
    {ErrorDomain::unarchive, "unarchive error"},
    {ErrorDomain::store, "store error"},
};

struct CodeText {
    ErrorDomain domain;
    std::int64_t code;
    std::string_view text;
};

// The layers above own these codes; only their wording for people lives here, so that any layer can log any error.
constexpr CodeText kCodeTexts[] = {
    {ErrorDomain::generalFile, kNoSuchFileOnRead, "no such file"},
    {ErrorDomain::generalFile, kWriteNotPermitted, "write not permitted"},
    {ErrorDomain::generalFile, kFileExists, "file exists"},
    {ErrorDomain::host, -1001, "filename collision"},
    {ErrorDomain::host, -1002, "sync anchor expired"},
    {ErrorDomain::host, -1005, "no such item"},
    {ErrorDomain::host, -1100, "invalid parameter"},
    {ErrorDomain::provider, 0, "invalidItemIdentifier"},
    {ErrorDomain::provider, 1, "invalidItemURL"},
    {ErrorDomain::provider, 2, "itemNotFound"},
    {ErrorDomain::deviceUUID, 0, "unableToGetDeviceUUID"},
    {ErrorDomain::unarchive, 0, "invalidResultingClass"},
    {ErrorDomain::unarchive, 1, "damaged archive"},
};

/// The kernel's text of an errno, or nothing for a number that is none.
const char* errnoText(std::int64_t code) {
    if (code <= 0 || code > std::numeric_limits<int>::max()) return nullptr;
    return strerrordesc_np(static_cast<int>(code));
}

std::string codeOf(const Error& error) {
    if (error.domain != ErrorDomain::posix) return std::to_string(error.code);
    return errnoText(error.code) ? errnoName(static_cast<int>(error.code)) : "errno " + std::to_string(error.code);
}

std::string_view textOfCode(const Error& error) {
    if (error.domain == ErrorDomain::posix) {
        const char* text = errnoText(error.code);
        return text ? std::string_view(text) : std::string_view();
    }
    for (const CodeText& row : kCodeTexts)
        if (error.is(row.domain, row.code)) return row.text;
    return {};
}

}  // namespace

std::string_view nameOf(ErrorDomain domain) {
    for (const DomainName& row : kDomainNames)
        if (row.domain == domain) return row.name;
    fatal("error domain without a name");
}

std::string describe(const Error& error) {
    std::string line = std::string(nameOf(error.domain)) + " " + codeOf(error);
    if (std::string_view text = textOfCode(error); !text.empty()) line += " (" + std::string(text) + ")";
    auto message = error.userInfo.find(kErrorMessage);
    if (message != error.userInfo.end() && !message->second.empty()) line += ": " + message->second;
    return line;
}

std::string errnoName(int code) {
    const char* name = code > 0 ? strerrorname_np(code) : nullptr;
    return name ? name : "errno " + std::to_string(code);
}

Error posixError(int code) { return {ErrorDomain::posix, code, {}}; }

Error posixError(int code, std::string message) {
    return {ErrorDomain::posix, code, {{kErrorMessage, std::move(message)}}};
}

void fatal(std::string_view message) {
    // One write, so that lines of other threads do not cut it apart.
    std::string line = "tarnwell: " + std::string(message) + "\n";
    [[maybe_unused]] ssize_t written = ::write(STDERR_FILENO, line.data(), line.size());
    std::abort();
}

}  // namespace tarnwell
