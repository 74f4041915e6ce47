#include "platform/registry/BundleIdentifier.h"

#include <algorithm>

#include "platform/base/UTF8.h"
#include "platform/log/LineText.h"

namespace tarnwell::registry {
namespace {

constexpr std::string_view kSnapPrefix = "snap.";

bool isLowerOrDigit(char c) { return (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9'); }

}  // namespace

bool isUsableIdentifier(std::string_view identifier) {
    if (identifier.empty() || identifier.size() > kMaxIdentifierBytes) return false;
    // "(null)" is how an application without an identifier shows.
    if (identifier == "." || identifier == "(null)") return false;
    if (identifier.find_first_of("/=") != std::string_view::npos) return false;
    if (identifier.find("..") != std::string_view::npos) return false;
    return isUTF8(identifier) && log::asOneLine(identifier) == identifier;
}

bool isSnapInstanceName(std::string_view name) {
    const std::size_t underscore = name.find('_');
    const std::string_view snap = name.substr(0, underscore);
    if (snap.empty() || name.size() > kMaxIdentifierBytes - kSnapPrefix.size()) return false;
    if (!std::ranges::all_of(snap, [](char c) { return isLowerOrDigit(c) || c == '-'; })) return false;
    if (underscore == std::string_view::npos) return true;
    const std::string_view key = name.substr(underscore + 1);
    return !key.empty() && std::ranges::all_of(key, isLowerOrDigit);
}

std::string snapIdentifier(std::string_view instanceName) { return std::string(kSnapPrefix).append(instanceName); }

std::optional<std::string> snapInstanceOf(std::string_view identifier) {
    if (!identifier.starts_with(kSnapPrefix)) return std::nullopt;
    const std::string_view name = identifier.substr(kSnapPrefix.size());
    if (!isSnapInstanceName(name)) return std::nullopt;
    return std::string(name);
}

}  // namespace tarnwell::registry
