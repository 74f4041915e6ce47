#include "platform/mime/TypeDatabase.h"

#include <gio/gio.h>

#include <algorithm>
#include <atomic>
#include <mutex>
#include <set>
#include <vector>

#include "platform/mime/NameIndex.h"

namespace tarnwell::mime {
namespace {

constexpr std::string_view kEmptyFileType = "application/x-zerosize";
constexpr std::string_view kUnknownType = "application/octet-stream";

std::vector<std::filesystem::path> databaseDirectories() {
    std::vector<std::filesystem::path> directories;
    const auto add = [&](const char* data) {
        const std::filesystem::path path(data);
        if (path.is_absolute()) directories.push_back(path / "mime");
    };
    add(::g_get_user_data_dir());
    for (const gchar* const* data = ::g_get_system_data_dirs(); *data != nullptr; ++data) add(*data);
    return directories;
}

/// Looks names up in an index of its own, which needs a fraction of the time that the session's library does, makes no
/// copy of the answer and takes no lock; asks the library for the rest.
class SessionTypeDatabase : public TypeDatabase {
public:
    std::string_view typeForName(std::string_view name) override {
        const Names& names = loaded();
        const auto number = names.index.find(name);
        return number ? std::string_view(names.index.typeName(*number)) : std::string_view();
    }

    std::string_view typeForContent(ByteView head) override {
        if (head.empty()) return kEmptyFileType;
        gchar* guessed = ::g_content_type_guess(nullptr, head.data(), head.size(), nullptr);
        const std::string type(guessed != nullptr ? std::string_view(guessed) : kUnknownType);
        ::g_free(guessed);
        const std::lock_guard lock(contentMutex_);
        return *contentTypes_.insert(type).first;
    }

    bool isPackageName(std::string_view name) override {
        Names& names = loaded();
        const auto number = names.index.find(name);
        if (!number) return false;
        // Two threads may both ask for a type's first time; they get the same answer.
        auto& known = names.packages[*number];
        Package package = known.load(std::memory_order_relaxed);
        if (package == Package::notAsked) {
            const std::string& type = names.index.typeName(*number);
            const bool below = type != kFolderType && ::g_content_type_is_a(type.c_str(), kFolderType.data()) != FALSE;
            package = below ? Package::yes : Package::no;
            known.store(package, std::memory_order_relaxed);
        }
        return package == Package::yes;
    }

private:
    enum class Package : std::uint8_t { notAsked, no, yes };
    struct Names {
        explicit Names(NameIndex loaded) : index(std::move(loaded)), packages(index.typeCount()) {}
        NameIndex index;
        std::vector<std::atomic<Package>> packages;  ///< by type number
    };

    /// Read at the first look-up: a program that looks nothing up does not pay for it.
    Names& loaded() {
        std::call_once(once_, [this] { names_ = std::make_unique<Names>(NameIndex::load(databaseDirectories())); });
        return *names_;
    }

    std::once_flag once_;
    std::unique_ptr<Names> names_;
    std::mutex contentMutex_;
    std::set<std::string> contentTypes_;
};

}  // namespace

std::shared_ptr<TypeDatabase> TypeDatabase::create() { return std::make_shared<SessionTypeDatabase>(); }

}  // namespace tarnwell::mime
