#include "platform/caller/ProcText.h"

#include <charconv>

namespace tarnwell::caller {
namespace {

/// Takes what stands before the separator, and the separator, from the text; all of it where there is none.
std::string_view takeUntil(std::string_view& text, char separator) {
    const std::size_t end = text.find(separator);
    const std::string_view taken = text.substr(0, end);
    text.remove_prefix(end == std::string_view::npos ? text.size() : end + 1);
    return taken;
}

template <typename Number>
std::optional<Number> numberIn(std::string_view text) {
    Number number{};
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    if (error != std::errc() || end != text.data() + text.size()) return std::nullopt;
    return number;
}

/// What stands behind "name:" and a tabulator in the line that begins so.
std::optional<std::string_view> valueOf(std::string_view text, std::string_view name) {
    while (!text.empty()) {
        std::string_view line = takeUntil(text, '\n');
        if (!line.starts_with(name)) continue;
        line.remove_prefix(name.size());
        if (line.starts_with(":\t")) return line.substr(2);
    }
    return std::nullopt;
}

}  // namespace

std::optional<std::array<uid_t, 4>> usersOf(std::string_view status) {
    auto value = valueOf(status, "Uid");
    if (!value) return std::nullopt;
    std::array<uid_t, 4> users{};
    for (uid_t& user : users) {
        const auto number = numberIn<uid_t>(takeUntil(*value, '\t'));
        if (!number) return std::nullopt;
        user = *number;
    }
    if (!value->empty()) return std::nullopt;
    return users;
}

std::optional<std::string> fileSystemOf(std::string_view mountinfo, std::uint64_t mount) {
    constexpr int kFieldsBeforeOptional = 5;
    while (!mountinfo.empty()) {
        std::string_view line = takeUntil(mountinfo, '\n');
        if (numberIn<std::uint64_t>(takeUntil(line, ' ')) != mount) continue;
        // Any number of optional fields ends with a hyphen; a path before them may be one, too.
        for (int field = 0; field < kFieldsBeforeOptional; ++field) takeUntil(line, ' ');
        while (!line.empty() && takeUntil(line, ' ') != "-") continue;
        const std::string_view type = takeUntil(line, ' ');
        if (type.empty()) return std::nullopt;
        return std::string(type);
    }
    return std::nullopt;
}

std::optional<pid_t> processOfDescriptor(std::string_view fdinfo) {
    const auto value = valueOf(fdinfo, "Pid");
    return value ? numberIn<pid_t>(*value) : std::nullopt;
}

}  // namespace tarnwell::caller
