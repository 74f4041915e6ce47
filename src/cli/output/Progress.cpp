#include "cli/output/Progress.h"

#include <unistd.h>

#include <cstdio>

namespace tarnwell::cli {

Progress::Progress()
    : enabled_(::isatty(STDERR_FILENO) == 1),
      next_(std::chrono::steady_clock::now() + std::chrono::milliseconds(500)) {}

void Progress::show(std::string_view text) {
    if (!enabled_) return;
    const auto now = std::chrono::steady_clock::now();
    if (now < next_) return;
    next_ = now + std::chrono::milliseconds(100);
    shown_ = true;
    std::fprintf(stderr, "\r\x1b[K%.*s", static_cast<int>(text.size()), text.data());
}

void Progress::clear() {
    if (shown_) std::fputs("\r\x1b[K", stderr);
    shown_ = false;
}

}  // namespace tarnwell::cli
