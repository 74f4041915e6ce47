#pragma once

#include <atomic>

#include "platform/device/DeviceInfo.h"

namespace tarnwell::testing {

/// A device of the class and scale that a test sets before the first question.
class FakeDeviceInfo : public device::DeviceInfo {
public:
    void set(std::int64_t classNumber, float scale) {
        class_ = classNumber;
        scale_ = scale;
    }
    int timesAskedForClass() const { return classAsked_; }
    int timesAskedForScale() const { return scaleAsked_; }

private:
    std::int64_t lookUpDeviceClassNumber() override {
        ++classAsked_;
        return class_;
    }
    float lookUpMainScreenScale() override {
        ++scaleAsked_;
        return scale_;
    }

    std::atomic<std::int64_t> class_ = device::kOtherDevice;
    std::atomic<float> scale_ = 1.0F;
    std::atomic<int> classAsked_ = 0, scaleAsked_ = 0;
};

}  // namespace tarnwell::testing
