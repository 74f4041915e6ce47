#include "bench/DesktopListing.h"

#include <gio/gio.h>

#include <memory>

namespace tarnwell::bench {

namespace {

constexpr const char* kValues =
    "standard::name,standard::type,standard::size,standard::content-type,time::modified,time::created,"
    "access::can-read,access::can-write,unix::inode,xattr::*";
constexpr const char* kCapabilities = ",standard::display-name,access::can-rename,access::can-trash,access::can-delete";

struct Unref {
    void operator()(gpointer object) const { g_object_unref(object); }
};
template <typename T>
using Object = std::unique_ptr<T, Unref>;

Outcome<Tally> failedWith(GError* error) {
    std::string message = error->message;
    g_error_free(error);
    return std::unexpected(std::move(message));
}

void count(Tally& tally, GFileInfo* info) {
    ++tally.entries;
    char** names = g_file_info_list_attributes(info, "xattr");
    if (names != nullptr) tally.attributes += g_strv_length(names);
    g_strfreev(names);
}

}  // namespace

Outcome<Tally> listWithGIO(const std::string& folder, Question question) {
    const Object<GFile> file(g_file_new_for_path(folder.c_str()));
    const std::string attributes = question == Question::values ? kValues : std::string(kValues) + kCapabilities;
    GError* error = nullptr;
    const Object<GFileEnumerator> enumerator(g_file_enumerate_children(
        file.get(), attributes.c_str(), G_FILE_QUERY_INFO_NOFOLLOW_SYMLINKS, nullptr, &error));
    if (!enumerator) return failedWith(error);
    Tally tally;
    for (;;) {
        const Object<GFileInfo> info(g_file_enumerator_next_file(enumerator.get(), nullptr, &error));
        if (error != nullptr) return failedWith(error);
        if (!info) return tally;
        count(tally, info.get());
    }
}

}  // namespace tarnwell::bench
