#pragma once

#include <functional>
#include <optional>
#include <string>

#include "hostframework/ProviderManager.h"
#include "platform/base/Descriptor.h"
#include "platform/base/Result.h"
#include "platform/url/URL.h"

namespace tarnwell::hostframework {

/// User info of the general file error 516: the URL path of what has the name already, where that is known.
inline constexpr const char* kErrorCollidingURL = "collidingURL";

/// What becomes of a name that is taken: a general file error 516, or a free name like it ("name 2.ext").
enum class Bouncing { refused, allowed };

/// What a host does with files for its provider. An operation returns at once and completes exactly once, on a thread
/// of the host's, with the URL at which the thing now stands; it is coordinated with every other operation on the same
/// paths. No operation replaces anything, leaves the roots through a link, or leaves anything behind when it fails. A
/// name that is taken is the general file error 516 with the URL of what has it (kErrorCollidingURL); missing
/// permission is 513, anything else a POSIX error with a sentence for people. Any thread may call any operation.
class FileOperations {
public:
    using URLCompletion = std::function<void(const Result<URL>&)>;
    virtual ~FileOperations() = default;

    /// Copies a document, or a folder with what it holds, into the parent under its own name. `document` is any real
    /// path; it is left as it is.
    virtual void importUnderFolder(const URL& document, const URL& parent, URLCompletion completion) = 0;
    virtual void createSubfolder(const URL& parent, const std::string& name, URLCompletion completion) = 0;
    virtual void renameWithNewName(const URL& item, const std::string& name, URLCompletion completion) = 0;
    /// Moves the item into the folder, under its own name where no other is given. Out of a trash, the own name is the
    /// one that the item had before the trash replaced it.
    virtual void reparentUnderFolder(const URL& item, const URL& parent, const std::optional<std::string>& newName,
                                     Bouncing bouncing, URLCompletion completion) = 0;
    /// Moves the item into the trash folder, which stands, under a name that is free there.
    virtual void trashUnderFolder(const URL& item, const URL& trash, URLCompletion completion) = 0;
    /// Removes the item, a folder with all that it holds. Nothing is put into a trash.
    virtual void deleteItem(const URL& item, Completion completion) = 0;
};

/// Grants access to one file for the length of a call.
class AccessScopes {
public:
    virtual ~AccessScopes() = default;
    /// Runs the work, on the calling thread, with a descriptor of the document or folder at the URL on which extended
    /// attributes may be written, as the one writer of that path. Fails with a POSIX error where it cannot be opened (a
    /// link, a FIFO, no permission), else as the work does. The descriptor is borrowed.
    virtual Result<void> readWrite(const URL& url, const std::function<Result<void>(const Descriptor&)>& work) = 0;
};

}  // namespace tarnwell::hostframework
