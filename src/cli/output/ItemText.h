#pragma once

#include "cli/output/Output.h"
#include "cli/output/Table.h"
#include "session/Item.h"

/// Items as people read them.
namespace tarnwell::cli {

/// The columns of a listing, and the row of one item under the name that it is listed by.
Table listingTable();
std::vector<Table::Cell> listingRow(const session::Item& item, const std::string& name);

/// Every field that says something, one a line.
void writeRecord(Output& output, const session::Item& item);

}  // namespace tarnwell::cli
