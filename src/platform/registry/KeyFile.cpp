#include "platform/registry/KeyFile.h"

#include <glib.h>

#include <cerrno>

namespace tarnwell::registry {
namespace {

struct ErrorCloser {
    void operator()(GError* error) const { g_error_free(error); }
};
struct TextCloser {
    void operator()(char* text) const { g_free(text); }
};
struct TextsCloser {
    void operator()(char** texts) const { g_strfreev(texts); }
};

}  // namespace

void KeyFile::Closer::operator()(_GKeyFile* file) const { g_key_file_unref(file); }

KeyFile::KeyFile(KeyFile&&) noexcept = default;
KeyFile& KeyFile::operator=(KeyFile&&) noexcept = default;
KeyFile::~KeyFile() = default;

Result<KeyFile> KeyFile::parse(std::string_view content) {
    std::unique_ptr<_GKeyFile, Closer> file(g_key_file_new());
    // Nothing is there to parse in an empty text; the parser takes no null pointer for it.
    if (content.empty()) return KeyFile(std::move(file));
    GError* error = nullptr;
    if (!g_key_file_load_from_data(file.get(), content.data(), content.size(), G_KEY_FILE_KEEP_TRANSLATIONS, &error)) {
        std::unique_ptr<GError, ErrorCloser> owned(error);
        // The parser's own words quote the file, with whatever bytes it holds: the log gets none of them.
        return failure(posixError(EBADMSG, "not a key file"));
    }
    return KeyFile(std::move(file));
}

bool KeyFile::hasGroup(const std::string& group) const { return g_key_file_has_group(file_.get(), group.c_str()); }

std::vector<std::string> KeyFile::groups() const {
    gsize count = 0;
    std::unique_ptr<char*, TextsCloser> names(g_key_file_get_groups(file_.get(), &count));
    return {names.get(), names.get() + count};
}

std::optional<std::string> KeyFile::text(const std::string& group, const std::string& key) const {
    std::unique_ptr<char, TextCloser> value(g_key_file_get_string(file_.get(), group.c_str(), key.c_str(), nullptr));
    if (!value) return std::nullopt;
    return std::string(value.get());
}

std::optional<bool> KeyFile::boolean(const std::string& group, const std::string& key) const {
    GError* error = nullptr;
    const bool value = g_key_file_get_boolean(file_.get(), group.c_str(), key.c_str(), &error);
    std::unique_ptr<GError, ErrorCloser> owned(error);
    if (owned) return std::nullopt;
    return value;
}

std::vector<std::string> KeyFile::list(const std::string& group, const std::string& key) const {
    gsize count = 0;
    std::unique_ptr<char*, TextsCloser> parts(
        g_key_file_get_string_list(file_.get(), group.c_str(), key.c_str(), &count, nullptr));
    std::vector<std::string> result;
    if (!parts) return result;
    for (gsize i = 0; i < count; ++i) {
        if (*parts.get()[i]) result.emplace_back(parts.get()[i]);
    }
    return result;
}

}  // namespace tarnwell::registry
