#pragma once

#include <bitset>
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace tarnwell::mime {

/// Which type a file's name declares, by the patterns of "globs2" files. Built once, then only read: any thread may
/// look up.
///
/// The order of what wins: a literal name before all others, then suffixes ("*.tar.gz"), then other patterns; among
/// suffixes and among patterns the greater weight, then the longer pattern, then the earlier directory, then the
/// earlier line. ASCII letters match in either case unless a line says otherwise.
class NameIndex {
public:
    using TypeNumber = std::uint32_t;

    /// Reads "globs2" in each directory, the most important one first. Missing files and lines that make no sense are
    /// passed over. "__NOGLOBS__" for a type drops what later directories say of it.
    static NameIndex load(const std::vector<std::filesystem::path>& directories);

    /// The number of the type that the name declares; nothing when it says nothing, and for names longer than 255
    /// bytes.
    std::optional<TypeNumber> find(std::string_view name) const;

    /// Name of a type by its number.
    const std::string& typeName(TypeNumber number) const { return types_[number]; }
    std::size_t typeCount() const { return types_.size(); }

private:
    enum class LetterCase : std::uint8_t { ignored, counts };
    struct Rule {
        int weight = 0;
        TypeNumber type = 0;
        LetterCase letterCase = LetterCase::ignored;
        std::string pattern;  ///< literal text, suffix or pattern; small letters where the case is ignored
    };
    struct Pattern {
        Rule rule;
        std::string needed;     ///< text that a name must hold for the pattern to match
        std::bitset<256> last;  ///< the bytes that it must end in
    };
    /// Rules by their text in small letters, found by a hash that is made from the text's end to its beginning.
    class Table {
    public:
        std::vector<Rule>& at(const std::string& text);
        const std::vector<Rule>* find(std::uint64_t hash, std::string_view text) const;
        std::size_t longest() const { return longest_; }

    private:
        struct Entry {
            std::uint64_t hash;
            std::string text;
            std::vector<Rule> rules;
        };
        struct Slot {
            std::uint32_t tag = 0;    ///< the hash's low half
            std::uint32_t entry = 0;  ///< 1 for the first entry, 0 for none
        };
        std::size_t slotFor(std::uint64_t hash) const;
        void place(std::uint64_t hash, std::uint32_t entry);

        std::vector<Entry> entries_;
        std::vector<Slot> slots_ = std::vector<Slot>(64);  ///< a power of two, at most half of them taken
        std::size_t longest_ = 0;
    };
    struct Line;
    class Builder;
    struct Match {
        const Rule* rule = nullptr;
        std::size_t length = 0;
        void consider(const Rule* candidate, std::size_t candidateLength);
    };

    static const Rule* bestOf(const std::vector<Rule>* rules, std::string_view given);
    const Rule* matchPattern(std::string_view name) const;

    std::vector<std::string> types_;
    Table literals_;
    Table suffixes_;  ///< those that begin with a dot
    std::vector<Rule> otherSuffixes_;
    std::bitset<256> lastOfOtherSuffixes_;  ///< the bytes that these end in
    std::vector<Pattern> patterns_;
};

}  // namespace tarnwell::mime
