// A counted block of bytes.
#ifndef ORN_BUFFER_H
#define ORN_BUFFER_H

#include "orn/object.h"

namespace ORN_3_30 {

/// A block of bytes. The pointer is valid as long as the buffer lives; null if the memory could not be had.
class IBuffer : public ISymMgrObject {
public:
    /// Size in bytes.
    virtual unsigned long long size() = 0;
    virtual unsigned char* data() = 0;

protected:
    ~IBuffer() = default;
};

} // namespace ORN_3_30

#endif
