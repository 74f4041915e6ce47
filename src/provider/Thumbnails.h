#pragma once

#include <functional>
#include <optional>
#include <vector>

#include "hostframework/ProviderExtension.h"
#include "platform/registry/AppRegistry.h"
#include "provider/ProviderContext.h"

namespace tarnwell::provider {

/// Thumbnails of app libraries: the icons of their applications. Every other item has none, so that a host draws its
/// own. Everything is done on the calling thread before a fetch returns; any thread may call.
///
/// No failure is told as an error: whatever is missing or fails gives no data, and the completion never has an error.
class Thumbnails {
public:
    explicit Thumbnails(const ProviderContext& context) : context_(context) {}

    /// The icons' data as it was found.
    hostframework::ProgressPtr fetch(const std::vector<hostframework::ItemIdentifier>& identifiers,
                                     const hostframework::ThumbnailCompletion& perThumbnail,
                                     const hostframework::Completion& completion) const;
    /// The icons rendered to PNG in the size that is meant for the device.
    hostframework::ProgressPtr fetch(const std::vector<hostframework::ItemIdentifier>& identifiers,
                                     const hostframework::TypedThumbnailCompletion& perThumbnail,
                                     const hostframework::Completion& completion) const;

    /// The icon for the device's screen scale, else for a scale that is smaller by one, two …; fails where the scale is
    /// below 1, and where scales that are no whole numbers run out. The variant at scale 1 is asked for until it is
    /// there: an application has that one always.
    Result<icons::IconData> bestIconData(const registry::BundleRecord& record) const;

private:
    using FetchOne = std::function<void(const hostframework::ItemIdentifier&)>;
    hostframework::ProgressPtr fetchEach(const std::vector<hostframework::ItemIdentifier>& identifiers,
                                         const FetchOne& fetchOne, const hostframework::Completion& completion) const;
    /// Nothing, and why in the log.
    std::optional<icons::IconData> iconOf(const hostframework::ItemIdentifier& identifier) const;
    std::optional<Bytes> render(const hostframework::ItemIdentifier& identifier, const icons::IconData& icon) const;
    int variantFor(double scale) const;
    items::ProgramLog& log() const { return context_.fs.items.log; }

    const ProviderContext context_;
};

}  // namespace tarnwell::provider
