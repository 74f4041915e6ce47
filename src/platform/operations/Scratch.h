#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "platform/base/Result.h"
#include "platform/operations/OpenFolder.h"
#include "platform/store/Store.h"

namespace tarnwell::operations {

/// True for a name that a Scratch may have given.
bool isScratchName(std::string_view name);

/// A hidden name (".tarnwell-…") in a folder that is remembered in the store from before anything has it until nothing
/// has it any more, so that the next start can clean up after a process that was killed in between. A record that
/// outlives this object is for that start.
class Scratch {
public:
    /// `original` is the name of what is going to be put there.
    static Result<Scratch> reserve(store::Store& store, const OpenFolder& folder, store::TemporaryKind kind,
                                   std::string original = {});

    const std::string& name() const { return name_; }
    /// From now on the next start would do something else with it.
    Result<void> become(store::TemporaryKind kind);
    /// To be called once nothing has the name any more. A record that cannot be removed is harmless.
    void forget();

private:
    Scratch(store::Store& store, std::uint64_t number, std::string name)
        : store_(&store), number_(number), name_(std::move(name)) {}
    store::Store* store_;
    std::uint64_t number_;
    std::string name_;
};

}  // namespace tarnwell::operations
