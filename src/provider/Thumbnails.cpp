#include "provider/Thumbnails.h"

#include "applibraries/ListText.h"

namespace tarnwell::provider {

using hostframework::Completion;
using hostframework::ItemIdentifier;
using hostframework::Progress;
using hostframework::ProgressPtr;
using icons::IconData;
using items::LogSection;

namespace {

Error noIcon(const std::string& reason) {
    return {ErrorDomain::generalFile, kNoSuchFileOnRead, {{kErrorMessage, reason}}};
}

}  // namespace

ProgressPtr Thumbnails::fetch(const std::vector<ItemIdentifier>& identifiers,
                              const hostframework::ThumbnailCompletion& perThumbnail,
                              const Completion& completion) const {
    return fetchEach(
        identifiers,
        [&](const ItemIdentifier& identifier) {
            const auto icon = iconOf(identifier);
            if (!icon) return perThumbnail(identifier, std::nullopt, std::nullopt);
            log().debug(identifier + ": returning " + std::to_string(icon->bytes.size()) + " bytes");
            perThumbnail(identifier, icon->bytes, std::nullopt);
        },
        completion);
}

ProgressPtr Thumbnails::fetch(const std::vector<ItemIdentifier>& identifiers,
                              const hostframework::TypedThumbnailCompletion& perThumbnail,
                              const Completion& completion) const {
    return fetchEach(
        identifiers,
        [&](const ItemIdentifier& identifier) {
            const auto icon = iconOf(identifier);
            const auto png = icon ? render(identifier, *icon) : std::nullopt;
            if (!png) return perThumbnail(identifier, std::nullopt, std::nullopt, std::nullopt);
            log().debug(identifier + ": returning " + std::to_string(png->size()) + " bytes");
            perThumbnail(identifier, png, std::string(icons::kPngType), std::nullopt);
        },
        completion);
}

ProgressPtr Thumbnails::fetchEach(const std::vector<ItemIdentifier>& identifiers, const FetchOne& fetchOne,
                                  const Completion& completion) const {
    const LogSection section(log(), "fetching thumbnails for " + applibraries::listText(identifiers));
    auto progress = std::make_shared<Progress>(std::ssize(identifiers));
    for (const ItemIdentifier& identifier : identifiers) {
        fetchOne(identifier);
        progress->completeUnit();
    }
    completion(std::nullopt);
    return progress;
}

std::optional<IconData> Thumbnails::iconOf(const ItemIdentifier& identifier) const {
    if (!identifier.starts_with('#')) return std::nullopt;
    const std::string bundleIdentifier = identifier.substr(1);
    const auto record = context_.appLibraries.services().registry.recordForBundleIdentifier(bundleIdentifier);
    if (!record) {
        log().debug(identifier + ": can't get app proxy for " + bundleIdentifier);
        return std::nullopt;
    }
    auto icon = bestIconData(*record);
    if (icon) return std::move(*icon);
    log().error(identifier + ": can't get primary icon data; " + describe(icon.error()));
    return std::nullopt;
}

std::optional<Bytes> Thumbnails::render(const ItemIdentifier& identifier, const IconData& icon) const {
    const auto image = context_.icons.createImage(icon);
    if (!image) {
        log().error(identifier + ": can't create icon from cached bitmap");
        return std::nullopt;
    }
    const auto data = context_.icons.createData();
    if (!data) {
        log().error(identifier + ": can't create new data");
        return std::nullopt;
    }
    const auto destination = context_.icons.createDestination(*data, icons::kPngType, 1);
    if (!destination) {
        log().error(identifier + ": can't create image from new data");
        return std::nullopt;
    }
    destination->addImage(*image);
    if (!destination->finalize()) {
        log().error(identifier + ": can't finalize image");
        return std::nullopt;
    }
    return std::move(*data);
}

int Thumbnails::variantFor(double scale) const {
    const bool isTablet = context_.device.isTablet();
    if (scale == 3.0) return 32;
    if (scale == 2.0) return isTablet ? 24 : 15;
    return isTablet ? 1 : 0;
}

Result<IconData> Thumbnails::bestIconData(const registry::BundleRecord& record) const {
    double scale = context_.device.mainScreenScale();
    if (scale < 1.0) return failure(noIcon("the screen's scale is below 1"));
    do {
        if (auto icon = record.iconData(variantFor(scale))) return icon;
        if (scale > 1.0) scale -= 1.0;
    } while (scale >= 1.0);
    return failure(noIcon("there is none for the screen's scale"));
}

}  // namespace tarnwell::provider
