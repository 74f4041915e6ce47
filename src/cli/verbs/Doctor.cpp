#include <algorithm>
#include <cstdlib>
#include <iterator>
#include <nlohmann/json.hpp>

#include "cli/output/ItemJson.h"
#include "cli/output/Table.h"
#include "cli/output/Text.h"
#include "cli/verbs/ServiceChecks.h"
#include "cli/verbs/Verb.h"
#include "host/Checks.h"
#include "platform/icons/ProcessIconRenderer.h"

namespace tarnwell::cli {
namespace {

using host::Check;

Style styleOf(Check::State state) {
    switch (state) {
        case Check::State::good:
            return Style::good;
        case Check::State::note:
            return Style::dim;
        case Check::State::warning:
            return Style::warning;
        case Check::State::broken:
            return Style::bad;
    }
    return Style::plain;
}

std::optional<std::string> environmentVariable(const char* name) {
    const char* value = std::getenv(name);
    return value != nullptr && *value != '\0' ? std::optional<std::string>(value) : std::nullopt;
}

class DoctorVerb : public Verb {
public:
    const char* name() const override { return "doctor"; }
    const char* summary() const override {
        return "Check this machine: folders, attributes, store, limits, applications, the service";
    }
    const char* example() const override { return "tarnwell doctor          exit status 1 if something is broken"; }

    Outcome run(Invocation& invocation) override {
        const auto checks = examine(invocation);
        Table table({{"STATE"}, {"WHAT"}, {"FOUND"}});
        std::string broken;
        for (const Check& check : checks) {
            if (check.state == Check::State::broken) broken += (broken.empty() ? "" : ", ") + check.subject;
            if (invocation.json()) {
                nlohmann::ordered_json json = {{"check", check.subject},
                                               {"state", host::nameOf(check.state)},
                                               {"finding", toUtf8(check.finding)},
                                               {"advice", nullptr}};
                if (!check.advice.empty()) json["advice"] = toUtf8(check.advice);
                invocation.output().line(jsonLine(json));
            } else {
                std::string finding = toDisplay(check.finding);
                if (!check.advice.empty()) finding += "; " + toDisplay(check.advice);
                table.add({{std::string(host::nameOf(check.state)), styleOf(check.state)}, {check.subject}, {finding}});
            }
        }
        table.write(invocation.output());
        if (broken.empty()) return {};
        return std::unexpected(Failure{ExitStatus::failed, "broken: " + broken + "; the list says what to do"});
    }

private:
    static std::vector<Check> examine(Invocation& invocation) {
        std::vector<Check> checks;
        const auto settings = host::Settings::fromEnvironment(invocation.options().storage);
        if (!settings) {
            checks.push_back({"settings", Check::State::broken, failureOf(settings.error()).message, {}});
            return checks;
        }
        checks.push_back(host::checkStorageRoot(*settings));
        const bool hasStorageRoot = checks.back().state != Check::State::broken;
        if (hasStorageRoot) {
            checks.push_back(host::checkAttributes("storage root", settings->storageRoot));
            checks.push_back(host::checkFileSystem("storage root", settings->storageRoot));
        }
        checks.push_back(host::checkWritable("application support", settings->applicationSupport));
        checks.push_back(host::checkWritable("state", settings->stateDirectory));
        checks.push_back(host::checkFileTypes(*settings, environmentVariable));
        std::ranges::move(host::checkRegistrySources(settings->registrySources), std::back_inserter(checks));
        checks.push_back(host::checkIconRenderer(icons::ProcessIconRenderer::programBesideThisOne()));
        if (hasStorageRoot) {
            if (auto session = invocation.session()) {
                addKnown(**session, checks);
            } else {
                checks.push_back({"start", Check::State::broken, session.error().message, {}});
            }
        }
        std::ranges::move(host::checkWatchLimits("/proc/sys/fs"), std::back_inserter(checks));
        std::ranges::move(checkService(), std::back_inserter(checks));
        std::ranges::move(host::checkCallers({}, "/sys/module/apparmor/parameters/enabled"),
                          std::back_inserter(checks));
        return checks;
    }

    /// What the host knows.
    static void addKnown(session::Session& session, std::vector<Check>& checks) {
        if (const auto status = session.status()) {
            checks.push_back(host::checkStore(*status));
        } else {
            checks.push_back({"store", Check::State::broken, failureOf(status.error()).message, {}});
        }
        if (const auto applications = session.applications()) {
            std::ranges::move(host::checkAppLibraries(*applications), std::back_inserter(checks));
        } else {
            checks.push_back({"app libraries", Check::State::broken, failureOf(applications.error()).message, {}});
        }
    }
};

}  // namespace

std::unique_ptr<Verb> makeDoctorVerb() { return std::make_unique<DoctorVerb>(); }

}  // namespace tarnwell::cli
