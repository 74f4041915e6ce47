#pragma once

#include <optional>

#include "platform/base/Descriptor.h"
#include "platform/base/Ids.h"
#include "platform/base/Result.h"
#include "platform/url/URL.h"

namespace tarnwell::store {

/// Gives documents identities that survive renames, moves and safe-saves. Any thread may call it.
class GenerationStoreManager {
public:
    virtual ~GenerationStoreManager() = default;

    /// The document ID of an open object, allocated durably if it has none yet. Fails with a POSIX error.
    virtual Result<DocumentID> getOrAllocateDocumentID(const Descriptor& descriptor) = 0;
    /// The document ID of the object at the URL, none allocated; nothing where it has none. The store looks where the
    /// object is now, so that it knows its file ID afterwards. Fails with a POSIX error.
    virtual Result<std::optional<DocumentID>> permanentStorage(const URL& url) = 0;
    /// The file ID of the object that the document now is. POSIX errors: ENOENT for an ID that names nothing, EAGAIN,
    /// EBUSY or ESTALE where another try may succeed.
    virtual Result<FileID> fileIDForDocumentID(DocumentID documentID, DeviceID device) = 0;
    /// The folder of the store's own place in the document storage: the storage root.
    virtual URL documentStorageFolder() const = 0;
};

}  // namespace tarnwell::store
