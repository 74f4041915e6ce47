#include <nlohmann/json.hpp>

#include "cli/output/ItemJson.h"
#include "cli/output/Table.h"
#include "cli/output/Text.h"
#include "cli/verbs/Verb.h"

namespace tarnwell::cli {
namespace {

/// Only Flatpak keeps what a person installed apart from what the system has.
std::string originOf(const session::Application& application) {
    if (!application.origin) return "-";
    const std::string origin = toDisplay(*application.origin);
    return origin == "flatpak" ? origin + " (" + toDisplay(application.installedFor.value_or("system")) + ")" : origin;
}

nlohmann::ordered_json textOrNull(const std::optional<std::string>& text) {
    return text ? nlohmann::ordered_json(toUtf8(*text)) : nlohmann::ordered_json(nullptr);
}

/// The item, and what is known of the application that keeps it.
nlohmann::ordered_json libraryJson(const session::Application& application) {
    auto json = itemJson(application.item);
    json["origin"] = textOrNull(application.origin);
    json["installedFor"] = textOrNull(application.installedFor);
    json["containerPath"] = textOrNull(application.containerPath);
    if (application.containerPath && !isUtf8(*application.containerPath)) {
        json["containerPathBytes"] = base64(bytesOf(*application.containerPath));
    }
    return json;
}

class AppsVerb : public Verb {
public:
    const char* name() const override { return "apps"; }
    const char* summary() const override { return "List the app libraries: applications that keep documents here"; }
    const char* example() const override {
        return "tarnwell apps          every application, where it comes from, how much it keeps and where";
    }

    Outcome run(Invocation& invocation) override {
        auto session = invocation.session();
        if (!session) return std::unexpected(session.error());
        const auto applications = (*session)->applications();
        if (!applications) return std::unexpected(failureOf(applications.error()));
        Output& output = invocation.output();

        Table table({{"IDENTIFIER"}, {"ITEMS", Table::Align::right}, {"FROM"}, {"NAME"}, {"FOLDER"}});
        for (const auto& application : *applications) {
            if (invocation.json()) {
                output.line(jsonLine(libraryJson(application)));
                continue;
            }
            const session::Item& item = application.item;
            table.add({{toDisplay(item.identifier), Style::dim},
                       {item.childItemCount ? grouped(*item.childItemCount) : "-"},
                       {originOf(application)},
                       {toDisplay(item.filename), Style::library},
                       {toDisplay(item.path)}});
        }
        table.write(output);
        if (applications->empty() && !invocation.json()) {
            output.line(
                "No installed application keeps documents here; \"tarnwell doctor\" says where they are looked for.");
        }
        return {};
    }
};

}  // namespace

std::unique_ptr<Verb> makeAppsVerb() { return std::make_unique<AppsVerb>(); }

}  // namespace tarnwell::cli
