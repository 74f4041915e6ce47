#include "platform/icons/IconRenderer.h"

#include <new>

#include "platform/icons/PngCheck.h"

namespace tarnwell::icons {
namespace {

class PngDestination final : public ImageDestination {
public:
    explicit PngDestination(Bytes& data) : data_(data) {}
    void addImage(const IconImage& image) override {
        ++images_;
        pixels_ = image.pixels;
        data_ = image.png;
    }
    bool finalize() override { return images_ == 1 && isSoundPng(data_, pixels_); }

private:
    Bytes& data_;
    unsigned images_ = 0, pixels_ = 0;
};

}  // namespace

std::unique_ptr<Bytes> IconRenderer::createData() { return std::unique_ptr<Bytes>(new (std::nothrow) Bytes()); }

std::unique_ptr<ImageDestination> IconRenderer::createDestination(Bytes& data, std::string_view type,
                                                                  std::size_t imageCount) {
    if (type != kPngType || imageCount != 1) return nullptr;
    data.clear();
    return std::make_unique<PngDestination>(data);
}

}  // namespace tarnwell::icons
