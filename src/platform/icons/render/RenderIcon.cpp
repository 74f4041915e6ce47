// Draws one icon: tarnwell-render-icon png|svg SIDE <ICON >PICTURE
//
// Meant to be started by the program, which reads the exit status: see kExit… below. It says nothing, since what it
// could say would come from the icon.
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <exception>
#include <string_view>

#include "platform/icons/render/Confinement.h"
#include "platform/icons/render/Picture.h"

namespace tarnwell::render {
namespace {

constexpr int kExitUsage = 2;
constexpr int kExitUnsound = 3;
constexpr int kExitTooLarge = 4;
constexpr int kExitNotConfined = 5;
constexpr int kExitNoOutput = 6;

constexpr std::size_t kMaxInputBytes = 4u << 20;
constexpr long kMaxSide = 1024;

/// Everything that the standard input has; nothing past the limit.
std::optional<Bytes> readInput() {
    Bytes bytes(64 * 1024);
    std::size_t filled = 0;
    for (;;) {
        const ssize_t count = read(STDIN_FILENO, bytes.data() + filled, bytes.size() - filled);
        if (count < 0 && errno == EINTR) continue;
        if (count < 0) return std::nullopt;
        filled += static_cast<std::size_t>(count);
        if (filled > kMaxInputBytes) return std::nullopt;
        if (count == 0) break;
        if (filled == bytes.size()) bytes.resize(bytes.size() * 2);
    }
    bytes.resize(filled);
    return bytes;
}

bool writeOutput(ByteView bytes) {
    while (!bytes.empty()) {
        const ssize_t count = write(STDOUT_FILENO, bytes.data(), bytes.size());
        if (count < 0 && errno == EINTR) continue;
        if (count <= 0) return false;
        bytes = bytes.subspan(static_cast<std::size_t>(count));
    }
    return true;
}

int run(int argc, char** argv) {
    const std::string_view format = argc == 3 ? argv[1] : "";
    const long side = argc == 3 ? std::strtol(argv[2], nullptr, 10) : 0;
    if ((format != "png" && format != "svg") || side < 1 || side > kMaxSide) return kExitUsage;
    if (!limitResources() || !confine()) return kExitNotConfined;
    const auto input = readInput();
    if (!input) return kExitTooLarge;
    const auto rendering =
        format == "png" ? renderPng(*input, static_cast<int>(side)) : renderSvg(*input, static_cast<int>(side));
    if (!rendering.surface) return rendering.fault == Fault::tooLarge ? kExitTooLarge : kExitUnsound;
    const auto picture = encodePng(rendering.surface.get());
    if (!picture) return kExitTooLarge;
    return writeOutput(*picture) ? 0 : kExitNoOutput;
}

}  // namespace
}  // namespace tarnwell::render

int main(int argc, char** argv) {
    int status = tarnwell::render::kExitTooLarge;
    try {
        status = tarnwell::render::run(argc, argv);
    } catch (const std::exception&) {
        // Memory ran out.
    }
    // Nothing of the libraries' has to be taken down, and their ways of doing so may want more than is allowed.
    _exit(status);
}
