#include "tests/operations/OperationsFixture.h"

#include <filesystem>
#include <fstream>

namespace tarnwell::operations {

std::map<std::string, std::string> treeOf(const std::string& path) {
    std::map<std::string, std::string> tree;
    for (const auto& entry : std::filesystem::recursive_directory_iterator(path)) {
        struct stat status{};
        if (::lstat(entry.path().c_str(), &status) != 0) continue;
        std::string text = std::to_string(status.st_mode & 07777) + " ";
        if (S_ISDIR(status.st_mode)) {
            text = "folder";
        } else if (S_ISLNK(status.st_mode)) {
            text = "link to " + std::filesystem::read_symlink(entry.path()).string();
        } else if (S_ISREG(status.st_mode)) {
            text += testing::readFile(entry.path().string());
        } else {
            text = "special";
        }
        tree[entry.path().string().substr(path.size() + 1)] = text;
    }
    return tree;
}

std::vector<std::string> temporariesBelow(const std::string& path) {
    std::vector<std::string> found;
    for (const auto& entry : std::filesystem::recursive_directory_iterator(
             path, std::filesystem::directory_options::skip_permission_denied)) {
        if (entry.path().filename().string().starts_with(".tarnwell-")) found.push_back(entry.path().string());
    }
    return found;
}

Workplace::Workplace(const std::string& folder) : base(folder) {
    testing::makeDirectories(path());
    testing::makeDirectories(outside());
    store::StoreOptions options;
    options.directory = base + "/state";
    store = store::Store::open(options).value();
    storage = roots.addStorage(path()).value();
    context = std::make_unique<Context>(Context{roots, *store, log});
}

Workplace::~Workplace() = default;

std::string Workplace::path(const std::string& relative) const {
    return base + "/Documents" + (relative.empty() ? "" : "/" + relative);
}
std::string Workplace::outside(const std::string& relative) const {
    return base + "/outside" + (relative.empty() ? "" : "/" + relative);
}
void Workplace::file(const std::string& relative, std::string_view content) const {
    testing::makeDirectories(std::filesystem::path(path(relative)).parent_path().string());
    testing::writeFile(path(relative), content);
}
void Workplace::folder(const std::string& relative) const { testing::makeDirectories(path(relative)); }
std::string Workplace::read(const std::string& relative) const { return testing::readFile(path(relative)); }
bool Workplace::exists(const std::string& relative) const {
    struct stat status{};
    return ::lstat(path(relative).c_str(), &status) == 0;
}

std::size_t Workplace::records() const {
    store::Session session(*store);
    return session.temporaries().all().size();
}

}  // namespace tarnwell::operations
