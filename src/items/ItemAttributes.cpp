#include "items/ItemAttributes.h"

#include <cerrno>
#include <utility>

namespace tarnwell::items {

namespace {

ProgramLog::Expectation expectedIf(const Error& error, int code) {
    return error.is(ErrorDomain::posix, code) ? ProgramLog::Expectation::expected : ProgramLog::Expectation::unexpected;
}

template <typename T>
std::optional<T> orLogged(ProgramLog& log, ByteView bytes, Result<T> value) {
    if (value) return std::move(*value);
    log.error("got " + describe(value.error()) + " while unarchiving object from " + std::to_string(bytes.size()) +
              " bytes");
    return std::nullopt;
}

}  // namespace

std::optional<Bytes> valueOfAttribute(const Environment& environment, const std::string& name, const URL& url) {
    auto size = environment.files.getAttribute(url, name, {});
    if (!size) {
        if (size.error().is(ErrorDomain::posix, ENODATA)) return std::nullopt;
        environment.log.byExpectation(expectedIf(size.error(), ENOENT),
                                      [&] { return "can't get xattr " + name + "; " + describe(size.error()); });
        return std::nullopt;
    }
    // The length stays the one that was asked for first: should the value shrink in between, the rest is zeros, and
    // such bytes do not decode; should it grow, the second call fails.
    Bytes value(*size);
    auto copied = environment.files.getAttribute(url, name, value);
    if (!copied) {
        environment.log.byExpectation(expectedIf(copied.error(), ENOENT), [&] {
            return "can't copy data for xattr " + name + "; " + describe(copied.error());
        });
        return std::nullopt;
    }
    return value;
}

Result<void> writeAttribute(const Environment& environment, const Descriptor& descriptor, const std::string& name,
                            const std::optional<Bytes>& value) {
    auto done = value ? environment.files.setAttribute(descriptor, name, *value)
                      : environment.files.removeAttribute(descriptor, name);
    if (done) return {};
    if (!value && done.error().is(ErrorDomain::posix, ENODATA)) return {};
    environment.log.byExpectation(expectedIf(done.error(), EACCES), [&] {
        return std::string(value ? "can't set xattr " : "can't remove xattr ") + quoted(name) + "; " +
               describe(done.error());
    });
    return done;
}

std::optional<Date> decodeDate(ProgramLog& log, ByteView bytes) {
    return orLogged(log, bytes, archive::unarchiveDate(bytes));
}

std::optional<archive::Number> decodeNumber(ProgramLog& log, ByteView bytes) {
    return orLogged(log, bytes, archive::unarchiveNumber(bytes));
}

std::optional<std::string> decodeString(ProgramLog& log, ByteView bytes) {
    return orLogged(log, bytes, archive::unarchiveString(bytes));
}

std::optional<std::vector<std::string>> decodeStrings(ProgramLog& log, ByteView bytes) {
    return orLogged(log, bytes, archive::unarchiveStrings(bytes));
}

}  // namespace tarnwell::items
