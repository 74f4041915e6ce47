#include "provider/TrashAttributes.h"

#include "items/ItemAttributes.h"
#include "items/LocalItem.h"
#include "items/RelativePath.h"
#include "platform/archive/KeyedArchive.h"

namespace tarnwell::provider {

using items::LocalItem;

std::optional<Bytes> TrashAttributes::dateBytes(const URL& url) const {
    return items::valueOfAttribute(context_.fs.items, LocalItem::xattrTrashDateName, url);
}

void TrashAttributes::writeDate(const URL& url, const std::optional<Date>& date) const {
    log().debug([&] { return "setting trash date on " + url.path(); });
    std::optional<Bytes> value;
    if (date) value = archive::archiveRoot({*date});
    if (const auto written = write(url, LocalItem::xattrTrashDateName, value); !written) {
        log().error(std::string("can't ") + (date ? "set" : "remove") + " xattr " + LocalItem::xattrTrashDateName +
                    " on " + url.path() + "; " + describe(written.error()));
    }
}

void TrashAttributes::writePutBack(const URL& original, const URL& trashed) const {
    log().debug([&] { return "setting putback string on " + original.text(); });
    const auto* libraries = context_.fs.items.appLibraries;
    const auto record = libraries == nullptr ? nullptr : libraries->recordForURL(original, Relationship::contains);
    const auto library = record ? items::LocalAppLibraryItem::initFrom(context_.fs.items, *record) : nullptr;
    if (!library) {
        log().error("couldn't find app library for " + original.text());
        return;
    }
    const URL& root = library->fileURL();
    const auto putBack = items::relativePath(original, root);
    if (!putBack) {
        log().error("could't compute putback string (path: " + original.path() + ", basePath: " + root.path() + ")");
        return;
    }
    log().debug([&] { return "setting putback '" + *putBack + "' on " + trashed.text(); });
    const auto written = write(trashed, LocalItem::xattrTrashPutBackName, archive::archiveRoot({*putBack}));
    if (!written) {
        log().error("couldn't set putback xattr (" + describe(written.error()) + ") on " + trashed.path());
    }
}

Result<void> TrashAttributes::write(const URL& url, const std::string& name, const std::optional<Bytes>& value) const {
    return context_.accessScopes.readWrite(url, [&](const Descriptor& descriptor) {
        return items::writeAttribute(context_.fs.items, descriptor, name, value);
    });
}

}  // namespace tarnwell::provider
