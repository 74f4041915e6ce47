#pragma once

#include "host/ProgramContext.h"
#include "session/Item.h"

namespace tarnwell::host {

/// The icons of app libraries as PNG. Any thread may call it.
class LibraryIcons {
public:
    explicit LibraryIcons(ProgramContext& context) : context_(context) {}

    /// So many pixels a side; 0: as large as fits this device's screen. Fails with a sentence where the item is no app
    /// library, where nothing has that identifier, and where the icon cannot be drawn, of which the log says why.
    Result<Bytes> icon(const session::ItemIdentifier& library, unsigned side) const;

private:
    std::optional<Bytes> forDevice(const session::ItemIdentifier& library) const;
    std::optional<Bytes> inSize(const session::ItemIdentifier& library, unsigned side) const;

    ProgramContext& context_;
};

}  // namespace tarnwell::host
