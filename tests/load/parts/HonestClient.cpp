#include "tests/load/parts/HonestClient.h"

#include <unistd.h>

#include <algorithm>
#include <cstdio>

namespace tarnwell::load {
namespace {

using Clock = std::chrono::steady_clock;

constexpr std::size_t kPage = 200;
/// So many have to be seen, or it was kept waiting.
constexpr std::size_t kFewest = 20;
/// Leaves the processor to the others for a while; nobody turns pages faster.
constexpr unsigned kPause = 5000;  // microseconds

}  // namespace

HonestClient::HonestClient(const ServedProgram& service) : client_(service.connect()) {
    if (client_ == nullptr) {
        trouble_ = "it could not connect";
        return;
    }
    const auto folder = client_->identifiersAtPaths({service.document("Many")}, session::PathUse::lookUp).at(0);
    if (folder) {
        folder_ = *folder;
    } else {
        trouble_ = "the folder is not found: " + describe(folder.error());
    }
    thread_ = std::thread([this] { look(); });
}

HonestClient::~HonestClient() {
    isEnding_ = true;
    if (thread_.joinable()) thread_.join();
}

void HonestClient::look() {
    std::size_t listed = 0;
    std::optional<Bytes> next;
    while (!isEnding_ && trouble_.empty()) {
        ::usleep(kPause);
        const auto begin = Clock::now();
        auto page = client_->enumerate(folder_, next);
        const auto taken = Clock::now() - begin;
        if (!page) {
            trouble_ = "a page failed: " + describe(page.error());
            return;
        }
        if (page->items.size() == kPage) taken_.push_back(taken);
        listed += page->items.size();
        next = std::move(page->next);
        if (next) continue;
        if (listed != tour::kManyEntries) trouble_ = std::to_string(listed) + " items were listed";
        listed = 0;
    }
}

std::string HonestClient::verdict() {
    isEnding_ = true;
    if (thread_.joinable()) thread_.join();
    if (!trouble_.empty()) return trouble_;
    if (taken_.size() < kFewest / kTimeFactor) return "only " + std::to_string(taken_.size()) + " pages were seen";
    std::ranges::sort(taken_);
    const auto milliseconds = [](Clock::duration time) {
        return std::chrono::duration<double, std::milli>(time).count();
    };
    const double middle = milliseconds(taken_[taken_.size() / 2]);
    const double slow = milliseconds(taken_[taken_.size() * 99 / 100]);
    std::printf("%zu pages of %zu: half within %.1f ms, 99 of 100 within %.1f ms, the longest %.1f ms\n", taken_.size(),
                kPage, middle, slow, milliseconds(taken_.back()));
    if (slow < static_cast<double>(kLongest.count()) * kTimeFactor) return "";
    return "one page in a hundred takes " + std::to_string(slow) + " ms";
}

}  // namespace tarnwell::load
