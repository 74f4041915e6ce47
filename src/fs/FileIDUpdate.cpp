#include "fs/FileIDUpdate.h"

namespace tarnwell::fs {

void updateFileIDInGenstore(const FSEnvironment& environment, const hostframework::ProviderItem& item) {
    environment.items.log.debug([] { return "updating file ID in genstore"; });
    (void)environment.items.generationStore.permanentStorage(item.fileURL());
}

}  // namespace tarnwell::fs
