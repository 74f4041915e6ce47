#!/usr/bin/env python3
"""Fails where the description of the bus interface is not what the server's tables say.

Argument: the project's folder. Exit status 77 where there is no server in this tree.
"""
import pathlib
import re
import sys
import xml.etree.ElementTree as xml

project = pathlib.Path(sys.argv[1])
server = project / "src/bus/server"
if not (server / "Methods.cpp").is_file():
    print("skipped: there is no server on the bus in this tree")
    sys.exit(77)


def arguments(types, names, where):
    """(type, name) of each: a signature is cut where a complete type ends."""
    cut, depth, start = [], 0, 0
    for at, letter in enumerate(types):
        depth += (letter in "({") - (letter in ")}")
        if depth == 0 and letter != "a":
            cut.append(types[start:at + 1])
            start = at + 1
    if len(cut) != len(names.split()):
        raise SystemExit(f"{where}: {types} has {len(cut)} types, and there are the names {names}")
    return list(zip(cut, names.split()))


entry = r'\{"(\w+)", "([^"]*)", "([^"]*)", "([^"]*)",\s+"([^"]*)"\}'
interfaces = {"org.tarnwell.Host1": {}, "org.tarnwell.Job1": {}}
for member in re.finditer(r"Method\{" + entry, (server / "Methods.cpp").read_text(encoding="utf-8")):
    name, types_in, names_in, types_out, names_out = member.groups()
    interfaces["org.tarnwell.Host1"]["method", name] = (
        arguments(types_in, names_in, name), arguments(types_out, names_out, name))
for member in re.finditer(r"(host|job)Table_\.(method|signal)\(" + entry,
                          (server / "Server.cpp").read_text(encoding="utf-8")):
    table, kind, name, types_in, names_in, types_out, names_out = member.groups()
    interfaces["org.tarnwell.Host1" if table == "host" else "org.tarnwell.Job1"][kind, name] = (
        arguments(types_in, names_in, name), arguments(types_out, names_out, name))

described = {}
for interface in xml.parse(project / "packaging/dbus/org.tarnwell.Host1.xml").getroot().findall("interface"):
    members = described.setdefault(interface.get("name"), {})
    for member in interface:
        found = ([], [])
        for argument in member.findall("arg"):
            is_in = argument.get("direction", "out") == "in"
            found[0 if is_in else 1].append((argument.get("type"), argument.get("name")))
        members[member.tag, member.get("name")] = found

complaints = []
for name, members in interfaces.items():
    if len(members) < 2:
        complaints.append(f"{name}: the tables of the server are not where this test looks for them")
    for member in sorted(members.keys() | described.get(name, {}).keys()):
        has, says = members.get(member), described.get(name, {}).get(member)
        if has != says:
            complaints.append(f"{name} {' '.join(member)}: the server has {has}, the description says {says}")
print("\n".join(complaints))
sys.exit(1 if complaints else 0)
