#pragma once

#include <memory>
#include <string>
#include <string_view>

#include "platform/base/Ids.h"

namespace tarnwell::mime {

/// Types of the shared-mime-info database of this session (XDG_DATA_HOME, XDG_DATA_DIRS). Any thread may call it.
/// The texts that it returns live as long as the database. Names are read at the first look-up and kept: what is
/// installed later counts for a database that is created later.
class TypeDatabase {
public:
    /// Reads nothing yet.
    static std::shared_ptr<TypeDatabase> create();
    virtual ~TypeDatabase() = default;

    /// The type that a file's name declares; empty when the name says nothing.
    virtual std::string_view typeForName(std::string_view name) = 0;
    /// The type that the first bytes of a file's content suggest; application/octet-stream or text/plain at the least,
    /// application/x-zerosize for none.
    virtual std::string_view typeForContent(ByteView head) = 0;
    /// True when the name declares a type that is a sub-class of inode/directory, so that a folder of that name is a
    /// package. A name that declares inode/directory itself is a plain folder's.
    virtual bool isPackageName(std::string_view name) = 0;
};

inline constexpr std::string_view kFolderType = "inode/directory";

}  // namespace tarnwell::mime
