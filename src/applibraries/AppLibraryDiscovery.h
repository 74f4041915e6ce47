#pragma once

#include <vector>

#include "applibraries/AppLibraryServices.h"

/// Finds the applications that keep documents.
namespace tarnwell::applibraries {

/// The records of the qualifying applications in registry order, those of the user's installations first. An
/// application qualifies when it has a data container and either declares "UISupportsDocumentBrowser" or both opens
/// documents in place and shares its files. Stops the process if there is no registry at all. Looks at the disk; any
/// thread.
std::vector<registry::BundleRecordPtr> retrieveBundleRecords(items::ProgramLog& log, registry::AppRegistry& registry);

/// Compares the registry with the main cache and writes a new generation there when the two differ. True when a
/// generation was written; false when nothing changed or the file cannot be written (logged). Changes no manager. Any
/// thread but the main cache's queue; two at once write one generation, not two.
bool refreshAppLibraries(const AppLibraryServices& services);

}  // namespace tarnwell::applibraries
