#pragma once

#include <mutex>
#include <vector>

#include "platform/icons/IconRenderer.h"

namespace tarnwell::testing {

/// A renderer whose pictures are the icon's own bytes, and whose steps fail where a test wants them to. Any thread may
/// call any operation.
class FakeIconRenderer : public icons::IconRenderer {
public:
    enum class Step { none, image, data, destination, finalize };
    void failAt(Step step);
    /// The icons of which an image was asked, in order.
    std::vector<icons::IconData> rendered() const;

    Result<icons::IconImage> createImage(const icons::IconData& data) override;
    std::unique_ptr<Bytes> createData() override;
    std::unique_ptr<icons::ImageDestination> createDestination(Bytes& data, std::string_view type,
                                                               std::size_t imageCount) override;

private:
    bool failsAt(Step step) const;

    mutable std::mutex mutex_;
    Step failing_ = Step::none;
    std::vector<icons::IconData> rendered_;
};

}  // namespace tarnwell::testing
