#pragma once

#include "hostframework/ProviderExtension.h"
#include "provider/ItemLookup.h"

/// What the outcome of one of the host's file operations means to who asked for it.
namespace tarnwell::provider {

/// The error as the host knows it: "file exists" becomes the host's collision error with the item that is there, if it
/// is known and has one; every other error stays as it is.
Error operationError(const ItemLookup& lookup, const Error& error);

/// Completes an operation with the item that now stands at the URL, or with the error above.
void completeWithItem(const ItemLookup& lookup, const Result<URL>& outcome,
                      const hostframework::ItemCompletion& completion);

}  // namespace tarnwell::provider
