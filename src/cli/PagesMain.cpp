#include <filesystem>
#include <fstream>
#include <iostream>

#include "cli/pages/Completions.h"
#include "cli/pages/ManualPages.h"

using namespace tarnwell::cli;

/// tarnwell-pages FOLDER DATE: the manual of the program into FOLDER/man, its completions into FOLDER.
int main(int argumentCount, char** arguments) {
    if (argumentCount != 3) {
        std::cerr << "usage: tarnwell-pages FOLDER DATE\n";
        return 2;
    }
    const std::filesystem::path folder(arguments[1]);
    const pages::Edition edition{TARNWELL_VERSION, arguments[2]};
    std::error_code failed;
    std::filesystem::create_directories(folder / "man", failed);
    bool isWritten = true;
    const auto write = [&](const std::string& name, const std::string& text) {
        std::ofstream file(folder / name, std::ios::binary);
        file << text;
        file.close();
        if (file) return;
        std::cerr << "tarnwell-pages: " << (folder / name) << " could not be written\n";
        isWritten = false;
    };
    const Commands commands;
    const auto program = pages::declarationsOf(commands);
    write("man/tarnwell.1", pages::programPage(program, edition));
    for (const auto& verb : program.verbs) {
        write("man/tarnwell-" + verb.name + ".1", pages::verbPage(program, verb, edition));
    }
    write("tarnwell.bash", pages::bashCompletion(program));
    write("_tarnwell", pages::zshCompletion(program));
    write("tarnwell.fish", pages::fishCompletion(program));
    return isWritten ? 0 : 1;
}
