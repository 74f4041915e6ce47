#pragma once

#include <optional>
#include <string>

#include "provider/ProviderContext.h"

namespace tarnwell::provider {

/// The two attributes that lie on what is trashed: when that was, and from where it came. Writing them never fails an
/// operation: a failure is logged. Any thread may call it.
class TrashAttributes {
public:
    explicit TrashAttributes(const ProviderContext& context) : context_(context) {}

    /// The bytes of the trash date, as they are; nothing where there is none.
    std::optional<Bytes> dateBytes(const URL& url) const;
    /// Without a date the attribute is removed.
    void writeDate(const URL& url, const std::optional<Date>& date) const;
    /// Remembers on the trashed item where it stood, as a path from its app library's root folder; an item that stood
    /// in no app library remembers nothing.
    void writePutBack(const URL& original, const URL& trashed) const;

private:
    Result<void> write(const URL& url, const std::string& name, const std::optional<Bytes>& value) const;
    items::ProgramLog& log() const { return context_.fs.items.log; }

    const ProviderContext context_;
};

}  // namespace tarnwell::provider
