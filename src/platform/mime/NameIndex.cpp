#include "platform/mime/NameIndex.h"

#include <fnmatch.h>

#include <algorithm>
#include <array>
#include <bit>
#include <charconv>
#include <fstream>
#include <set>
#include <unordered_map>

namespace tarnwell::mime {
namespace {

constexpr std::size_t kLongestName = 255;
constexpr std::uintmax_t kLargestFile = 16 << 20;
constexpr std::string_view kNoGlobs = "__NOGLOBS__";
constexpr std::string_view kWildcards = "*?[\\";

char small(char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c; }

std::string inSmallLetters(std::string_view text) {
    std::string result(text);
    std::ranges::transform(result, result.begin(), small);
    return result;
}

std::string contentOf(const std::filesystem::path& path) {
    std::error_code error;
    if (!std::filesystem::is_regular_file(path, error)) return {};
    const std::uintmax_t size = std::filesystem::file_size(path, error);
    if (error || size > kLargestFile) return {};
    std::ifstream stream(path, std::ios::binary);
    std::string content(static_cast<std::size_t>(size), '\0');
    stream.read(content.data(), static_cast<std::streamsize>(content.size()));
    content.resize(static_cast<std::size_t>(stream.gcount()));
    return content;
}

/// Cuts off the text up to the separator.
std::string_view takeUntil(std::string_view& text, char separator) {
    const std::size_t end = std::min(text.find(separator), text.size());
    const std::string_view part = text.substr(0, end);
    text.remove_prefix(std::min(end + 1, text.size()));
    return part;
}

bool hasFlag(std::string_view flags, std::string_view wanted) {
    while (!flags.empty()) {
        if (takeUntil(flags, ',') == wanted) return true;
    }
    return false;
}

/// A hash that grows with each byte put in front of a text; suffixes are a few bytes, so that it may be a cheap one.
std::uint64_t hashWith(std::uint64_t hash, char c) { return std::rotl(hash, 5) ^ static_cast<unsigned char>(c); }
std::uint64_t finished(std::uint64_t hash) {
    hash *= 0x9E3779B97F4A7C15;
    return hash ^ (hash >> 29);
}

bool endsWith(std::string_view name, std::string_view suffix, bool caseCounts) {
    if (name.size() < suffix.size()) return false;
    const std::string_view end = name.substr(name.size() - suffix.size());
    if (caseCounts) return end == suffix;
    return std::ranges::equal(end, suffix, [](char a, char b) { return small(a) == b; });
}

/// What tells most names from a pattern without trying it.
struct Needs {
    std::string text;       ///< the longest that stands outside of wildcards and sets
    std::bitset<256> last;  ///< the bytes that a name may end in
};
Needs needsOf(const std::string& pattern) {
    Needs needs;
    std::string current, lastElement;
    for (std::size_t i = 0; i < pattern.size();) {
        const char c = pattern[i];
        std::size_t length = 1;
        if (c == '\\') length = 2;
        if (c == '[') {
            // A bracket that comes first in a set belongs to it.
            std::size_t begin = i + 1;
            if (begin < pattern.size() && (pattern[begin] == '!' || pattern[begin] == '^')) ++begin;
            const std::size_t end = pattern.find(']', begin + 1);
            length = end == std::string::npos ? pattern.size() - i : end + 1 - i;
        }
        if (kWildcards.find(c) == std::string_view::npos) {
            current += c;
            if (current.size() > needs.text.size()) needs.text = current;
        } else {
            current.clear();
        }
        lastElement = pattern.substr(i, length);
        i += length;
    }
    for (unsigned byte = 1; byte < 256; ++byte) {
        const char text[2] = {static_cast<char>(byte), '\0'};
        // What a set says of bytes that are parts of characters is left to the pattern itself.
        needs.last.set(byte, byte >= 0x80 || ::fnmatch(lastElement.c_str(), text, 0) == 0);
    }
    return needs;
}

}  // namespace

/// "50:text/x-csrc:*.c:cs": weight, type, pattern, flags; later fields are for others.
struct NameIndex::Line {
    int weight = 0;
    std::string_view type, pattern;
    LetterCase letterCase = LetterCase::ignored;

    static std::optional<Line> parse(std::string_view text) {
        if (text.starts_with('#')) return std::nullopt;
        Line line;
        const std::string_view weight = takeUntil(text, ':');
        const auto [end, error] = std::from_chars(weight.data(), weight.data() + weight.size(), line.weight);
        if (error != std::errc() || end != weight.data() + weight.size() || line.weight < 0) return std::nullopt;
        line.type = takeUntil(text, ':');
        line.pattern = takeUntil(text, ':');
        if (hasFlag(takeUntil(text, ':'), "cs")) line.letterCase = LetterCase::counts;
        if (line.type.find('/') == std::string_view::npos || line.pattern.empty()) return std::nullopt;
        if (line.pattern.size() > kLongestName || line.pattern.find('\0') != std::string_view::npos) {
            return std::nullopt;
        }
        return line;
    }
};

class NameIndex::Builder {
public:
    void addDirectory(const std::filesystem::path& directory) {
        const std::string content = contentOf(directory / "globs2");
        std::vector<Line> lines;
        std::set<std::pair<std::string_view, std::string_view>> whereCaseCounts;
        for (std::string_view rest = content; !rest.empty();) {
            if (auto line = Line::parse(takeUntil(rest, '\n'))) {
                if (line->letterCase == LetterCase::counts) whereCaseCounts.emplace(line->type, line->pattern);
                lines.push_back(*line);
            }
        }
        std::set<std::string, std::less<>> closedHere;
        for (const Line& line : lines) {
            if (line.pattern == kNoGlobs) {
                closedHere.emplace(line.type);
                continue;
            }
            // A line with a flag comes again without it, for readers that know no flags.
            const bool repeated =
                line.letterCase == LetterCase::ignored && whereCaseCounts.contains({line.type, line.pattern});
            if (!repeated && !closed_.contains(line.type)) add(line);
        }
        closed_.merge(closedHere);
    }

    NameIndex finish() {
        const auto greater = [](const Rule& a, const Rule& b) {
            if (a.weight != b.weight) return a.weight > b.weight;
            return a.pattern.size() > b.pattern.size();
        };
        std::ranges::stable_sort(index_.patterns_, greater, &Pattern::rule);
        return std::move(index_);
    }

private:
    TypeNumber numberOf(std::string_view type) {
        const auto [found, added] = numbers_.try_emplace(std::string(type), static_cast<TypeNumber>(numbers_.size()));
        if (added) index_.types_.emplace_back(type);
        return found->second;
    }

    void add(const Line& line) {
        Rule rule{line.weight, numberOf(line.type), line.letterCase, {}};
        const bool startsWithStar = line.pattern.starts_with('*');
        const std::string_view text = startsWithStar ? line.pattern.substr(1) : line.pattern;
        const bool plain = text.find_first_of(kWildcards) == std::string_view::npos && !text.empty();
        const std::string_view kept = plain ? text : line.pattern;
        const std::string key = inSmallLetters(kept);
        rule.pattern = rule.letterCase == LetterCase::counts ? std::string(kept) : key;
        if (!plain) {
            Needs needs = needsOf(rule.pattern);
            index_.patterns_.push_back({std::move(rule), std::move(needs.text), needs.last});
        } else if (!startsWithStar) {
            index_.literals_.at(key).push_back(std::move(rule));
        } else if (key.starts_with('.')) {
            index_.suffixes_.at(key).push_back(std::move(rule));
        } else {
            index_.lastOfOtherSuffixes_.set(static_cast<unsigned char>(key.back()));
            index_.otherSuffixes_.push_back(std::move(rule));
        }
    }

    NameIndex index_;
    std::unordered_map<std::string, TypeNumber> numbers_;
    std::set<std::string, std::less<>> closed_;
};

NameIndex NameIndex::load(const std::vector<std::filesystem::path>& directories) {
    Builder builder;
    for (const auto& directory : directories) builder.addDirectory(directory);
    return builder.finish();
}

std::vector<NameIndex::Rule>& NameIndex::Table::at(const std::string& text) {
    std::uint64_t hash = 0;
    for (std::size_t i = text.size(); i > 0; --i) hash = hashWith(hash, text[i - 1]);
    hash = finished(hash);
    for (std::size_t slot = slotFor(hash); slots_[slot].entry != 0; slot = (slot + 1) & (slots_.size() - 1)) {
        Entry& entry = entries_[slots_[slot].entry - 1];
        if (entry.text == text) return entry.rules;
    }
    entries_.push_back({hash, text, {}});
    longest_ = std::max(longest_, text.size());
    if (entries_.size() * 2 > slots_.size()) {
        slots_.assign(slots_.size() * 2, Slot{});
        for (std::size_t i = 0; i + 1 < entries_.size(); ++i)
            place(entries_[i].hash, static_cast<std::uint32_t>(i + 1));
    }
    place(hash, static_cast<std::uint32_t>(entries_.size()));
    return entries_.back().rules;
}

std::size_t NameIndex::Table::slotFor(std::uint64_t hash) const { return (hash >> 32) & (slots_.size() - 1); }

void NameIndex::Table::place(std::uint64_t hash, std::uint32_t entry) {
    std::size_t slot = slotFor(hash);
    while (slots_[slot].entry != 0) slot = (slot + 1) & (slots_.size() - 1);
    slots_[slot] = {static_cast<std::uint32_t>(hash), entry};
}

const std::vector<NameIndex::Rule>* NameIndex::Table::find(std::uint64_t hash, std::string_view text) const {
    for (std::size_t slot = slotFor(hash); slots_[slot].entry != 0; slot = (slot + 1) & (slots_.size() - 1)) {
        if (slots_[slot].tag != static_cast<std::uint32_t>(hash)) continue;
        const Entry& entry = entries_[slots_[slot].entry - 1];
        if (entry.text == text) return &entry.rules;
    }
    return nullptr;
}

/// The first of the greatest weight, among those that take the name's letters as they are.
const NameIndex::Rule* NameIndex::bestOf(const std::vector<Rule>* rules, std::string_view given) {
    const Rule* best = nullptr;
    if (rules == nullptr) return best;
    for (const Rule& rule : *rules) {
        if (rule.letterCase == LetterCase::counts && rule.pattern != given) continue;
        if (best == nullptr || rule.weight > best->weight) best = &rule;
    }
    return best;
}

void NameIndex::Match::consider(const Rule* candidate, std::size_t candidateLength) {
    if (candidate == nullptr) return;
    if (rule != nullptr) {
        if (candidate->weight < rule->weight) return;
        if (candidate->weight == rule->weight && candidateLength <= length) return;
    }
    rule = candidate;
    length = candidateLength;
}

const NameIndex::Rule* NameIndex::matchPattern(std::string_view name) const {
    std::array<char, kLongestName + 1> given, lower;
    std::ranges::copy(name, given.begin());
    std::ranges::transform(name, lower.begin(), small);
    given[name.size()] = lower[name.size()] = '\0';
    for (const Pattern& pattern : patterns_) {
        const char* text = pattern.rule.letterCase == LetterCase::counts ? given.data() : lower.data();
        if (!pattern.last.test(static_cast<unsigned char>(text[name.size() - 1]))) continue;
        if (std::string_view(text, name.size()).find(pattern.needed) == std::string_view::npos) continue;
        if (::fnmatch(pattern.rule.pattern.c_str(), text, 0) == 0) return &pattern.rule;
    }
    return nullptr;
}

std::optional<NameIndex::TypeNumber> NameIndex::find(std::string_view name) const {
    const std::size_t size = name.size();
    if (size == 0 || size > kLongestName) return std::nullopt;
    // One pass from the end meets every suffix, the shortest first, and with a short name the whole of it.
    std::array<char, kLongestName> lower;
    const std::size_t length = std::min(size, std::max(suffixes_.longest(), literals_.longest()));
    Match match;
    std::uint64_t hash = 0;
    for (std::size_t i = size; i > size - length; --i) {
        const char c = lower[i - 1] = small(name[i - 1]);
        hash = hashWith(hash, c);
        if (c != '.') continue;
        const std::string_view suffix(&lower[i - 1], size - (i - 1));
        match.consider(bestOf(suffixes_.find(finished(hash), suffix), name.substr(i - 1)), suffix.size());
    }
    if (length == size) {
        const Rule* literal = bestOf(literals_.find(finished(hash), {lower.data(), size}), name);
        if (literal != nullptr) return literal->type;
    }
    if (lastOfOtherSuffixes_.test(static_cast<unsigned char>(small(name.back())))) {
        for (const Rule& rule : otherSuffixes_) {
            if (endsWith(name, rule.pattern, rule.letterCase == LetterCase::counts)) {
                match.consider(&rule, rule.pattern.size());
            }
        }
    }
    if (match.rule == nullptr) match.rule = matchPattern(name);
    if (match.rule == nullptr) return std::nullopt;
    return match.rule->type;
}

}  // namespace tarnwell::mime
