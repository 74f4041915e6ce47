#pragma once

#include <cstdio>
#include <optional>
#include <string>
#include <string_view>

namespace tarnwell::cli {

enum class Style { plain, dim, bold, folder, library, good, warning, bad };

/// Writes lines to a stream, coloured where it is a terminal and colours are wanted. After a write failed (the reader
/// went, the disk is full) further lines are dropped, and `failed` says so.
class Output {
public:
    /// Colours for a terminal, unless NO_COLOR is set to something or TERM is "dumb".
    static bool wantsColours(std::FILE* stream);
    Output(std::FILE* stream, bool coloured) : stream_(stream), coloured_(coloured) {}
    ~Output() { flush(); }
    Output(const Output&) = delete;
    Output& operator=(const Output&) = delete;

    /// Writes the text and a line end.
    void line(std::string_view text);
    /// Writes the bytes as they are.
    void raw(std::string_view bytes);
    /// The text in a style, or as it is where nothing is coloured.
    std::string paint(Style style, std::string_view text) const;
    /// Writes what is kept back; true if everything so far has been written.
    bool flush();
    /// The errno of the first failed write.
    std::optional<int> failed() const { return error_; }

private:
    std::FILE* stream_;
    bool coloured_;
    std::string pending_;
    std::optional<int> error_;
};

}  // namespace tarnwell::cli
