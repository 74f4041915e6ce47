#pragma once

#include <cstddef>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "items/ProgramLog.h"
#include "platform/url/URL.h"

namespace tarnwell::applibraries {

/// The names that the app libraries had when they were last looked at, kept in a file beside the caches. A name makes
/// no other list, so that without this nobody could tell whoever was away when an application got another one.
///
/// Names are of a language: programs that run in different ones take turns without finding anything renamed. One
/// thread at a time.
class LibraryNames {
public:
    /// By the library's identifier.
    using Names = std::map<std::string, std::string>;
    /// Names are kept in so many languages; of more, those that were noted last.
    static constexpr std::size_t kMostLanguages = 8;

    /// Touches no file.
    LibraryNames(items::ProgramLog& log, URL fileURL);

    /// True when a library that both know has another name in the one than in the other.
    static bool differ(const Names& a, const Names& b);

    /// True when a library has another name now than it was noted with in these languages.
    bool areOthers(const std::string& languages, const Names& now);
    /// Writes the file if it says anything else. A failure is logged, and the names stay to be noted.
    void note(const std::string& languages, const Names& now);

private:
    using ByLanguage = std::pair<std::string, Names>;
    /// The latest first; what was read of the file at first, nothing where it is none.
    std::vector<ByLanguage>& noted();

    items::ProgramLog& log_;
    const URL fileURL_;
    bool isRead_ = false;
    std::vector<ByLanguage> noted_;
};

}  // namespace tarnwell::applibraries
