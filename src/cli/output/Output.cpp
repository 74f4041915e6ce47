#include "cli/output/Output.h"

#include <unistd.h>

#include <cerrno>
#include <cstdlib>

namespace tarnwell::cli {
namespace {

constexpr std::size_t kKeepBack = 64 * 1024;

std::string_view codeOf(Style style) {
    switch (style) {
        case Style::plain:
            return "";
        case Style::dim:
            return "\x1b[2m";
        case Style::bold:
            return "\x1b[1m";
        case Style::folder:
            return "\x1b[1;34m";
        case Style::library:
            return "\x1b[1;35m";
        case Style::good:
            return "\x1b[32m";
        case Style::warning:
            return "\x1b[33m";
        case Style::bad:
            return "\x1b[1;31m";
    }
    return "";
}

}  // namespace

bool Output::wantsColours(std::FILE* stream) {
    const char* none = std::getenv("NO_COLOR");
    const char* terminal = std::getenv("TERM");
    return ::isatty(::fileno(stream)) == 1 && (none == nullptr || *none == '\0') && terminal != nullptr &&
           std::string_view(terminal) != "dumb";
}

void Output::line(std::string_view text) {
    raw(text);
    raw("\n");
}

void Output::raw(std::string_view bytes) {
    if (error_) return;
    pending_ += bytes;
    if (pending_.size() >= kKeepBack) flush();
}

std::string Output::paint(Style style, std::string_view text) const {
    const std::string_view code = codeOf(style);
    if (!coloured_ || code.empty() || text.empty()) return std::string(text);
    return std::string(code) + std::string(text) + "\x1b[0m";
}

bool Output::flush() {
    if (error_) return false;
    std::string_view rest = pending_;
    while (!rest.empty()) {
        const ssize_t written = ::write(::fileno(stream_), rest.data(), rest.size());
        if (written < 0 && errno == EINTR) continue;
        if (written < 0) {
            error_ = errno;
            break;
        }
        rest.remove_prefix(static_cast<std::size_t>(written));
    }
    pending_.clear();
    return !error_;
}

}  // namespace tarnwell::cli
