#include "host/LibraryIcons.h"

#include <cerrno>

#include "hostframework/HostError.h"

namespace tarnwell::host {

using session::ItemIdentifier;

Result<Bytes> LibraryIcons::icon(const ItemIdentifier& library, unsigned side) const {
    if (side > icons::kMaxPictureSide) {
        return failure(
            posixError(EINVAL, "a picture has at most " + std::to_string(icons::kMaxPictureSide) + " pixels a side"));
    }
    if (const auto item = context_.provider().itemForIdentifier(library); !item) {
        return failure(hostframework::noSuchItem(library));
    }
    if (!library.starts_with('#')) return failure(posixError(EINVAL, "only app libraries have one"));
    auto png = side == 0 ? forDevice(library) : inSize(library, side);
    if (!png) return failure(posixError(ENODATA, "its icon cannot be drawn"));
    return std::move(*png);
}

std::optional<Bytes> LibraryIcons::forDevice(const ItemIdentifier& library) const {
    std::optional<Bytes> png;
    context_.provider().fetchThumbnailsForItemIdentifiers(
        {library}, {},
        [&](const ItemIdentifier&, const std::optional<Bytes>& data, const std::optional<std::string>&,
            const std::optional<Error>&) { png = data; },
        [](const std::optional<Error>&) {});
    return png;
}

/// The provider knows the device's sizes only; any other is drawn here from the icon as it is.
std::optional<Bytes> LibraryIcons::inSize(const ItemIdentifier& library, unsigned side) const {
    std::optional<Bytes> icon;
    context_.provider().fetchThumbnailsForItemIdentifiers(
        {library}, {double(side), double(side)},
        [&](const ItemIdentifier&, const std::optional<Bytes>& data, const std::optional<Error>&) { icon = data; },
        [](const std::optional<Error>&) {});
    const auto format = icon ? icons::formatOf(*icon) : std::nullopt;
    if (!format) return std::nullopt;
    auto image = context_.icons().createImage({std::move(*icon), *format, side, library});
    if (!image) return std::nullopt;
    return std::move(image->png);
}

}  // namespace tarnwell::host
