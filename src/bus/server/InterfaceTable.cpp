#include "bus/server/InterfaceTable.h"

#include <algorithm>
#include <cstring>

namespace tarnwell::bus {
namespace {

/// What is not set of its union has to be 0.
sd_bus_vtable entryOf(char type) {
    sd_bus_vtable entry;
    std::memset(&entry, 0, sizeof entry);
    entry.type = static_cast<std::uint8_t>(type);
    return entry;
}

}  // namespace

InterfaceTable::InterfaceTable() {
    sd_bus_vtable start = entryOf(_SD_BUS_VTABLE_START);
    start.x.start.element_size = sizeof(sd_bus_vtable);
    start.x.start.features = _SD_BUS_VTABLE_PARAM_NAMES;
    start.x.start.vtable_format_reference = &sd_bus_object_vtable_format;
    entries_.push_back(start);
}

void InterfaceTable::method(const Signature& signature, sd_bus_message_handler_t handler) {
    sd_bus_vtable entry = entryOf(_SD_BUS_VTABLE_METHOD);
    entry.flags = SD_BUS_VTABLE_UNPRIVILEGED;
    entry.x.method.member = signature.name;
    entry.x.method.signature = signature.in;
    entry.x.method.result = signature.out;
    entry.x.method.handler = handler;
    entry.x.method.names = namesOf(signature);
    entries_.push_back(entry);
}

void InterfaceTable::signal(const Signature& signature) {
    sd_bus_vtable entry = entryOf(_SD_BUS_VTABLE_SIGNAL);
    entry.x.signal.member = signature.name;
    entry.x.signal.signature = signature.out;
    entry.x.signal.names = namesOf(signature);
    entries_.push_back(entry);
}

const sd_bus_vtable* InterfaceTable::finish() {
    entries_.push_back(entryOf(_SD_BUS_VTABLE_END));
    return entries_.data();
}

/// Those of the arguments and of the results, each with a NUL behind it.
const char* InterfaceTable::namesOf(const Signature& signature) {
    std::string& names = names_.emplace_back();
    for (const char* list : {signature.inNames, signature.outNames}) {
        if (*list == '\0') continue;
        names += list;
        names += ' ';
    }
    std::ranges::replace(names, ' ', '\0');
    return names.c_str();
}

}  // namespace tarnwell::bus
