#pragma once

#include <cstddef>
#include <memory>
#include <string_view>

#include "platform/base/Ids.h"
#include "platform/base/Result.h"
#include "platform/icons/IconData.h"

namespace tarnwell::icons {

inline constexpr std::string_view kPngType = "image/png";

/// A square picture of an icon, ready to be written.
struct IconImage {
    unsigned pixels = 0;  ///< its side
    Bytes png;            ///< a sound PNG of that size
};

/// Writes images of one type into a buffer of its maker's.
class ImageDestination {
public:
    virtual ~ImageDestination() = default;
    virtual void addImage(const IconImage& image) = 0;
    /// True once the buffer holds as many images as were announced, whole. To be called once, as the last.
    virtual bool finalize() = 0;
};

/// Makes pictures of icon data. Any thread may call any operation, several at once.
class IconRenderer {
public:
    virtual ~IconRenderer() = default;
    /// A picture of `data.pixels` pixels a side, the icon in the middle with its proportions kept. Blocks until it is
    /// there. Fails where the data is no sound icon or goes past a limit, with a message that says which.
    virtual Result<IconImage> createImage(const IconData& data) = 0;
    /// An empty buffer that grows; null without memory for it.
    virtual std::unique_ptr<Bytes> createData();
    /// Null for any type but PNG, and for any count but one. `data` outlives the destination.
    virtual std::unique_ptr<ImageDestination> createDestination(Bytes& data, std::string_view type,
                                                                std::size_t imageCount);
};

}  // namespace tarnwell::icons
