#include "cli/pages/ManualPages.h"

#include <gtest/gtest.h>

#include "cli/pages/Roff.h"

namespace tarnwell::cli::pages {
namespace {

TEST(RoffTest, ATextStandsAsItIs) {
    struct Row {
        const char* text;
        const char* roff;
    };
    const Row rows[] = {
        {"", ""},
        {"plain words", "plain words"},
        {".SH is no heading", "\\&.SH is no heading"},
        {"first\n.second", "first\n\\&.second"},
        {"a.b", "a.b"},
        {"'quoted'", "\\(aqquoted\\(aq"},
        {"--sort", "\\-\\-sort"},
        {"C:\\dir", "C:\\edir"},
        {"~/x ^ ` \"", "\\(ti/x \\(ha \\(ga \\(dq"},
        {"ITEM… PARENT", "ITEM\\[u2026] PARENT"},
        {"\xf0\x9f\x93\x84", "\\[u1F4C4]"},
    };
    for (const Row& row : rows) EXPECT_EQ(roffText(row.text), row.roff) << row.text;
}

TEST(ManualPagesTest, AVerbsPageSaysWhatWasDeclared) {
    ProgramDeclaration program;
    program.options = {{.names = {"-h", "--help"}, .help = "Print this help message and exit"},
                       {.names = {"--storage"}, .label = "DIR", .kind = Kind::folder, .help = "The storage root"}};
    VerbDeclaration verb{.name = "do-it", .summary = "Do what is asked", .example = "", .options = {}, .arguments = {}};
    verb.options.push_back(program.options[0]);
    verb.options.push_back({.names = {"-s", "--size"},
                            .label = "N",
                            .help = "Pixels a side",
                            .constraint = "from 1 to 9",
                            .defaultValue = "4"});
    verb.options.push_back({.names = {"--to"},
                            .label = "now|later",
                            .kind = Kind::choice,
                            .choices = {"now", "later"},
                            .help = "When",
                            .isRequired = true});
    verb.arguments = {{.label = "ITEM", .kinds = {Kind::item}, .help = "What", .isRequired = false, .repeats = true}};
    verb.example = "tarnwell do-it 'a b'     the first\n.hidden";

    EXPECT_EQ(verbPage(program, verb, {"1.2", "2024-05-01"}),
              ".TH TARNWELL\\-DO\\-IT 1 2024-05-01 \"Tarnwell 1.2\" \"User Commands\"\n"
              ".SH NAME\ntarnwell\\-do\\-it \\- do what is asked\n"
              ".SH SYNOPSIS\n.B tarnwell do\\-it\n[\\fB\\-\\-size\\fR \\fIN\\fR]\n"
              "\\fB\\-\\-to\\fR \\fBnow\\fR|\\fBlater\\fR\n[\\fIITEM\\fR\\[u2026]]\n"
              ".SH ARGUMENTS\n.TP\n\\fIITEM\\fR\nWhat.\n"
              ".SH OPTIONS\n.TP\n\\fB\\-h\\fR, \\fB\\-\\-help\\fR\nPrint this help message and exit.\n"
              ".TP\n\\fB\\-s\\fR, \\fB\\-\\-size\\fR \\fIN\\fR\n"
              "Pixels a side. A number from 1 to 9. Without it: 4.\n"
              ".TP\n\\fB\\-\\-to\\fR \\fBnow\\fR|\\fBlater\\fR\nWhen.\n"
              ".PP\nThese may be given with every verb:\n"
              ".TP\n\\fB\\-\\-storage\\fR \\fIDIR\\fR\nThe storage root.\n"
              ".SH EXAMPLES\n.TP\n\\fBtarnwell do\\-it \\(aqa b\\(aq\\fR\nthe first.\n"
              ".TP\n\\fB\\&.hidden\\fR\n\\&\n"
              ".SH EXIT STATUS\n.TP\n\\fB0\\fR\nDone.\n.TP\n\\fB1\\fR\nFailed; one line on standard error says why.\n"
              ".TP\n\\fB2\\fR\nWrong usage; nothing was done.\n"
              ".TP\n\\fB3\\fR\nThe anchor has expired: list the container anew.\n"
              ".SH SEE ALSO\n.BR tarnwell (1)\n");
}

TEST(ManualPagesTest, TheProgramsPageNamesEveryVerb) {
    const Commands commands;
    const auto program = declarationsOf(commands);
    const std::string page = programPage(program, {"1.2", "2024-05-01"});
    ASSERT_FALSE(program.verbs.empty());
    for (const auto& verb : program.verbs) {
        EXPECT_NE(page.find(".BR " + roffText("tarnwell-" + verb.name) + " (1)\n"), std::string::npos) << verb.name;
    }
}

}  // namespace
}  // namespace tarnwell::cli::pages
