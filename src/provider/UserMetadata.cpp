#include "provider/UserMetadata.h"

#include "hostframework/HostError.h"
#include "hostframework/TagCodec.h"
#include "items/ItemAttributes.h"
#include "platform/archive/KeyedArchive.h"
#include "platform/base/DateText.h"

namespace tarnwell::provider {

using hostframework::ItemCompletion;
using hostframework::ItemIdentifier;
using items::LocalItem;
using items::LogSection;
using items::quoted;

namespace {

/// The labels in their order; none for no data and for data that holds no tags.
archive::ArchivedArray labelsOf(const std::optional<Bytes>& tagData) {
    archive::ArchivedArray labels;
    auto tags = tagData ? hostframework::TagCodec::decode(*tagData) : std::nullopt;
    if (!tags) return labels;
    labels.reserve(tags->size());
    for (hostframework::Tag& tag : *tags) labels.push_back({std::move(tag.label)});
    return labels;
}

}  // namespace

void UserMetadata::setLastUsedDate(const std::optional<Date>& date, const ItemIdentifier& identifier,
                                   const ItemCompletion& completion) const {
    if (identifier.starts_with('#')) {
        return completion(failure(hostframework::invalidParameter("itemIdentifier", identifier)));
    }
    const LogSection section(log(),
                             date ? "set last used date " + quoted(iso8601(*date)) + " to item " + quoted(identifier)
                                  : "clearing last used date for item " + quoted(identifier));
    const auto url = lookup_.urlForIdentifier(identifier);
    if (!url) return completion(failure(url.error()));
    std::optional<Bytes> value;
    if (date) value = archive::archiveRoot({*date});
    if (const auto written = write(*url, LocalItem::xattrLastUsedDateName, value); !written) {
        log().error("can't set xattr " + LocalItem::xattrLastUsedDateName + " on " + url->path() + "; " +
                    describe(written.error()));
    }
    completion(lookup_.itemForIdentifier(identifier));
}

void UserMetadata::setTagData(const std::optional<Bytes>& tagData, const ItemIdentifier& identifier,
                              const ItemCompletion& completion) const {
    const LogSection section(log(), "set tag data to item " + quoted(identifier));
    const auto url = lookup_.urlIfFound(identifier);
    if (!url) return completion(failure(hostframework::noSuchItem(identifier)));
    if (const auto written = write(*url, LocalItem::xattrTagDataName, archive::archiveRoot({labelsOf(tagData)}));
        !written) {
        log().error("can't set xattr " + LocalItem::xattrTagDataName + "; " + describe(written.error()));
        return completion(failure(written.error()));
    }
    completion(lookup_.itemForIdentifier(identifier));
}

void UserMetadata::setFavoriteRank(const std::optional<std::uint64_t>& rank, const ItemIdentifier& identifier,
                                   const ItemCompletion& completion) const {
    const LogSection section(
        log(), "set favorite rank " + quoted(rank ? std::to_string(*rank) : "nil") + " to item " + quoted(identifier));
    const auto url = lookup_.urlForIdentifier(identifier);
    if (!url) return completion(failure(url.error()));
    std::optional<Bytes> value;
    if (rank) value = archive::archiveRoot({archive::Integer::fromUnsigned(*rank)});
    if (const auto written = write(*url, LocalItem::xattrFavoriteRankName, value); !written) {
        log().error("can't set xattr " + LocalItem::xattrFavoriteRankName + "; " + describe(written.error()));
        return completion(failure(written.error()));
    }
    completion(lookup_.itemForIdentifier(identifier));
}

Result<void> UserMetadata::write(const URL& url, const std::string& name, const std::optional<Bytes>& value) const {
    return context_.accessScopes.readWrite(url, [&](const Descriptor& descriptor) {
        return items::writeAttribute(context_.fs.items, descriptor, name, value);
    });
}

}  // namespace tarnwell::provider
