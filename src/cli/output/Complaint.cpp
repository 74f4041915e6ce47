#include "cli/output/Complaint.h"

#include <cstdio>
#include <string>

namespace tarnwell::cli {

void complain(std::string_view message) {
    const std::string line = "tarnwell: " + std::string(message) + "\n";
    std::fputs(line.c_str(), stderr);
}

}  // namespace tarnwell::cli
