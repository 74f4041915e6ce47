#include "platform/files/BackupName.h"

#include <gtest/gtest.h>

namespace tarnwell::files {
namespace {

TEST(BackupName, TellsTheNamesThatProgramsGiveToOldVersions) {
    struct Row {
        const char* original;
        const char* aside;
        bool isBackup;
    };
    const Row kRows[] = {
        {"a.txt", "a.txt~", true},
        {"a.txt", "a.txt.bak", true},
        {"a.txt", "a.txt.~12~", true},
        {"a.txt", "#a.txt#", true},
        {"a.txt", "a.bak", true},
        {"a.txt", "a.txt.orig", true},
        {"a.txt", "a.txt", false},
        {"a.txt", "b.txt~", false},
        {"a.txt", "a.txt.~~", false},
        {"a.txt", "a.txt.~x~", false},
        {"a.txt", "a.txtx", false},
        {"a.txt", "#b.txt#", false},
        {".a", ".bak", false},
        {"", "~", true},
        {"a", "", false},
        {"a.txt", "elsewhere", false},
        {"a.txt", "a.txt.bak2", false},
    };
    for (const Row& row : kRows) {
        EXPECT_EQ(row.isBackup, isBackupName(row.original, row.aside)) << row.original << " -> " << row.aside;
    }
}

}  // namespace
}  // namespace tarnwell::files
