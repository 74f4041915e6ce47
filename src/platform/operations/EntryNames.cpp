#include "platform/operations/EntryNames.h"

#include <algorithm>
#include <cerrno>

#include "platform/base/UTF8.h"

namespace tarnwell::operations {
namespace {

/// Longer ones are no extensions but part of a sentence.
constexpr std::size_t kLongestExtension = 32;
/// Numbers with more digits are dates and the like.
constexpr std::size_t kMostDigits = 6;

bool isDigit(char c) { return c >= '0' && c <= '9'; }

/// The length of the part before the extension's dot. A leading dot begins no extension.
std::size_t stemLength(std::string_view name) {
    const std::size_t dot = name.rfind('.');
    if (dot == std::string_view::npos || dot == 0 || dot + 1 == name.size()) return name.size();
    const std::string_view extension = name.substr(dot + 1);
    if (extension.size() > kLongestExtension || extension.find(' ') != std::string_view::npos) return name.size();
    return dot;
}

/// Cuts the text to at most that many bytes, not inside a character where it is UTF-8.
std::string_view shortened(std::string_view text, std::size_t most) {
    if (text.size() <= most) return text;
    std::size_t end = 0;
    while (end < text.size()) {
        const std::size_t length = std::max<std::size_t>(1, utf8CharacterLength(text.substr(end)));
        if (end + length > most) break;
        end += length;
    }
    return text.substr(0, end);
}

}  // namespace

Result<void> checkNewName(const std::string& name) {
    if (name.empty()) return failure(posixError(EINVAL, "a name cannot be empty"));
    if (name == "." || name == "..") return failure(posixError(EINVAL, "\"" + name + "\" cannot be a name"));
    if (name.find('/') != std::string::npos) return failure(posixError(EINVAL, "a name cannot contain a slash"));
    if (name.find('\0') != std::string::npos) return failure(posixError(EINVAL, "a name cannot contain a NUL byte"));
    if (name.size() > kLongestName) {
        return failure(posixError(ENAMETOOLONG, "the name has " + std::to_string(name.size()) +
                                                    " bytes; a name can have at most " + std::to_string(kLongestName)));
    }
    return {};
}

FreeNames::FreeNames(std::string_view name) {
    const std::size_t length = stemLength(name);
    stem_ = name.substr(0, length);
    extension_ = name.substr(length);
    std::size_t digits = 0;
    while (digits < stem_.size() && isDigit(stem_[stem_.size() - 1 - digits])) ++digits;
    if (digits == 0 || digits > kMostDigits || digits + 1 >= stem_.size()) return;
    const std::size_t begin = stem_.size() - digits;
    if (stem_[begin - 1] != ' ' || stem_[begin] == '0') return;
    const std::uint64_t number = std::stoull(stem_.substr(begin));
    if (number < 2) return;
    number_ = number + 1;
    stem_.resize(begin - 1);
}

std::optional<std::string> FreeNames::next() {
    if (tries_ == kMostTries) return std::nullopt;
    ++tries_;
    const std::string tail = " " + std::to_string(number_++) + extension_;
    return std::string(shortened(stem_, kLongestName - tail.size())) + tail;
}

}  // namespace tarnwell::operations
