#include "platform/url/URL.h"

#include <algorithm>
#include <array>
#include <cstdint>
#include <optional>

namespace tarnwell {
namespace {

/// True when the path is kept as it stands: absolute, no empty and no "." component, no trailing slash.
bool isNormal(std::string_view path) {
    if (path.empty() || path.front() != '/') return false;
    if (path.size() == 1) return true;
    for (std::size_t slash = 0; slash != std::string_view::npos; slash = path.find('/', slash + 1)) {
        const std::string_view rest = path.substr(slash + 1);
        if (rest.empty() || rest[0] == '/') return false;
        if (rest[0] == '.' && (rest.size() == 1 || rest[1] == '/')) return false;
    }
    return true;
}

template <typename Body>
void forEachComponent(std::string_view path, Body&& body) {
    std::size_t begin = 0;
    while (begin < path.size()) {
        const std::size_t end = std::min(path.find('/', begin), path.size());
        if (end > begin) body(path.substr(begin, end - begin));
        begin = end + 1;
    }
}

std::string normalized(std::string_view path) {
    std::string result;
    result.reserve(path.size() + 1);
    forEachComponent(path, [&](std::string_view component) {
        if (component == ".") return;
        result += '/';
        result += component;
    });
    if (result.empty()) result = "/";
    return result;
}

std::optional<unsigned> hexadecimal(char c) {
    if (c >= '0' && c <= '9') return static_cast<unsigned>(c - '0');
    if (c >= 'a' && c <= 'f') return static_cast<unsigned>(c - 'a' + 10);
    if (c >= 'A' && c <= 'F') return static_cast<unsigned>(c - 'A' + 10);
    return std::nullopt;
}

/// A "%" that two hexadecimal digits do not follow stands for itself.
std::string percentDecoded(std::string_view text) {
    std::string result;
    result.reserve(text.size());
    for (std::size_t i = 0; i < text.size(); ++i) {
        if (text[i] == '%' && i + 2 < text.size()) {
            const auto high = hexadecimal(text[i + 1]);
            const auto low = hexadecimal(text[i + 2]);
            if (high && low) {
                result += static_cast<char>(*high * 16 + *low);
                i += 2;
                continue;
            }
        }
        result += text[i];
    }
    return result;
}

bool isPlainInText(char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '-' || c == '.' ||
           c == '_' || c == '~' || c == '/';
}

bool equalsIgnoringCase(std::string_view text, std::string_view lowerCase) {
    return std::ranges::equal(text, lowerCase, [](char a, char b) {
        return (a >= 'A' && a <= 'Z' ? static_cast<char>(a - 'A' + 'a') : a) == b;
    });
}

/// The encoded path of a text that names a file of this machine; nothing for any other text.
std::optional<std::string_view> encodedFilePath(std::string_view text) {
    constexpr std::string_view kScheme = "file:";
    if (text.size() <= kScheme.size() || !equalsIgnoringCase(text.substr(0, kScheme.size()), kScheme)) {
        return std::nullopt;
    }
    std::string_view rest = text.substr(kScheme.size());
    rest = rest.substr(0, rest.find_first_of("?#"));
    if (rest.starts_with("//")) {
        rest.remove_prefix(2);
        const std::size_t slash = std::min(rest.find('/'), rest.size());
        const std::string_view host = rest.substr(0, slash);
        if (!host.empty() && !equalsIgnoringCase(host, "localhost")) return std::nullopt;
        rest.remove_prefix(slash);
        return rest;
    }
    if (!rest.starts_with('/')) return std::nullopt;
    return rest;
}

std::string_view withoutTrailingSlashes(std::string_view path) {
    while (path.size() > 1 && path.back() == '/') path.remove_suffix(1);
    return path;
}

}  // namespace

URL::URL(bool isFile, std::string path, std::shared_ptr<ResourceCache> given)
    : shared_(std::make_shared<const Shared>(isFile, std::move(path), std::move(given))) {}

URL URL::file(std::string_view path) { return URL(true, isNormal(path) ? std::string(path) : normalized(path)); }

URL URL::parse(std::string_view text) {
    const auto encoded = encodedFilePath(text);
    if (!encoded) return URL(false, std::string(text));
    if (encoded->find('%') == std::string_view::npos) return file(*encoded);
    return file(percentDecoded(*encoded));
}

std::string_view URL::lastPathComponent() const {
    const std::string_view whole = withoutTrailingSlashes(path());
    if (whole == "/") return whole;
    const std::size_t slash = whole.rfind('/');
    return slash == std::string_view::npos ? whole : whole.substr(slash + 1);
}

std::vector<std::string> URL::pathComponents() const {
    std::vector<std::string> components;
    if (!isFileURL()) return components;
    components.reserve(static_cast<std::size_t>(std::ranges::count(path(), '/')) + 1);
    components.emplace_back("/");
    forEachComponent(path(), [&](std::string_view component) { components.emplace_back(component); });
    return components;
}

URL URL::appending(std::string_view component) const {
    std::string joined;
    joined.reserve(path().size() + 1 + component.size());
    joined = path();
    if (joined.empty() || joined.back() != '/') joined += '/';
    joined += component;
    if (!isFileURL()) return URL(false, std::move(joined));
    // One plain name, as every walk appends it, keeps a normal path normal.
    const bool plainName = !component.empty() && component != "." && component.find('/') == std::string_view::npos;
    return URL(true, plainName ? std::move(joined) : normalized(joined));
}

URL URL::deletingLastPathComponent() const {
    const std::size_t slash = path().rfind('/');
    if (!isFileURL() || slash == std::string::npos) return URL(isFileURL(), path());
    auto parent = cache().parent();
    if (const ResourceSnapshot* snapshot = cache().snapshot(); !parent && snapshot != nullptr && snapshot->folder) {
        parent = std::make_shared<ResourceCache>();
        parent->setFileID(*snapshot->folder);
        parent->setIsFolder(true);
    }
    return URL(true, path().substr(0, std::max<std::size_t>(slash, 1)), std::move(parent));
}

std::string URL::text() const {
    if (!isFileURL()) return path();
    static constexpr std::string_view kDigits = "0123456789ABCDEF";
    std::string result = "file://";
    result.reserve(result.size() + path().size() + path().size() / 4);
    for (const char c : path()) {
        if (isPlainInText(c)) {
            result += c;
            continue;
        }
        const auto byte = static_cast<std::uint8_t>(c);
        result += '%';
        result += kDigits[byte >> 4];
        result += kDigits[byte & 15];
    }
    return result;
}

Relationship relationship(std::string_view directoryPath, std::string_view itemPath) {
    const std::string_view directory = withoutTrailingSlashes(directoryPath);
    const std::string_view item = withoutTrailingSlashes(itemPath);
    if (directory == item) return Relationship::same;
    if (directory.empty() || !item.starts_with(directory)) return Relationship::other;
    if (directory == "/" || item[directory.size()] == '/') return Relationship::contains;
    return Relationship::other;
}

}  // namespace tarnwell
