#include "hostframework/FileCoordinator.h"

#include <algorithm>
#include <future>
#include <set>
#include <string_view>
#include <unordered_map>
#include <utility>

namespace tarnwell::hostframework {

struct FileCoordinator::Claim {
    std::vector<Path> paths;
    std::move_only_function<void(Grant)> granted;
    std::size_t waitsFor = 0;               ///< earlier claims in its way
    std::vector<std::uint64_t> inTheWayOf;  ///< later ones
};

struct FileCoordinator::State {
    /// A path of a claim that is held or waits.
    struct Mark {
        std::uint64_t claim;
        Use use;
    };

    std::mutex mutex;
    std::uint64_t last = 0;
    std::unordered_map<std::uint64_t, Claim> claims;
    /// All marks by path. Byte order puts what lies below a path side by side.
    std::map<std::string, std::vector<Mark>, std::less<>> marks;

    void collect(std::string_view path, Use use, std::set<std::uint64_t>& found) const {
        const auto take = [&](const std::vector<Mark>& at) {
            for (const Mark& mark : at) {
                if (use == Use::writing || mark.use == Use::writing) found.insert(mark.claim);
            }
        };
        for (std::size_t end = path.size(); end != std::string_view::npos && end > 0; end = path.rfind('/', end - 1)) {
            if (const auto at = marks.find(path.substr(0, end)); at != marks.end()) take(at->second);
        }
        if (const auto top = marks.find("/"); top != marks.end() && path != "/") take(top->second);
        std::string below(path);
        if (below != "/") below += '/';
        for (auto at = marks.lower_bound(below); at != marks.end() && at->first.starts_with(below); ++at) {
            if (at->first != path) take(at->second);
        }
    }

    void unmark(std::uint64_t number, const Claim& claim) {
        for (const Path& path : claim.paths) {
            const auto at = marks.find(path.path);
            if (at == marks.end()) continue;
            std::erase_if(at->second, [&](const Mark& mark) { return mark.claim == number; });
            if (at->second.empty()) marks.erase(at);
        }
    }
};

FileCoordinator::FileCoordinator() : state_(std::make_shared<State>()) {}
FileCoordinator::~FileCoordinator() = default;

FileCoordinator::Grant& FileCoordinator::Grant::operator=(Grant&& other) noexcept {
    if (this != &other) {
        release();
        state_ = std::move(other.state_);
        number_ = other.number_;
    }
    return *this;
}

void FileCoordinator::Grant::release() {
    const auto state = std::exchange(state_, nullptr);
    if (!state) return;
    std::vector<std::pair<std::uint64_t, std::move_only_function<void(Grant)>>> free;
    {
        const std::lock_guard lock(state->mutex);
        const auto held = state->claims.find(number_);
        const Claim claim = std::move(held->second);
        state->claims.erase(held);
        state->unmark(number_, claim);
        for (const std::uint64_t later : claim.inTheWayOf) {
            Claim& waiting = state->claims.at(later);
            if (--waiting.waitsFor == 0) free.emplace_back(later, std::move(waiting.granted));
        }
    }
    for (auto& [number, granted] : free) granted(Grant(state, number));
}

void FileCoordinator::claim(std::vector<Path> paths, std::move_only_function<void(Grant)> granted) {
    std::uint64_t number = 0;
    {
        const std::lock_guard lock(state_->mutex);
        number = ++state_->last;
        std::set<std::uint64_t> conflicting;
        for (const Path& path : paths) state_->collect(path.path, path.use, conflicting);
        for (const std::uint64_t earlier : conflicting) state_->claims.at(earlier).inTheWayOf.push_back(number);
        for (const Path& path : paths) state_->marks[path.path].push_back({number, path.use});
        Claim& claim = state_->claims[number];
        claim.paths = std::move(paths);
        claim.waitsFor = conflicting.size();
        if (!conflicting.empty()) {
            claim.granted = std::move(granted);
            return;
        }
    }
    granted(Grant(state_, number));
}

FileCoordinator::Grant FileCoordinator::wait(std::vector<Path> paths) {
    std::promise<Grant> promise;
    auto grant = promise.get_future();
    claim(std::move(paths), [&](Grant given) { promise.set_value(std::move(given)); });
    return grant.get();
}

}  // namespace tarnwell::hostframework
