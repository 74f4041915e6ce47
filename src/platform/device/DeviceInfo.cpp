#include "platform/device/DeviceInfo.h"

namespace tarnwell::device {

std::int64_t DeviceInfo::deviceClassNumber() {
    std::call_once(classOnce_, [this] { class_ = lookUpDeviceClassNumber(); });
    return class_;
}

double DeviceInfo::mainScreenScale() {
    std::call_once(scaleOnce_, [this] { scale_ = lookUpMainScreenScale(); });
    return scale_;
}

}  // namespace tarnwell::device
