#include "testing/FakeIconRenderer.h"

#include <cerrno>

namespace tarnwell::testing {
namespace {

class FakeDestination final : public icons::ImageDestination {
public:
    FakeDestination(Bytes& data, bool succeeds) : data_(data), succeeds_(succeeds) {}
    void addImage(const icons::IconImage& image) override { data_ = image.png; }
    bool finalize() override { return succeeds_; }

private:
    Bytes& data_;
    bool succeeds_;
};

}  // namespace

void FakeIconRenderer::failAt(Step step) {
    const std::lock_guard lock(mutex_);
    failing_ = step;
}

bool FakeIconRenderer::failsAt(Step step) const {
    const std::lock_guard lock(mutex_);
    return failing_ == step;
}

std::vector<icons::IconData> FakeIconRenderer::rendered() const {
    const std::lock_guard lock(mutex_);
    return rendered_;
}

Result<icons::IconImage> FakeIconRenderer::createImage(const icons::IconData& data) {
    if (failsAt(Step::image)) return failure(posixError(EBADMSG, "a test wants it so"));
    const std::lock_guard lock(mutex_);
    rendered_.push_back(data);
    return icons::IconImage{data.pixels, data.bytes};
}

std::unique_ptr<Bytes> FakeIconRenderer::createData() {
    return failsAt(Step::data) ? nullptr : std::make_unique<Bytes>();
}

std::unique_ptr<icons::ImageDestination> FakeIconRenderer::createDestination(Bytes& data, std::string_view type,
                                                                             std::size_t imageCount) {
    if (failsAt(Step::destination) || type != icons::kPngType || imageCount != 1) return nullptr;
    return std::make_unique<FakeDestination>(data, !failsAt(Step::finalize));
}

}  // namespace tarnwell::testing
