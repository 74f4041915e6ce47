#pragma once

#include <string>
#include <utility>
#include <vector>

#include "platform/base/Descriptor.h"

namespace tarnwell::deep {

/// Tells of the looks that this process takes at places and, for folders, at what lies in them: what was opened, read,
/// written, or had its attributes changed. What others do there (a backup, a person's search through the temporary
/// folder) does not count, as far as the kernel says who it was. A status or attribute that is only asked for, and an
/// O_PATH handle, leave no trace: what those show has to be told by its values.
class LookWatch {
public:
    /// The places have to be there; each is watched itself, its folders below are not.
    explicit LookWatch(const std::vector<std::string>& places);

    /// False where the kernel keeps back who looked (it is older than 5.13, or a container forbids the call): then
    /// everybody's looks count.
    bool knowsWhose() const { return knowsWhose_; }

    /// The looks since the last call, each in words: "opened and read secret.txt", "." for a place itself. Looks that
    /// the kernel had no room to keep count as one.
    std::vector<std::string> looks();

private:
    bool watchOwn(const std::vector<std::string>& places);
    void watchEverybody(const std::vector<std::string>& places);

    bool knowsWhose_ = false;
    Descriptor events_;
    std::vector<std::pair<int, std::string>> watches_;  ///< places by the number of their watch, of everybody's looks
};

}  // namespace tarnwell::deep
