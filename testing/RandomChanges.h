#pragma once

#include <cstdint>
#include <random>
#include <string>
#include <vector>

namespace tarnwell::testing {

/// Somebody who works in a folder at random: makes, writes, renames, moves, swaps, links, hides and removes files,
/// folders, links and pipes. The same seed on an empty folder gives the same work. One thread at a time.
class RandomChanges {
public:
    struct Options {
        /// The tree is kept at about this many names.
        std::size_t mostNames = 200;
        /// Links that are made lead here as often as to a place inside.
        std::string outside = "/nonexistent";
        bool makesHardLinks = true;
        /// No hard link is made there, and none to a file there; "" for wherever it works.
        std::string areaWithoutHardLinks = "";
        /// Folders below the root, in which it works and which it leaves where they are; "" is the root itself.
        std::vector<std::string> areas = {""};
        /// Also what the programs of a desktop do: more ways to save, memory maps, tags and ranks, trash, packages,
        /// archives that are unpacked, trees of some hundred names. Forks, so not for a process with threads.
        bool isWide = false;
    };
    /// The suffix of the names that it gives to folders that are to be packages.
    static constexpr const char* kPackageSuffix = ".docbundle";

    RandomChanges(std::string root, std::uint64_t seed, Options options);

    /// One piece of work; what cannot be done is left. Returns it in words, for a failure's account.
    std::string step();

    std::uint64_t below(std::uint64_t bound) { return random_() % bound; }
    /// A path below the root that was there a moment ago; empty when there is none.
    const std::string& anyPath();

private:
    void lookAround();
    std::string folder();
    std::string file();
    std::string anywhere();
    std::string freshName();
    std::string absolute(const std::string& relative) const;
    std::string create();
    std::string change();
    std::string rename();
    std::string save();
    std::string hide();
    std::string remove();
    std::string wide();
    std::string writeInPlace();
    std::string saveAnew();
    std::string mark();
    std::string trash();
    std::string packUp();
    std::string tree();
    std::string unpack();
    std::string moveTop();
    std::string area();

    const std::string root_;
    const Options options_;
    std::mt19937_64 random_;
    std::vector<std::string> all_, folders_, files_;
    unsigned sinceLook_ = 0;
    const std::string none_;
};

}  // namespace tarnwell::testing
