#include "tour/Tour.h"

#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <iostream>

#include "platform/filesystem/PlainFile.h"

namespace tarnwell::tour {
namespace {

constexpr std::size_t kShownLines = 3;
const std::string kGroceries = "home/.var/app/org.example.Notes/Documents/Groceries.md";

std::string shellLine(const std::vector<std::string>& words) {
    std::string line;
    for (const std::string& word : words) line += (line.empty() ? "" : " ") + shellWord(word);
    return line;
}

}  // namespace

std::string shellWord(const std::string& word) {
    constexpr std::string_view kPlain = "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789_-./:,+@%=";
    if (!word.empty() && word.find_first_not_of(kPlain) == std::string::npos) return word;
    std::string quoted = "'";
    for (const char c : word) quoted += c == '\'' ? std::string("'\\''") : std::string(1, c);
    return quoted + "'";
}

Result<void> Tour::writeEnvironmentFile() const {
    std::string text = "# Points Tarnwell at the sample device. Source it in a shell of its own: it changes HOME.\n";
    for (const auto& [name, value] : device_.environment()) {
        text += value ? "export " + name + "=" + shellWord(*value) + "\n" : "unset " + name + "\n";
    }
    std::error_code code;
    const auto program = std::filesystem::absolute(program_, code);
    if (!code) text += "export PATH=" + shellWord(program.parent_path().string()) + ":\"$PATH\"\n";
    return filesystem::writeFileAtomically(device_.root + "/env.sh", bytesOf(text));
}

EnvironmentChanges Tour::environmentWith(const EnvironmentChanges& further) const {
    EnvironmentChanges changes = device_.environment();
    for (const auto& [name, value] : further) changes[name] = value;
    return changes;
}

void Tour::heading(const std::string& text) const {
    const bool coloured = isatty(STDOUT_FILENO) == 1;
    std::cout << (coloured ? "\n\x1b[1m" : "\n== ") << text << (coloured ? "\x1b[0m\n" : "\n");
}

void Tour::command(const std::vector<std::string>& arguments, const EnvironmentChanges& further) {
    std::vector<std::string> words{program_};
    words.insert(words.end(), arguments.begin(), arguments.end());
    std::vector<std::string> assignments;
    for (const auto& [name, value] : further) assignments.push_back(name + "=" + value.value_or(""));
    std::cout << "$ " << shellLine(assignments) << (assignments.empty() ? "" : " ") << shellLine(words) << std::endl;
    const auto outcome = run(words, environmentWith(further), Output::shown);
    if (outcome && outcome->status == 0) return;
    everythingWorked_ = false;
    std::cout << "(" << (outcome ? "exit status " + std::to_string(outcome->status) : describe(outcome.error())) << ")"
              << std::endl;
}

void Tour::many() {
    const std::vector<std::string> words{program_, "--json", "ls", place("home/Documents/Many")};
    std::cout << "$ " << shellLine(words) << std::endl;
    const auto outcome = run(words, device_.environment(), Output::captured);
    if (!outcome || outcome->status != 0) {
        everythingWorked_ = false;
        std::cout << "(" << (outcome ? "exit status " + std::to_string(outcome->status) : describe(outcome.error()))
                  << ")" << std::endl;
        return;
    }
    const std::string& text = outcome->output;
    const auto lines = static_cast<std::size_t>(std::ranges::count(text, '\n'));
    std::size_t shown = 0;
    for (std::size_t i = 0; i < std::min(kShownLines, lines); ++i) shown = text.find('\n', shown) + 1;
    std::cout << text.substr(0, shown);
    if (lines > kShownLines) std::cout << "… and " << lines - kShownLines << " more lines\n";
    std::cout << lines << " entries were listed, " << kManyEntries << " are there." << std::endl;
    if (lines != kManyEntries) everythingWorked_ = false;
}

void Tour::failed(const std::string& reason) {
    everythingWorked_ = false;
    std::cout << "(" << reason << ")" << std::endl;
}

/// Files change while the program is not running; it tells what happened since the mark.
void Tour::changes() {
    const auto anchor = run({program_, "anchor", "root"}, device_.environment(), Output::captured);
    if (!anchor || anchor->status != 0) return failed("no anchor");
    std::string mark = anchor->output;
    while (mark.ends_with('\n')) mark.pop_back();
    std::cout << "$ MARK=$(" << shellWord(program_) << " anchor root)\n";
    const std::string script =
        "cd " + shellWord(device_.root + "/home/Documents") +
        " && mv Letter.txt Names/ && echo new > Plan.txt && sed -i 's/./&/' Plan.txt && mkdir -p Trip/Photos"
        " && echo x > Trip/Photos/list.txt";
    std::cout << "$ " << "cd home/Documents; mv Letter.txt Names/; echo new > Plan.txt; sed -i 's/./&/' Plan.txt; "
              << "mkdir -p Trip/Photos; echo x > Trip/Photos/list.txt" << std::endl;
    const auto changed = run({"sh", "-c", script}, {}, Output::shown);
    if (!changed || changed->status != 0) return failed("the files could not be changed");
    std::cout << "$ " << shellWord(program_) << " changes root --since \"$MARK\"" << std::endl;
    const auto told = run({program_, "changes", "root", "--since", mark}, device_.environment(), Output::shown);
    if (!told || told->status != 0) failed("the changes were not told");
}

/// Does one thing after the other while the program follows a container, and shows what it tells of each.
void Tour::follow(const std::string& container, const std::vector<Happening>& happenings) {
    const std::vector<std::string> words{program_, "changes", container, "--follow"};
    std::cout << "$ " << shellLine(words) << " &" << std::endl;
    auto following = FollowedProgram::start(words, device_.environment());
    if (!following) return failed(describe(following.error()));
    constexpr auto kPatience = std::chrono::seconds(20);
    if (const auto first = following->line(kPatience); !first) return failed("it told no anchor");
    for (const Happening& happening : happenings) {
        std::cout << "$ " << happening.command << std::endl;
        const auto done =
            run({"sh", "-c", "cd " + shellWord(device_.root) + " && " + happening.command}, {}, Output::shown);
        if (!done || done->status != 0) return failed("the files could not be changed");
        for (;;) {
            const auto line = following->line(kPatience);
            if (!line) return failed("it told nothing of that");
            if (line->starts_with("anchor") || line->find(happening.about) == std::string::npos) continue;
            std::cout << *line << std::endl;
            if (line->ends_with(happening.last)) break;
        }
    }
    if (const int status = following->end(); status != 0) failed("exit status " + std::to_string(status));
}

/// The same while the program runs.
void Tour::liveChanges() {
    follow("workingset", {{"echo hello > home/.var/app/org.example.Notes/Documents/Live.md", "/Live.md", "/Live.md"}});
}

void Tour::applications() {
    const std::string entry = "home/.local/share/applications/net.example.Charts.desktop";
    const std::string charts = "#net.example.Charts";
    const std::string documents = device_.root + "/home/Apps/Charts/Documents";
    std::error_code code;
    std::filesystem::create_directories(documents, code);
    const auto made = filesystem::writeFileAtomically(documents + "/Port.txt", bytesOf(std::string_view("54N\n")));
    if (!made) return failed(describe(made.error()));
    follow("root",
           {{"printf '[Desktop Entry]\\nType=Application\\nName=Charts\\nX-Tarnwell-DataContainer=~/Apps/Charts\\n"
             "X-Tarnwell-SupportsDocumentBrowser=true\\n' > " +
                 entry,
             "Charts", "/Port.txt"},
            {"rm " + entry, charts, charts}});
}

/// One document on its way: in, through the trash, and out again with all that it had.
void Tour::operations() {
    const std::string file = device_.root + "/home/Plan.md";
    if (auto written = filesystem::writeFileAtomically(file, bytesOf(std::string_view("# A plan\n"))); !written) {
        return failed(describe(written.error()));
    }
    const std::string notes = "#org.example.Notes";
    const std::string plan = "home/.var/app/org.example.Notes/Documents/Journal/Plan.md";
    command({"import", place("home/Plan.md"), place("home/.var/app/org.example.Notes/Documents/Journal")});
    command({"tag", place(plan), "urgent", "Berlin"});
    command({"trash", place(plan)});
    command({"restore", place("home/.var/app/org.example.Notes/Documents/.Trash/Plan.md")});
    command({"move", place(plan), notes, "--name", "The plan.md"});
    command({"ls", notes});
}

bool Tour::show() {
    heading("A sample device");
    std::cout << "In " << folder_ << " is now a home of one person, with applications and their documents:\n"
              << "  Notes     a Flatpak of this person    home/.var/app/org.example.Notes\n"
              << "  Sketches  a Flatpak of the system     home/.var/app/org.example.Sketches\n"
              << "  Scanner   a Snap                      home/snap/scanner/current\n"
              << "  Maps      a program with a container  home/Apps/Maps\n"
              << "  Viewer    keeps no documents, so it gets no library\n"
              << "Your own files are not touched. All commands below run with the variables of " << place("env.sh")
              << ".\n";
    for (const std::string& remark : device_.remarks) std::cout << "Note: " << remark << "\n";

    heading("Applications that keep documents");
    command({"apps"});
    heading("The same in German: names are read live");
    command({"apps"}, {{"LANGUAGE", "de"}});
    heading("The top of the storage");
    command({"ls", "root"});
    heading("One application's library");
    std::cout
        << "Hidden files, the Inbox and the trash are not listed; a link that leads out is shown, never followed.\n";
    command({"ls", "#org.example.Notes"});
    heading("One file in full");
    command({"info", place(kGroceries)});
    command({"--json", "info", place(kGroceries)});
    heading("Names that are hard to show");
    command({"ls", place("home/Documents/Names")});
    heading("A folder of " + std::to_string(kManyEntries) + " entries");
    many();
    heading("A document that is brought in, tagged, trashed, restored and moved");
    operations();
    heading("Found by a part of its name, or a tag");
    command({"search", "tag:urgent", "plan"});
    command({"search", "grocer"});
    heading("An application's icon, as large as this screen wants it");
    command({"thumbnail", "#org.example.Notes", "-o", place("notes.png")});
    heading("What changed since a mark, also while nothing was running");
    changes();
    heading("Changes as they happen");
    liveChanges();
    heading("An application is installed, and removed again");
    applications();
    next();
    return everythingWorked_;
}

void Tour::next() const {
    heading("Go on yourself");
    std::cout << "Open a shell on the device, then try:\n\n"
              << "  bash\n"
              << "  . " << shellWord(place("env.sh")) << "\n"
              << "  tarnwell ls '#org.example.Notes' --recursive\n"
              << "  tarnwell id " << shellWord(place(kGroceries)) << "\n"
              << "  tarnwell path '#snap.scanner'\n"
              << "  tarnwell changes root --follow\n"
              << "  tarnwell doctor\n"
              << "  exit\n\n"
              << "For your own storage and applications, without the sample device: " << shellWord(program_)
              << " apps\n";
}

}  // namespace tarnwell::tour
