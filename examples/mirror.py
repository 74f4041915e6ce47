#!/usr/bin/python3
"""Prints what a library or folder holds, and every change of it: mirror.py '#org.example.Notes'"""
import sys
from gi.repository import Gio, GLib

BUS = Gio.bus_get_sync(Gio.BusType.SESSION)
NAME, PATH, NOTHING = "org.tarnwell.Host1", "/org/tarnwell/Host1", GLib.Variant("ay", b"")

def ask(method, signature, *arguments):
    given = GLib.Variant.new_tuple(*(GLib.Variant(s, a) if not isinstance(a, GLib.Variant) else a
                                     for s, a in zip(signature, arguments)))
    return BUS.call_sync(NAME, PATH, NAME, method, given, None, Gio.DBusCallFlags.NONE, -1)

def items_below(container):
    page = NOTHING
    while True:
        answer = ask("Enumerate", ["s", "ay"], container, page)
        for item in answer.unpack()[0]:
            yield item
            if item["isFolder"]:
                yield from items_below(item["itemIdentifier"])
        page = answer.get_child_value(1)
        if page.n_children() == 0:
            return

def follow(container, anchor):
    while True:
        answer = ask("Changes", ["s", "ay"], container, anchor)
        for identifier, item in answer.unpack()[0]:
            print("update" if item else "delete", identifier, bytes(item["path"]).decode(errors="replace") if item else "", flush=True)
        anchor = answer.get_child_value(1)
        if not answer.unpack()[2]:
            return anchor

container = sys.argv[1]
ask("Watch", ["s"], container)
state = {"anchor": ask("CurrentAnchor", ["s"], container).get_child_value(0)}  # before the listing
for item in items_below(container):
    print("update", item["itemIdentifier"], bytes(item["path"]).decode(errors="replace"), flush=True)
def changed(*_): state["anchor"] = follow(container, state["anchor"])
BUS.signal_subscribe(NAME, NAME, "ContainerChanged", PATH, container, Gio.DBusSignalFlags.NONE, changed)
changed()
GLib.MainLoop().run()
