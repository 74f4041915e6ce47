#pragma once

#include "host/ProgramContext.h"
#include "session/Session.h"

namespace tarnwell::host {

/// Opens documents for clients. Any thread may call it.
class DocumentAccess {
public:
    explicit DocumentAccess(ProgramContext& context) : context_(context) {}

    /// A descriptor of what the item is at a moment of this call, see HostFileOperations::open. A document that is
    /// replaced again and again meanwhile is EBUSY; one that may not be written to is the general file error 513.
    Result<Descriptor> open(const session::ItemIdentifier& item, session::Session::Access access) const;

private:
    ProgramContext& context_;
};

}  // namespace tarnwell::host
