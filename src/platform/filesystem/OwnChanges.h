#pragma once

#include <chrono>
#include <compare>
#include <cstddef>
#include <cstdint>
#include <map>
#include <mutex>
#include <string>

#include "platform/filesystem/Beneath.h"

namespace tarnwell::filesystem {

/// The names that this program itself gave to objects and took from them, until somebody finds the change on disk. From
/// the disk alone, a document that was moved to a name a moment after another one left it looks like a new version of
/// that one, as editors save; where a person moved or removed the two, it is not.
///
/// A change is noted before it is made, since it may be found right away, and forgotten if it fails. What nobody finds
/// within kKept is forgotten too. Any thread.
class OwnChanges {
public:
    enum class Change { given, taken };
    /// A name in a folder, and what has or had it. Inode numbers and birth times say enough: at worst, two changes on
    /// two file systems are taken for one.
    struct Name {
        std::uint64_t folder = 0;  ///< inode number
        std::string name;
        std::uint64_t inode = 0;
        std::int64_t birth = 0;
        friend auto operator<=>(const Name&, const Name&) = default;
    };
    static constexpr std::chrono::minutes kKept{10};
    static constexpr std::size_t kMostKept = 100'000;

    void note(Name name, Change change);
    void forget(const Name& name);
    bool wasTaken(const Name& name) const;
    /// What was noted of the name, if that is `change`; what was noted is forgotten.
    bool found(const Name& name, Change change);

private:
    struct Noted {
        Change change;
        std::chrono::steady_clock::time_point when;
    };
    mutable std::mutex mutex_;
    std::map<Name, Noted> noted_;
};

}  // namespace tarnwell::filesystem
