#pragma once

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "host/ItemOperations.h"
#include "host/Paths.h"
#include "host/ProgramContext.h"
#include "host/SearchCatchUp.h"
#include "testing/CapturingLog.h"
#include "testing/TemporaryDirectory.h"
#include "testing/Variables.h"

namespace tarnwell::host {

using testing::makeDirectories;
using testing::writeFile;
using Texts = std::vector<std::string>;

/// A home with two applications and a search index.
class SearchTest : public ::testing::Test {
protected:
    SearchTest() {
        makeDirectories(documents_);
        install("Notes");
        install("Maps");
        log_.setThreshold(log::Level::error);
    }
    ~SearchTest() override { context_.reset(); }

    std::string entryOf(const std::string& name) const {
        return home_ + "/.local/share/applications/" + name + ".desktop";
    }
    void install(const std::string& name) {
        makeDirectories(home_ + "/Apps/" + name + "/Documents");
        makeDirectories(home_ + "/.local/share/applications");
        writeFile(entryOf(name), "[Desktop Entry]\nType=Application\nName=" + name +
                                     "\nExec=true\nX-Tarnwell-DataContainer=~/Apps/" + name +
                                     "\nX-Tarnwell-SupportsDocumentBrowser=true\n");
    }
    void uninstall(const std::string& name) { ASSERT_EQ(std::remove(entryOf(name).c_str()), 0); }

    Settings settings() const {
        const std::map<std::string, std::string> variables{
            {"HOME", home_}, {"XDG_DATA_DIRS", home_ + "/system"}, {"LANG", language_}};
        auto result = Settings::from(testing::variables(variables), std::nullopt);
        EXPECT_TRUE(result);
        return *result;
    }
    /// The context; made, as by a new start of the program, where there is none.
    ProgramContext& context() {
        if (!context_) {
            auto context = ProgramContext::create(settings(), log_);
            if (!context) throw std::runtime_error(describe(context.error()));
            context_ = std::move(*context);
            context_->prepareForRequests();
        }
        return *context_;
    }
    void end() { context_.reset(); }

    Result<void> tryToCatchUp(SearchCatchUp::Progress progress = {}) {
        SearchCatchUp catchUp(context().provider(), context().searchIndex());
        catchUp.reportTo(std::move(progress));
        return catchUp.run();
    }
    void catchUp() {
        const auto done = tryToCatchUp();
        ASSERT_TRUE(done) << describe(done.error());
    }
    Texts linesOf(SearchIndex& index) {
        const auto lines = index.lines();
        if (lines) return *lines;
        ADD_FAILURE() << describe(lines.error());
        return {};
    }
    /// What an index of its own holds that is filled now.
    Texts freshLines() {
        testing::TemporaryDirectory directory;
        SearchIndex fresh(directory.path("fresh"), context().store().uuid(), log_);
        SearchCatchUp catchUp(context().provider(), fresh);
        const auto done = catchUp.run();
        EXPECT_TRUE(done) << describe(done.error());
        return linesOf(fresh);
    }
    void expectEqualToTheDisk() {
        const Texts known = linesOf(context().searchIndex()), fresh = freshLines();
        Texts missing, surplus;
        std::ranges::set_difference(fresh, known, std::back_inserter(missing));
        std::ranges::set_difference(known, fresh, std::back_inserter(surplus));
        EXPECT_EQ(missing, Texts{});
        EXPECT_EQ(surplus, Texts{});
    }

    Texts found(const std::string& text, search::Search search = {}) {
        const auto query = search::parseQuery(text);
        EXPECT_TRUE(query) << text;
        search.query = *query;
        const auto hits = context().searchIndex().find(search);
        if (!hits) {
            ADD_FAILURE() << describe(hits.error());
            return {};
        }
        Texts names;
        for (const auto& hit : *hits) names.push_back(hit.name);
        std::ranges::sort(names);
        return names;
    }

    hostframework::ItemIdentifier identifierOf(const std::string& path) {
        const auto url = urlForPath(context().roots(), path);
        const auto identifier = url ? identifierForURL(context(), *url) : std::nullopt;
        EXPECT_TRUE(identifier) << path;
        return identifier.value_or("");
    }
    void make(const std::string& path, const std::string& content = "x") {
        makeDirectories(path.substr(0, path.rfind('/')));
        writeFile(path, content);
    }
    std::string note(const std::string& relative) const { return notes_ + "/" + relative; }
    std::string document(const std::string& relative) const { return documents_ + "/" + relative; }
    std::string databasePath() const { return home_ + "/.cache/tarnwell/search.sqlite"; }

    testing::TemporaryDirectory directory_;
    const std::string home_ = directory_.path("home");
    const std::string documents_ = home_ + "/Documents", notes_ = home_ + "/Apps/Notes/Documents",
                      maps_ = home_ + "/Apps/Maps/Documents";
    testing::CapturingLog log_;
    std::string language_ = "C";
    std::unique_ptr<ProgramContext> context_;
};

}  // namespace tarnwell::host
