// Recognition of a module file for callers inside the library.
#ifndef ORN_FFL_CREATE_H
#define ORN_FFL_CREATE_H

#include "orn/file_format_loader.h"

namespace ORN_3_30::internal {

/// IFileFormatLoader::create, trace included, but an allocation failure stays an exception: the public
/// operation around it reports it, and it alone.
status_t createFileFormatLoader(SymMgrObjectPtr<IFileFormatLoader>& out,
                                const SymMgrObjectPtr<IModuleImage>& image, const char* kernelName);

} // namespace ORN_3_30::internal

#endif
