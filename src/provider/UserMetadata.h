#pragma once

#include <optional>
#include <string>

#include "hostframework/ProviderExtension.h"
#include "provider/ItemLookup.h"

namespace tarnwell::provider {

/// What a user says of an item, kept in extended attributes of its file. Each operation completes, once and on the
/// calling thread, with the item as it is read afterwards.
class UserMetadata {
public:
    explicit UserMetadata(const ProviderContext& context) : context_(context), lookup_(context) {}

    /// App libraries carry no such date. One that cannot be written is logged, and the item is given all the same.
    void setLastUsedDate(const std::optional<Date>& date, const hostframework::ItemIdentifier& identifier,
                         const hostframework::ItemCompletion& completion) const;
    /// Only the labels are kept. No tags, and what is no list of tags, are kept as an empty list.
    void setTagData(const std::optional<Bytes>& tagData, const hostframework::ItemIdentifier& identifier,
                    const hostframework::ItemCompletion& completion) const;
    void setFavoriteRank(const std::optional<std::uint64_t>& rank, const hostframework::ItemIdentifier& identifier,
                         const hostframework::ItemCompletion& completion) const;

private:
    /// Without a value the attribute is removed; one that is not there is removed already.
    Result<void> write(const URL& url, const std::string& name, const std::optional<Bytes>& value) const;
    items::ProgramLog& log() const { return context_.fs.items.log; }

    const ProviderContext context_;
    const ItemLookup lookup_;
};

}  // namespace tarnwell::provider
