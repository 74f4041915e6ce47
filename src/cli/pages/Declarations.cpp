#include "cli/pages/Declarations.h"

#include <algorithm>
#include <array>
#include <string_view>
#include <utility>

namespace tarnwell::cli::pages {
namespace {

constexpr std::array kLabels = {
    std::pair<std::string_view, Kind>{"ITEM", Kind::item},
    std::pair<std::string_view, Kind>{"PARENT", Kind::item},
    std::pair<std::string_view, Kind>{"FILE", Kind::file},
    std::pair<std::string_view, Kind>{"PATH", Kind::file},
    std::pair<std::string_view, Kind>{"DIR", Kind::folder},
    std::pair<std::string_view, Kind>{"BUNDLE", Kind::application},
    std::pair<std::string_view, Kind>{"AGE", Kind::text},
    std::pair<std::string_view, Kind>{"ANCHOR", Kind::text},
    std::pair<std::string_view, Kind>{"DATE", Kind::text},
    std::pair<std::string_view, Kind>{"N", Kind::text},
    std::pair<std::string_view, Kind>{"NAME", Kind::text},
    std::pair<std::string_view, Kind>{"QUERY", Kind::text},
    std::pair<std::string_view, Kind>{"TAG", Kind::text},
    std::pair<std::string_view, Kind>{"TYPE", Kind::text},
    // Where nothing was said, the library calls them by the type of their variable.
    std::pair<std::string_view, Kind>{"TEXT", Kind::text},
    std::pair<std::string_view, Kind>{"INT", Kind::text},
    std::pair<std::string_view, Kind>{"UINT", Kind::text},
};
constexpr std::string_view kMore = "…";

std::vector<std::string> cut(const std::string& text, char at) {
    std::vector<std::string> parts;
    for (std::size_t begin = 0; begin <= text.size();) {
        const std::size_t end = std::min(text.find(at, begin), text.size());
        parts.push_back(text.substr(begin, end - begin));
        begin = end + 1;
    }
    return parts;
}

/// The words of "{name,date}"; none for any other text.
std::vector<std::string> choicesIn(const std::string& text) {
    if (text.size() < 3 || !text.starts_with('{') || !text.ends_with('}')) return {};
    return cut(text.substr(1, text.size() - 2), ',');
}

/// "from 16 to 1024" for "UINT in [16 - 1024]"; empty for any other text.
std::string rangeIn(const std::string& text) {
    const std::size_t begin = text.find(" in ["), middle = text.find(" - ");
    if (begin == std::string::npos || middle == std::string::npos || !text.ends_with(']')) return {};
    return "from " + text.substr(begin + 5, middle - begin - 5) + " to " +
           text.substr(middle + 3, text.size() - middle - 4);
}

class Reader {
public:
    std::vector<Option> options(const CLI::App& app) {
        std::vector<Option> result;
        for (const CLI::Option* option : visible(app)) {
            if (!option->get_positional()) result.push_back(this->option(*option));
        }
        return result;
    }

    std::vector<Argument> arguments(const CLI::App& app) {
        std::vector<Argument> result;
        for (const CLI::Option* option : visible(app)) {
            if (!option->get_positional()) continue;
            const std::string label = option->get_name(true);
            result.push_back({label, kindsIn(label), option->get_description(), option->get_required(),
                              option->get_items_expected_max() > 1});
        }
        return result;
    }

    std::vector<std::string> unknownLabels;

private:
    static std::vector<const CLI::Option*> visible(const CLI::App& app) {
        return app.get_options([](const CLI::Option* option) { return !option->get_group().empty(); });
    }

    Option option(const CLI::Option& declared) {
        Option option;
        for (const auto& name : declared.get_snames()) option.names.push_back("-" + name);
        for (const auto& name : declared.get_lnames()) option.names.push_back("--" + name);
        option.help = declared.get_description();
        option.isRequired = declared.get_required();
        if (declared.get_items_expected_max() == 0) return option;
        option.repeats = declared.get_items_expected_max() > 1;
        option.defaultValue = declared.get_default_str();
        // The label and what the checks of the value say of themselves, with colons between.
        auto parts = cut(declared.get_type_name(), ':');
        option.label = parts.front();
        option.kind = kindsIn(option.label).front();
        for (std::size_t i = 1; i < parts.size(); ++i) {
            if (option.choices.empty()) option.choices = choicesIn(parts[i]);
            if (option.constraint.empty()) option.constraint = rangeIn(parts[i]);
        }
        if (option.choices.empty()) return option;
        option.kind = Kind::choice;
        option.label = "";
        for (const auto& choice : option.choices) option.label += (option.label.empty() ? "" : "|") + choice;
        return option;
    }

    std::vector<Kind> kindsIn(const std::string& label) {
        if (auto kinds = kindsOf(label)) return *kinds;
        unknownLabels.push_back(label);
        return {Kind::text};
    }
};

}  // namespace

std::optional<std::vector<Kind>> kindsOf(const std::string& label) {
    std::vector<Kind> kinds;
    for (const std::string& word : cut(label, ' ')) {
        std::string_view name = word;
        if (name.ends_with(kMore)) name.remove_suffix(kMore.size());
        name = name.substr(0, name.find('|'));
        const auto known = std::ranges::find(kLabels, name, &std::pair<std::string_view, Kind>::first);
        if (known == kLabels.end()) return std::nullopt;
        kinds.push_back(known->second);
    }
    return kinds;
}

ProgramDeclaration declarationsOf(const Commands& commands) {
    Reader reader;
    ProgramDeclaration program;
    program.description = commands.app.get_description();
    program.footer = commands.app.get_footer();
    program.options = reader.options(commands.app);
    for (const auto& verb : commands.verbs) {
        const CLI::App& declared = *commands.app.get_subcommand(verb->name());
        if (declared.get_group().empty()) continue;
        program.verbs.push_back(
            {verb->name(), verb->summary(), verb->example(), reader.options(declared), reader.arguments(declared)});
    }
    program.unknownLabels = std::move(reader.unknownLabels);
    return program;
}

}  // namespace tarnwell::cli::pages
