// How a dying format loader reaches the registry of the symbol manager, which stands on a higher floor.
#ifndef ORN_FFL_REGISTRY_H
#define ORN_FFL_REGISTRY_H

#include "orn/file_format_loader.h"

namespace ORN_3_30::internal {

/// Takes the entry of a loader out of the registry, if there is a manager. It must not hold the creation lock
/// while it takes the registry lock: it keeps the manager alive by a counted copy instead.
using ReleaseFormatLoader = void (*)(IFileFormatLoader*);

/// Set once, by the static initialiser of the manager's source. Without one a loader just dies.
void setReleaseFormatLoader(ReleaseFormatLoader release) noexcept;

/// What was set; null: nothing.
ReleaseFormatLoader releaseFormatLoader() noexcept;

} // namespace ORN_3_30::internal

#endif
