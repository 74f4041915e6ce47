#!/usr/bin/env python3
"""Writes the golden files beside this script. It shares no code with the program: what the tests compare byte by byte comes
from another implementation of the same formats. Run it after a deliberate change of a format, and read the difference."""

import datetime
import pathlib
import plistlib

# One object, because the encoder of this language writes UIDs once for each object, not for each value.
NULL = plistlib.UID(0)
HERE = pathlib.Path(__file__).resolve().parent


class Archive:
    """Puts objects into the object table of a keyed archive, each before what it refers to, then its class record."""

    def __init__(self):
        self.objects = ["$null"]
        self.classes = {}

    def append(self, value):
        self.objects.append(value)
        return plistlib.UID(len(self.objects) - 1)

    def class_record(self, name):
        if name not in self.classes:
            self.classes[name] = self.append({"$classname": name, "$classes": [name, "TWObject"]})
        return self.classes[name]

    def classed(self, name, fields):
        uid = self.append(None)
        self.objects[uid.data] = {**fields(), "$class": self.class_record(name)}
        return uid

    def date(self, moment):
        passed = moment - datetime.datetime(1970, 1, 1, tzinfo=datetime.timezone.utc)
        microseconds = passed // datetime.timedelta(microseconds=1)
        return self.classed("TWDate", lambda: {"nanoseconds": microseconds * 1000})

    def array(self, adders):
        return self.classed("TWArray", lambda: {"elements": [add() for add in adders]})

    def dictionary(self, adders):
        return self.classed(
            "TWDictionary",
            lambda: {"keys": [self.append(key) for key in adders], "elements": [add() for add in adders.values()]},
        )

    def record(self, identifier, path, origin, kind):
        def fields():
            strings = [self.append(s) if s is not None else NULL for s in (identifier, path)]
            return {"bundleIdentifier": strings[0], "dataContainerPath": strings[1], "origin": origin, "type": kind}

        return self.classed("TWBundleRecord", fields)

    def bytes(self, root):
        return dumps(
            {
                "$version": 100000,
                "$archiver": "TWKeyedArchiver",
                "$top": {"root": root},
                "$objects": self.objects,
            }
        )


def dumps(value):
    return plistlib.dumps(value, fmt=plistlib.FMT_BINARY, sort_keys=False)


def write(name, content):
    (HERE / name).write_bytes(content)


def main():
    write(
        "change-token.plist",
        dumps(
            {
                "version": 0,
                "deviceUUID": "3F2504E0-4F89-11D3-9A0C-0305E82C3301",
                "streamEventID": 18446744073709551615,
                "offset": 200,
                "appLibraryVersionToken": 3,
            }
        ),
    )

    archive = Archive()
    moment = datetime.datetime(2024, 2, 29, 12, 34, 56, 789012, tzinfo=datetime.timezone.utc)
    write("date-attribute.plist", archive.bytes(archive.date(moment)))

    archive = Archive()
    write("number-attribute.plist", archive.bytes(archive.append(1099511627776)))

    archive = Archive()
    write("string-attribute.plist", archive.bytes(archive.append("Reports/Über uns.txt")))

    archive = Archive()
    labels = ["Red", "Årsrapport", "🎼 Noten"]
    write(
        "tags-attribute.plist",
        archive.bytes(archive.array([lambda label=label: archive.append(label) for label in labels])),
    )

    archive = Archive()
    records = [
        ("org.example.notes", "/home/user/.var/app/org.example.notes/data", 0, 0),
        (None, "/home/user/Écrits", 2, 0),
        ("plain-reader", b"/home/user/snap/\xff\xfe", 1, 2),
        ("org.example.empty", None, 0, 2),
    ]
    add_records = [lambda record=record: archive.record(*record) for record in records]
    root = archive.dictionary(
        {"versionToken": lambda: archive.append(5), "bundleProxy": lambda: archive.array(add_records)}
    )
    write("app-library-cache.plist", archive.bytes(root))


if __name__ == "__main__":
    main()
