#pragma once

#include <locale.h>

#include <memory>
#include <string>
#include <string_view>
#include <type_traits>

namespace tarnwell {

/// Paths by their names, in the order of a language; equal ones by their bytes. Any thread may use one.
class NameOrder {
public:
    /// What the environment says of the order of names: a locale such as "de_DE.UTF-8", "C" where it says nothing.
    static std::string localeOfSession();

    /// By bytes where there is no such locale.
    explicit NameOrder(const std::string& locale = localeOfSession());
    /// Component by component, so that what a folder holds stays together.
    bool operator()(std::string_view first, std::string_view second) const;

private:
    int compare(const std::string& a, const std::string& b) const;
    std::shared_ptr<std::remove_pointer_t<locale_t>> locale_;
};

}  // namespace tarnwell
