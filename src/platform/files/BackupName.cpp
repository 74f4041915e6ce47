#include "platform/files/BackupName.h"

#include <algorithm>
#include <array>

namespace tarnwell::files {

namespace {

constexpr std::array<std::string_view, 7> kSuffixes = {"~", ".bak", ".BAK", ".backup", ".old", ".orig", ".sav"};

bool isNumberedSuffix(std::string_view suffix) {
    return suffix.size() > 3 && suffix.starts_with(".~") && suffix.ends_with("~") &&
           std::all_of(suffix.begin() + 2, suffix.end() - 1, [](char c) { return c >= '0' && c <= '9'; });
}

}  // namespace

bool isBackupName(std::string_view original, std::string_view aside) {
    if (aside.starts_with(original)) {
        std::string_view suffix = aside.substr(original.size());
        return std::find(kSuffixes.begin(), kSuffixes.end(), suffix) != kSuffixes.end() || isNumberedSuffix(suffix);
    }
    if (aside.size() == original.size() + 2 && aside.front() == '#' && aside.back() == '#') {
        return aside.substr(1, original.size()) == original;
    }
    // "report.bak" beside "report.txt".
    std::size_t dot = original.rfind('.');
    return dot != std::string_view::npos && dot > 0 && aside.starts_with(original.substr(0, dot)) &&
           (aside.substr(dot) == ".bak" || aside.substr(dot) == ".BAK");
}

}  // namespace tarnwell::files
