#pragma once

#include <string>
#include <vector>

#include "tour/SampleDevice.h"

namespace tarnwell::tour {

/// Shows the program at work on the sample device: each command as it is typed, then what it prints.
class Tour {
public:
    /// `folder` is the device's folder as the person named it; commands show it so.
    Tour(SampleDevice device, std::string folder, std::string program)
        : device_(std::move(device)), folder_(std::move(folder)), program_(std::move(program)) {}

    /// Writes env.sh into the device: sourced by a shell, it points the program at the device.
    Result<void> writeEnvironmentFile() const;
    /// True when every command did what the tour says of it.
    bool show();

private:
    void heading(const std::string& text) const;
    void command(const std::vector<std::string>& arguments, const EnvironmentChanges& further = {});
    void many();
    void operations();
    void changes();
    void liveChanges();
    void applications();
    /// What is done in a shell while changes are followed, which lines about it are shown, and how the last one ends.
    struct Happening {
        std::string command, about, last;
    };
    void follow(const std::string& container, const std::vector<Happening>& happenings);
    void failed(const std::string& reason);
    void next() const;
    std::string place(const std::string& relative) const { return folder_ + "/" + relative; }
    EnvironmentChanges environmentWith(const EnvironmentChanges& further) const;

    SampleDevice device_;
    std::string folder_;
    std::string program_;
    bool everythingWorked_ = true;
};

/// A word as a shell takes it, quoted only where it has to be.
std::string shellWord(const std::string& word);

}  // namespace tarnwell::tour
