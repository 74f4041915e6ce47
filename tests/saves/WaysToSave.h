#pragma once

#include <functional>
#include <map>
#include <ostream>
#include <string>
#include <vector>

namespace tarnwell::saves {

/// Where a save is made: a document in its folder, and a folder elsewhere on the same file system for what the program
/// needs beside it.
struct Desk {
    std::string folder;     ///< real path of the folder that holds the document
    std::string name;       ///< of the document in it
    std::string elsewhere;  ///< real path of a folder outside of every root

    std::string path() const { return folder + "/" + name; }
    /// Runs a program in the document's folder; any end but success fails the test with what it said.
    void run(const std::vector<std::string>& arguments, const std::string& input = "",
             const std::map<std::string, std::string>& variables = {}) const;
    /// The same for a shell script, whose $1 is the document's name, $2 the new text and $3 the folder elsewhere.
    void shell(const std::string& script, const std::string& text) const;
};

/// One way in which programs save a document.
struct Way {
    std::string title;
    std::vector<std::string> programs;  ///< those it needs; all of them are on the search path
    /// Makes `text`, one line with its line end, the content of the document, which has a single line too.
    std::function<void(const Desk&, const std::string& text)> save;
    bool isSlow = false;  ///< of the long form of the tests
};

const std::vector<Way>& waysToSave();

inline std::ostream& operator<<(std::ostream& out, const Way& way) { return out << way.title; }

}  // namespace tarnwell::saves
