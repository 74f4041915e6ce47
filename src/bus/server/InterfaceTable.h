#pragma once

#include <systemd/sd-bus.h>

#include <list>
#include <string>
#include <vector>

#include "bus/server/Methods.h"

namespace tarnwell::bus {

/// The methods and signals of one interface as libsystemd wants them (sd_bus_add_object_vtable(3)). Lives as long as
/// the connection that it was given to.
class InterfaceTable {
public:
    InterfaceTable();
    void method(const Signature& signature, sd_bus_message_handler_t handler);
    void signal(const Signature& signature);
    /// After the last one.
    const sd_bus_vtable* finish();

private:
    const char* namesOf(const Signature& signature);

    std::vector<sd_bus_vtable> entries_;
    std::list<std::string> names_;
};

}  // namespace tarnwell::bus
