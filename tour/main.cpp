// Makes a sample device and shows the program at work on it.

#include <filesystem>
#include <iostream>
#include <vector>

#include "tour/SampleDevice.h"
#include "tour/Tour.h"

namespace {

using namespace tarnwell;

int usage() {
    std::cerr << "usage: tarnwell-tour DIR [PROGRAM]\n"
                 "       tarnwell-tour --make-only DIR\n"
                 "Makes a sample device in DIR, afresh, and shows PROGRAM (the tarnwell beside this program) on it.\n";
    return 2;
}

std::string programBesideThis() {
    std::error_code code;
    const auto self = std::filesystem::read_symlink("/proc/self/exe", code);
    return code ? "tarnwell" : (self.parent_path() / "tarnwell").string();
}

std::string withoutTrailingSlashes(std::string folder) {
    while (folder.size() > 1 && folder.ends_with('/')) folder.pop_back();
    return folder;
}

int fail(const Error& error) {
    std::cerr << "tarnwell-tour: " << describe(error) << "\n";
    return 1;
}

}  // namespace

int main(int count, char** values) {
    std::vector<std::string> arguments(values + 1, values + count);
    const bool makeOnly = !arguments.empty() && arguments.front() == "--make-only";
    if (makeOnly) arguments.erase(arguments.begin());
    if (arguments.empty() || arguments.size() > (makeOnly ? 1u : 2u)) return usage();
    if (arguments.front().empty() || arguments.front().starts_with('-')) return usage();

    const std::string folder = withoutTrailingSlashes(arguments.front());
    auto device = tour::makeSampleDevice(folder);
    if (!device) return fail(device.error());
    const std::string program = arguments.size() > 1 ? arguments[1] : programBesideThis();
    tour::Tour tour(std::move(*device), folder, program);
    if (auto written = tour.writeEnvironmentFile(); !written) return fail(written.error());
    if (makeOnly) return 0;
    return tour.show() ? 0 : 1;
}
