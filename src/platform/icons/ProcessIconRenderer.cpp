#include "platform/icons/ProcessIconRenderer.h"

#include <unistd.h>

#include <array>
#include <cerrno>

#include "platform/icons/RenderProcess.h"
#include "platform/log/LineText.h"

namespace tarnwell::icons {
namespace {

constexpr std::size_t kMaxHopeless = 256;

/// True where another try would end the same way.
bool isOfTheIcon(const Error& error) {
    return error.is(ErrorDomain::posix, EBADMSG) || error.is(ErrorDomain::posix, EFBIG) ||
           error.is(ErrorDomain::posix, ETIMEDOUT);
}

}  // namespace

std::string ProcessIconRenderer::programBesideThisOne() {
    std::array<char, 4096> path{};
    const ssize_t size = ::readlink("/proc/self/exe", path.data(), path.size());
    const std::string program(path.data(), size > 0 ? static_cast<std::size_t>(size) : 0);
    return programFor(program.substr(0, program.rfind('/')));
}

std::string ProcessIconRenderer::programFor(const std::string& folder) {
    // What was built comes first: a build must not draw with an older program that is installed.
    for (const std::string& place : {folder, folder + "/../libexec/tarnwell", std::string(TARNWELL_LIBEXEC_FOLDER)}) {
        const std::string program = place + "/tarnwell-render-icon";
        if (::access(program.c_str(), X_OK) == 0) return program;
    }
    return folder + "/tarnwell-render-icon";
}

Result<IconImage> ProcessIconRenderer::createImage(const IconData& data) {
    const std::string key = IconCache::keyOf(data);
    {
        const std::lock_guard lock(mutex_);
        if (const auto known = hopeless_.find(key); known != hopeless_.end()) return failure(known->second);
    }
    if (auto kept = cache_.find(key, data.pixels)) return IconImage{data.pixels, std::move(*kept)};
    return draw(key, data);
}

Result<IconImage> ProcessIconRenderer::draw(const std::string& key, const IconData& data) {
    slots_.acquire();
    auto drawn = renderInProcess(options_.program, data, options_.patience);
    slots_.release();
    if (drawn) {
        cache_.keep(key, *drawn);
        return IconImage{data.pixels, std::move(*drawn)};
    }
    log_.write(log::Level::debug, "[DEBUG] no picture of the icon \"" + log::asOneLine(data.source) + "\"; " +
                                      log::asOneLine(describe(drawn.error())));
    if (isOfTheIcon(drawn.error())) {
        const std::lock_guard lock(mutex_);
        if (hopeless_.size() >= kMaxHopeless) hopeless_.clear();
        hopeless_.emplace(key, drawn.error());
    }
    return failure(drawn.error());
}

}  // namespace tarnwell::icons
