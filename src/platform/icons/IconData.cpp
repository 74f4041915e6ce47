#include "platform/icons/IconData.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <array>
#include <string_view>

#include "platform/base/Descriptor.h"
#include "platform/base/SystemCall.h"
#include "platform/filesystem/PlainFile.h"

namespace tarnwell::icons {
namespace {

constexpr std::array<IconVariant, 5> kVariants{{{0, 48, 1}, {15, 48, 2}, {32, 48, 3}, {1, 64, 1}, {24, 64, 2}}};
constexpr std::string_view kPngSignature("\x89PNG\r\n\x1a\n", 8);
constexpr std::string_view kUtf8Mark = "\xEF\xBB\xBF";
/// How far from the beginning the first element of an SVG text has to stand: behind a licence at most.
constexpr std::size_t kMaxProlog = 16 * 1024;

constexpr std::string_view kGenericIcon = R"(<svg xmlns="http://www.w3.org/2000/svg" viewBox="0 0 48 48">
  <rect x="5" y="5" width="38" height="38" rx="8" fill="#5c6b7a"/>
  <rect x="5" y="5" width="38" height="37" rx="8" fill="#73849a"/>
  <path d="M14 16h20M14 24h20M14 32h12" stroke="#fff" stroke-width="3" stroke-linecap="round"/>
</svg>
)";

bool isNameEnd(char c) { return std::string_view(" \t\r\n/>").contains(c); }

/// True for text whose first element is "svg", perhaps with a prefix: behind declarations and comments only.
bool isSvg(std::string_view text) {
    text = text.substr(0, kMaxProlog);
    if (text.starts_with(kUtf8Mark)) text.remove_prefix(kUtf8Mark.size());
    for (;;) {
        const std::size_t next = text.find_first_not_of(" \t\r\n");
        if (next == std::string_view::npos || text[next] != '<') return false;
        text.remove_prefix(next + 1);
        std::string_view end = ">";
        if (text.starts_with("!--")) {
            end = "-->";
        } else if (text.starts_with("?")) {
            end = "?>";
        } else if (text.starts_with("!DOCTYPE")) {
            // Its own part stands in brackets.
            const std::size_t bracket = text.find_first_of("[>");
            if (bracket != std::string_view::npos && text[bracket] == '[') end = "]";
        } else {
            const auto nameEnd = std::ranges::find_if(text, isNameEnd);
            std::string_view name(text.begin(), nameEnd);
            if (const std::size_t colon = name.find(':'); colon != std::string_view::npos)
                name.remove_prefix(colon + 1);
            return nameEnd != text.end() && name == "svg";
        }
        const std::size_t at = text.find(end);
        if (at == std::string_view::npos) return false;
        text.remove_prefix(at + end.size());
        if (end == "]") text.remove_prefix(std::min(text.find('>'), text.size() - 1) + 1);
    }
}

}  // namespace

std::optional<IconVariant> iconVariant(int number) {
    const auto* found = std::ranges::find(kVariants, number, &IconVariant::number);
    if (found == kVariants.end()) return std::nullopt;
    return *found;
}

std::optional<IconFormat> formatOf(ByteView bytes) {
    const std::string_view text = textOf(bytes);
    if (text.starts_with(kPngSignature)) return IconFormat::png;
    if (isSvg(text)) return IconFormat::svg;
    return std::nullopt;
}

IconData genericIcon(unsigned pixels) {
    const ByteView bytes = bytesOf(kGenericIcon);
    return {Bytes(bytes.begin(), bytes.end()), IconFormat::svg, pixels, "built in"};
}

Result<IconData> readIcon(const std::string& path, unsigned pixels) {
    const int fd = untilNotInterrupted([&] { return ::open(path.c_str(), O_PATH | O_CLOEXEC); });
    if (fd < 0) return failedCall();
    const Descriptor place(fd);
    struct stat status{};
    if (::fstat(fd, &status) != 0) return failedCall();
    // Files of the kernel's own say that they are empty; reading some of them takes what they hold away from others.
    if (!S_ISREG(status.st_mode) || status.st_size == 0) {
        return failure(posixError(EINVAL, "it is no regular file that holds anything"));
    }
    auto bytes = filesystem::readFile(pathOfDescriptor(fd), kMaxIconFileBytes);
    if (!bytes) return failure(bytes.error());
    const auto format = formatOf(*bytes);
    if (!format) return failure(posixError(EINVAL, "it holds neither PNG nor SVG"));
    return IconData{std::move(*bytes), *format, pixels, path};
}

}  // namespace tarnwell::icons
