#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <iterator>
#include <vector>

#include "fuzz/Fuzz.h"

/// Runs a fuzz target once on every file of the given folders, so that the corpus is also tested without a fuzzer.
/// Fails on a folder without files. A check that fails stops the process after the name of the file was printed.
int main(int argc, char** argv) {
    std::size_t count = 0;
    for (int i = 1; i < argc; ++i) {
        std::vector<std::filesystem::path> paths;
        std::error_code trouble;
        for (const auto& entry : std::filesystem::directory_iterator(argv[i], trouble)) paths.push_back(entry.path());
        std::ranges::sort(paths);
        if (trouble || paths.empty()) {
            std::cerr << argv[i] << ": no files to replay\n";
            return 1;
        }
        for (const auto& path : paths) {
            std::cout << path.string() << std::endl;
            std::ifstream file(path, std::ios::binary);
            const std::vector<char> content((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
            // A copy that ends with its allocation, so that a sanitizer sees a read past the end.
            const std::vector<std::uint8_t> bytes(content.begin(), content.end());
            LLVMFuzzerTestOneInput(bytes.data(), bytes.size());
            ++count;
        }
    }
    std::cout << count << " inputs replayed\n";
    return count == 0 ? 1 : 0;
}
