#include <fcntl.h>
#include <sys/stat.h>

#include "platform/base/SystemCall.h"
#include "platform/operations/Copying.h"
#include "platform/operations/EntryNames.h"
#include "platform/operations/OperationErrors.h"
#include "platform/operations/Operations.h"
#include "platform/operations/TreeSurvey.h"

namespace tarnwell::operations {
namespace {

constexpr const char* kCannot = "be imported";

struct Document {
    Descriptor object;
    filesystem::Status status;
};

/// What lies below a root is not reached through links that lead out of the roots, whoever puts them on the way.
/// Anywhere else the path is the caller's, links and all.
Result<Descriptor> openPlace(const Roots& roots, const std::string& path) {
    if (const auto below = roots.locate(roots.urlForRealPath(path).path())) {
        const auto end = filesystem::followLinks(roots, *below);
        if (!end) return failure(end.error());
        return filesystem::openBeneath(end->root->directory.get(), end->relative, O_PATH | O_NOFOLLOW);
    }
    Descriptor place(untilNotInterrupted([&] { return ::open(path.c_str(), O_PATH | O_CLOEXEC); }));
    if (!place.valid()) return failedCall();
    return place;
}

/// Opens it for its place first: opening a pipe or a device would have an effect on them.
Result<Document> openDocument(const Roots& roots, const std::string& path) {
    if (path.find('\0') != std::string::npos) return failure(posixError(EINVAL, "a path cannot contain a NUL byte"));
    const auto opened = openPlace(roots, path);
    if (!opened) {
        if (opened.error().is(ErrorDomain::posix, ELOOP)) {
            return failure(posixError(ELOOP, "\"" + path + "\" leads through links without end"));
        }
        return failure(explained(opened.error(), kCannot, path));
    }
    const Descriptor& place = *opened;
    auto status = filesystem::statusOf(place.get());
    if (!status) return failure(explained(status.error(), kCannot, path));
    if (auto refusal = refusalToCopy(status->mode, path)) return failure(std::move(*refusal));
    const std::string itself = pathOfDescriptor(place.get());
    Descriptor object(
        untilNotInterrupted([&] { return ::open(itself.c_str(), O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC); }));
    if (!object.valid()) return failure(explained(posixError(errno), kCannot, path));
    return Document{std::move(object), *status};
}

std::string lastComponent(const std::string& path) {
    const std::size_t end = path.find_last_not_of('/');
    if (end == std::string::npos) return {};
    const std::size_t slash = path.rfind('/', end);
    return path.substr(slash + 1, end - slash);
}

}  // namespace

Result<Place> importItem(const Context& context, const std::string& document, const Place& folder,
                         TransferMonitor* monitor) {
    const std::string name = lastComponent(document);
    if (auto valid = checkNewName(name); !valid) return failure(valid.error());
    const auto source = openDocument(context.roots, document);
    if (!source) return failure(source.error());
    auto target = openFolder(folder);
    if (!target) return failure(target.error());
    if (S_ISDIR(source->status.mode)) {
        const auto inside = isInside(target->get(), source->status);
        if (!inside) return failure(explained(inside.error(), kCannot, document));
        if (*inside) {
            return failure(posixError(EINVAL, "the folder \"" + document + "\" cannot be imported into itself"));
        }
    }
    CopyOptions options;
    options.monitor = monitor;
    const auto copied =
        copyIntoFolder(context, {&source->object, -1, {}, source->status, document}, *target, name, options);
    if (!copied) {
        Error error = explained(copied.error(), kCannot, document, *target);
        if (error.is(ErrorDomain::posix, EBUSY) || error.is(ErrorDomain::posix, ECANCELED)) {
            error.userInfo[kErrorMessage] += "; nothing was imported";
        }
        if (!error.userInfo.contains(kErrorPath)) error.userInfo[kErrorPath] = document;
        return failure(std::move(error));
    }
    return target->placeOf(copied->name);
}

Result<Place> makeFolder(const Context&, const Place& folder, const std::string& name) {
    if (auto valid = checkNewName(name); !valid) return failure(valid.error());
    auto parent = openFolder(folder);
    if (!parent) return failure(parent.error());
    if (untilNotInterrupted([&] { return ::mkdirat(parent->get(), name.c_str(), 0777); }) != 0) {
        const Error error = posixError(errno);
        if (error.code == EEXIST) return failure(collision(parent->placeOf(name)));
        return failure(explained(error, "be made", realPath(parent->placeOf(name)), *parent));
    }
    return parent->placeOf(name);
}

}  // namespace tarnwell::operations
