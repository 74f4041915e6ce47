#pragma once

#include <sys/types.h>

#include <chrono>
#include <cstddef>
#include <functional>
#include <memory>
#include <string>

#include "bus/client/BusSession.h"
#include "testing/PrivateBus.h"
#include "testing/Sanitized.h"
#include "tour/SampleDevice.h"

namespace tarnwell::load {

using testing::kIsSanitized;
/// By this much a limit of time is longer under a sanitizer.
inline constexpr int kTimeFactor = kIsSanitized ? 10 : 1;

/// What a process holds, as the kernel counts it.
struct Footprint {
    std::size_t descriptors = 0;
    std::size_t kernelWatches = 0;  ///< marks of inotify and fanotify
    std::size_t threads = 0;
    std::size_t residentKiB = 0;
};
Footprint footprintOf(pid_t process);

/// Descriptors for this process and those that it starts; false where it is not allowed so many.
bool allowDescriptors(std::size_t count);

/// Waits until it holds, at most so long.
bool within(std::chrono::seconds longest, const std::function<bool()>& condition);

/// The built program as the service of a sample device of its own, on a bus of its own.
class ServedProgram {
public:
    /// `started`: runs already; `offered`: the bus starts it when it is first asked.
    enum class Way { started, offered };
    explicit ServedProgram(Way way = Way::started);
    ~ServedProgram();
    ServedProgram(const ServedProgram&) = delete;
    ServedProgram& operator=(const ServedProgram&) = delete;

    const std::string& address() const { return bus_.address(); }
    std::unique_ptr<bus::BusSession> connect() const;
    /// What the bus says is the process of the service now; 0 for none.
    pid_t process() const;
    /// The process that was started here goes on.
    bool isRunning() const;
    Footprint footprint() const { return footprintOf(process_); }
    /// Its descriptors, one a line.
    std::string descriptors() const;
    /// The last of what it wrote to standard error.
    std::string complaints() const;

    /// A path below the storage root; the root itself for "".
    std::string document(const std::string& name) const { return device_.root + "/home/Documents/" + name; }
    std::string stateFolder() const { return device_.root + "/home/.local/state/tarnwell"; }
    /// A folder for what is none of the documents.
    std::string path(const std::string& name) const { return directory_.path(name); }

private:
    testing::TemporaryDirectory directory_;
    testing::PrivateBus bus_;
    tour::SampleDevice device_;
    pid_t process_ = 0;
};

}  // namespace tarnwell::load
