#include "fs/FSEventClassifier.h"

#include <gtest/gtest.h>

namespace tarnwell::fs {
namespace {

TEST(HiddenBelowRoot, OnlyDotComponentsBelowTheRootHideExceptItsOwnTrash) {
    struct Row {
        std::string_view path;
        bool hidden;
    };
    for (const Row& row :
         {Row{"/home/a/Documents", false}, Row{"/home/a/Documents/file", false}, Row{"/home/a/Documents/.file", true},
          Row{"/home/a/Documents/folder/.file", true}, Row{"/home/a/Documents/.folder/file", true},
          Row{"/home/a/Documents/.Trash", false}, Row{"/home/a/Documents/.Trash/file", false},
          Row{"/home/a/Documents/.Trash/folder/file", false}, Row{"/home/a/Documents/.Trash/.file", true},
          Row{"/home/a/Documents/.Trash/.Trash", true}, Row{"/home/a/Documents/.Trashes/file", true},
          Row{"/home/a/Documents/folder/.Trash/file", true}, Row{"/home/a/Documents/Documents/.Trash", true},
          Row{"/home/a/Documents/a.b/c.", false}, Row{"/home/.a/Documents/file", false},
          Row{"/.tarnwell/%2Fmnt%2F.x/Documents/file", false}, Row{"/home/.a/file", false}, Row{"/", false},
          Row{"", false}}) {
        EXPECT_EQ(isHiddenBelowRoot(row.path), row.hidden) << row.path;
    }
}

}  // namespace
}  // namespace tarnwell::fs
