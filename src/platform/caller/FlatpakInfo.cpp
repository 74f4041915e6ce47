#include "platform/caller/FlatpakInfo.h"

#include <cerrno>

#include "platform/registry/KeyFile.h"

namespace tarnwell::caller {
namespace {

constexpr std::size_t kMaxIDBytes = 255;
constexpr int kFewestParts = 3;

bool isDigit(char c) { return c >= '0' && c <= '9'; }
bool isLetter(char c) { return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z'); }

bool isPart(std::string_view part, bool isLast) {
    if (part.empty() || isDigit(part.front())) return false;
    for (const char c : part) {
        if (!isLetter(c) && !isDigit(c) && c != '_' && !(isLast && c == '-')) return false;
    }
    return true;
}

}  // namespace

bool isFlatpakID(std::string_view text) {
    if (text.size() > kMaxIDBytes) return false;
    for (int parts = 1;; ++parts) {
        const std::size_t dot = text.find('.');
        const bool isLast = dot == std::string_view::npos;
        if (!isPart(text.substr(0, dot), isLast)) return false;
        if (isLast) return parts >= kFewestParts;
        text.remove_prefix(dot + 1);
    }
}

Result<std::string> applicationOfFlatpakInfo(std::string_view content) {
    // A 0 would end a value early for the reader of key files.
    if (content.contains('\0')) return failure(posixError(EBADMSG, "not a key file"));
    const auto file = registry::KeyFile::parse(content);
    if (!file) return failure(file.error());
    if (file->hasGroup("Runtime")) return failure(posixError(EBADMSG, "it is of a runtime without an application"));
    auto identifier = file->text("Application", "name");
    if (!identifier) return failure(posixError(EBADMSG, "it names no application"));
    if (!isFlatpakID(*identifier)) return failure(posixError(EBADMSG, "its application has an ID that none can have"));
    return std::move(*identifier);
}

}  // namespace tarnwell::caller
