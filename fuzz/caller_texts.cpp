#include <cerrno>

#include "fuzz/Fuzz.h"
#include "platform/caller/FlatpakInfo.h"
#include "platform/caller/ProcText.h"
#include "platform/caller/SnapNames.h"
#include "platform/registry/BundleIdentifier.h"

using namespace tarnwell;

namespace {

/// Whatever a text is: an instance name, none, or a doubt with a sentence.
void check(const Result<std::optional<std::string>>& name) {
    if (!name) {
        TARNWELL_CHECK(name.error().is(ErrorDomain::posix, EBADMSG) && name.error().userInfo.contains(kErrorMessage));
    } else if (*name) {
        TARNWELL_CHECK(registry::isSnapInstanceName(**name));
    }
}

/// Nothing that looks like a Snap's is taken for that of a program of the host.
bool isOfNoSnap(const Result<std::optional<std::string>>& name) { return name && !*name; }

}  // namespace

/// What the kernel and a sandbox tell of a caller: a Flatpak's file, security labels, control groups, further texts of
/// procfs.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string_view text = textOf({data, size});
    if (const auto application = caller::applicationOfFlatpakInfo(text)) {
        TARNWELL_CHECK(caller::isFlatpakID(*application) && registry::isUsableIdentifier(*application));
        const auto again = caller::applicationOfFlatpakInfo("[Application]\nname=" + *application + "\n");
        TARNWELL_CHECK(again && *again == *application);
    } else {
        TARNWELL_CHECK(application.error().userInfo.contains(kErrorMessage));
    }
    (void)caller::isFlatpakID(text);

    const auto ofLabel = caller::snapOfLabel(text);
    check(ofLabel);
    if (text.starts_with("snap.")) TARNWELL_CHECK(!isOfNoSnap(ofLabel));
    const auto ofGroups = caller::snapOfControlGroups(text);
    check(ofGroups);
    if (text.ends_with("/snap.notes.notes.service")) TARNWELL_CHECK(!isOfNoSnap(ofGroups));

    (void)caller::usersOf(text);
    (void)caller::processOfDescriptor(text);
    for (const std::uint64_t mount : {1, 66}) {
        const auto type = caller::fileSystemOf(text, mount);
        TARNWELL_CHECK(!type || (!type->empty() && !type->contains(" ")));
    }
    return 0;
}
