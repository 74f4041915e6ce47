#include "items/ResourceReaders.h"

#include <utility>

namespace tarnwell::items {

namespace {

std::optional<files::ResourceValue> read(const Environment& environment, const URL& url, files::ResourceKey key) {
    auto value = environment.files.resourceValue(url, key);
    if (value) return std::move(*value);
    environment.log.error("can't get resource " + quoted(files::nameOf(key)) + " for " + url.text() + "; " +
                          describe(value.error()));
    return std::nullopt;
}

template <typename T>
std::optional<T> readAs(const Environment& environment, const URL& url, files::ResourceKey key) {
    auto value = read(environment, url, key);
    if (!value) return std::nullopt;
    T* typed = std::get_if<T>(&*value);
    if (typed == nullptr) return std::nullopt;
    return std::move(*typed);
}

}  // namespace

std::optional<std::string> stringResource(const Environment& environment, const URL& url, files::ResourceKey key) {
    return readAs<std::string>(environment, url, key);
}

std::optional<std::uint64_t> numberResource(const Environment& environment, const URL& url, files::ResourceKey key) {
    return readAs<std::uint64_t>(environment, url, key);
}

std::optional<Date> dateResource(const Environment& environment, const URL& url, files::ResourceKey key) {
    return readAs<Date>(environment, url, key);
}

std::optional<bool> boolResource(const Environment& environment, const URL& url, files::ResourceKey key) {
    return readAs<bool>(environment, url, key);
}

std::optional<Bytes> bytesResource(const Environment& environment, const URL& url, files::ResourceKey key) {
    // No key has bytes for its value, so whatever is read is of another type; the read still happens and reports
    // failure.
    read(environment, url, key);
    return std::nullopt;
}

}  // namespace tarnwell::items
