#!/usr/bin/env python3
"""The include check must find what is wrong and be silent where nothing is."""
import pathlib
import tempfile
import unittest

import check_includes

ARROWS = """
base: | system
middle: base |
top: middle base | system fmt
top/deep: base |
"""


class CheckIncludes(unittest.TestCase):
    def complaints(self, files, arrows=ARROWS):
        with tempfile.TemporaryDirectory() as folder:
            source = pathlib.Path(folder)
            for name, text in files.items():
                path = source / name
                path.parent.mkdir(parents=True, exist_ok=True)
                path.write_text(text, encoding="utf-8")
            return check_includes.check(source, check_includes.read_arrows(arrows))

    def test_allowed_includes_are_silent(self):
        self.assertEqual([], self.complaints({
            "base/A.h": "#include <vector>\n#include <fcntl.h>\n#include <sys/stat.h>\n",
            "middle/B.h": '#include "base/A.h"\n#include <cstdint>\n',
            "top/C.cpp": '#include "middle/B.h"\n#include <fmt/format.h>\n',
        }))

    def test_upward_includes_are_found(self):
        self.assertEqual(["base/A.h:2: base may not include middle/B.h"], self.complaints({
            "base/A.h": '\n#include "middle/B.h"\n', "middle/B.h": ""}))

    def test_third_party_headers_are_found(self):
        self.assertEqual(["middle/B.h:1: middle may not include <fmt/format.h> (fmt)",
                          "middle/B.h:2: middle may not include <fcntl.h> (system)"],
                         self.complaints({"middle/B.h": "#include <fmt/format.h>\n#  include <fcntl.h>\n"}))

    def test_a_sub_folder_with_its_own_line_has_its_own_rights(self):
        self.assertEqual(["top/deep/D.h:1: top/deep may not include middle/B.h"], self.complaints({
            "top/deep/D.h": '#include "middle/B.h"\n', "middle/B.h": ""}))

    def test_paths_that_lead_nowhere_are_found(self):
        self.assertEqual(["top/C.h:1: top includes C2.h, which is no path below src/"],
                         self.complaints({"top/C.h": '#include "C2.h"\n', "top/C2.h": ""}))

    def test_unknown_folders_are_found(self):
        self.assertEqual(["new/N.h: its folder has no line in the arrows"], self.complaints({"new/N.h": ""}))

    def test_circles_are_found(self):
        self.assertEqual(["the arrows form a circle: a -> b -> a"], self.complaints({}, "a: b |\nb: a |\n"))


if __name__ == "__main__":
    unittest.main()
