#include "testing/FakeIconRenderer.h"

#include <gtest/gtest.h>

namespace tarnwell::testing {
namespace {

using Step = FakeIconRenderer::Step;

const icons::IconData kIcon{{1, 2, 3}, icons::IconFormat::png, 96, "test"};

/// How far a rendering comes: the first step that fails.
Step firstFailure(FakeIconRenderer& renderer) {
    const auto image = renderer.createImage(kIcon);
    if (!image) return Step::image;
    const auto data = renderer.createData();
    if (!data) return Step::data;
    const auto destination = renderer.createDestination(*data, icons::kPngType, 1);
    if (!destination) return Step::destination;
    destination->addImage(*image);
    EXPECT_EQ(*data, kIcon.bytes);
    return destination->finalize() ? Step::none : Step::finalize;
}

TEST(FakeIconRenderer, GivesTheIconsOwnBytesAndRemembersIt) {
    FakeIconRenderer renderer;
    EXPECT_EQ(firstFailure(renderer), Step::none);
    ASSERT_EQ(renderer.rendered().size(), 1u);
    EXPECT_EQ(renderer.rendered()[0].pixels, 96u);
    Bytes data;
    EXPECT_EQ(renderer.createDestination(data, "image/jpeg", 1), nullptr);
    EXPECT_EQ(renderer.createDestination(data, icons::kPngType, 2), nullptr);
}

TEST(FakeIconRenderer, FailsAtTheStepThatATestWants) {
    FakeIconRenderer renderer;
    for (const Step step : {Step::image, Step::data, Step::destination, Step::finalize, Step::none}) {
        renderer.failAt(step);
        EXPECT_EQ(firstFailure(renderer), step);
    }
}

}  // namespace
}  // namespace tarnwell::testing
