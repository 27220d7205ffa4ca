// PE files.
#ifndef ORN_FFLPE_H
#define ORN_FFLPE_H

namespace ORN_3_30 {

/// Whether the file carries the signatures of a PE file. Looks at the contents alone, whatever the name.
bool isPE(const char* path);

} // namespace ORN_3_30

#endif
