#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <climits>

#include "platform/base/SystemCall.h"
#include "platform/filesystem/Beneath.h"

namespace tarnwell::filesystem {
namespace {

constexpr int kMaxLinks = 40;

/// Walks component by component. It stands either below a root, at an object that is no link and is held open, or
/// outside of the roots, on the way down to one of them, where the path alone counts: folders that lead to a root were
/// real folders when the root was resolved, so that ".." and names mean there what they say.
class LinkFollower {
public:
    LinkFollower(const Roots& roots, const Place& place) : roots_(roots) {
        enter(place.root);
        prepend(place.relative);
    }

    Result<Place> follow() {
        while (!pending_.empty()) {
            const std::string name = std::move(pending_.back());
            pending_.pop_back();
            auto stepped = root_ ? stepInside(name) : stepOutside(name);
            if (!stepped) return failure(stepped.error());
        }
        if (!root_) return failure(posixError(ENOENT));
        return Place{std::move(root_), joinedPassed()};
    }

private:
    /// Puts a path's components in front of those that are still to be walked.
    void prepend(std::string_view path) {
        const auto middle = static_cast<std::ptrdiff_t>(pending_.size());
        for (std::size_t begin = 0; begin < path.size();) {
            const std::size_t end = std::min(path.find('/', begin), path.size());
            if (end > begin) pending_.emplace_back(path.substr(begin, end - begin));
            begin = end + 1;
        }
        // A slash at the end asks for a folder, as "." does.
        if (path.ends_with('/')) pending_.emplace_back(".");
        std::reverse(pending_.begin() + middle, pending_.end());
    }

    void enter(std::shared_ptr<const Root> root) {
        root_ = std::move(root);
        passed_.clear();
        here_ = Descriptor();
        isFolder_ = true;
    }

    Result<void> stepInside(const std::string& name) {
        if (!isFolder_) return failure(posixError(ENOTDIR));
        if (name == ".") return {};
        if (name == "..") return stepUp();
        auto next = openBeneath(here_.valid() ? here_.get() : root_->directory.get(), name, O_PATH | O_NOFOLLOW);
        if (!next) return failure(next.error());
        auto status = statusOf(next->get());
        if (!status) return failure(status.error());
        if (S_ISLNK(status->mode)) return followLink(next->get());
        here_ = std::move(*next);
        isFolder_ = S_ISDIR(status->mode);
        passed_.push_back(name);
        return {};
    }

    Result<void> stepUp() {
        if (passed_.empty()) {
            outside_ = parentOf(root_->realPath);
            root_ = nullptr;
            return arriveOutside();
        }
        passed_.pop_back();
        auto folder = openBeneath(root_->directory.get(), joinedPassed(), O_PATH | O_DIRECTORY);
        if (!folder) return failure(folder.error());
        here_ = std::move(*folder);
        return {};
    }

    Result<void> stepOutside(const std::string& name) {
        if (name == ".") return {};
        if (name == "..") {
            outside_ = parentOf(outside_);
        } else {
            if (outside_ != "/") outside_ += '/';
            outside_ += name;
        }
        return arriveOutside();
    }

    /// Goes in where a root stands, and refuses to go where no root is to come.
    Result<void> arriveOutside() {
        if (all_.empty()) all_ = roots_.all();
        bool leadsToRoot = false;
        for (const auto& root : all_) {
            if (root->realPath == outside_) {
                enter(root);
                return {};
            }
            leadsToRoot = leadsToRoot || relationship(outside_, root->realPath) == Relationship::contains;
        }
        if (!leadsToRoot) return failure(posixError(ENOENT));
        return {};
    }

    Result<void> followLink(int link) {
        if (++links_ > kMaxLinks) return failure(posixError(ELOOP));
        std::array<char, PATH_MAX> target;
        const ssize_t size = untilNotInterrupted([&] { return ::readlinkat(link, "", target.data(), target.size()); });
        if (size < 0) return failedCall();
        const std::string_view text(target.data(), static_cast<std::size_t>(size));
        if (text.empty() || text.size() == target.size()) return failure(posixError(ENOENT));
        prepend(text);
        if (text.front() != '/') return {};
        root_ = nullptr;
        outside_ = "/";
        return arriveOutside();
    }

    static std::string parentOf(const std::string& path) {
        return path.substr(0, std::max<std::size_t>(path.rfind('/'), 1));
    }

    std::string joinedPassed() const {
        std::string path;
        for (const auto& name : passed_) {
            if (!path.empty()) path += '/';
            path += name;
        }
        return path;
    }

    const Roots& roots_;
    std::vector<std::shared_ptr<const Root>> all_;
    std::vector<std::string> pending_;  ///< still to be walked, the next one last
    int links_ = 0;

    std::shared_ptr<const Root> root_;  ///< null outside of the roots
    std::vector<std::string> passed_;   ///< the path below the root
    Descriptor here_;                   ///< the object at that path; none for the root itself
    bool isFolder_ = true;
    std::string outside_;  ///< the real path outside of the roots
};

}  // namespace

Result<Place> followLinks(const Roots& roots, const Place& place) {
    // Mostly no link is met, and one call tells so.
    auto object = openBeneath(place.root->directory.get(), place.relative, O_PATH | O_NOFOLLOW);
    if (object) {
        auto status = statusOf(object->get());
        if (!status) return failure(status.error());
        if (!S_ISLNK(status->mode)) return place;
    } else if (!object.error().is(ErrorDomain::posix, ELOOP)) {
        return failure(object.error());
    }
    return LinkFollower(roots, place).follow();
}

}  // namespace tarnwell::filesystem
