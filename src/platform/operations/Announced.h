#pragma once

#include <string>
#include <vector>

#include "platform/filesystem/OwnChanges.h"
#include "platform/operations/Context.h"

namespace tarnwell::operations {

/// Names that are about to be given or taken, said to whoever watches the disk. Taken back at its end, unless the
/// change was made.
class Announced {
public:
    explicit Announced(const Context& context) : changes_(context.ownChanges) {}
    ~Announced();
    Announced(const Announced&) = delete;
    Announced& operator=(const Announced&) = delete;

    void give(const filesystem::Status& folder, const std::string& name, const filesystem::Status& object);
    void take(const filesystem::Status& folder, const std::string& name, const filesystem::Status& object);
    /// The change was made. Hands it through.
    template <typename Done>
    Done madeIf(Done done) {
        if (done) names_.clear();
        return done;
    }

private:
    void add(filesystem::OwnChanges::Name name, filesystem::OwnChanges::Change change);

    filesystem::OwnChanges* const changes_;
    std::vector<filesystem::OwnChanges::Name> names_;
};

}  // namespace tarnwell::operations
