// A location inside one module.
#ifndef ORN_ADDRESS_H
#define ORN_ADDRESS_H

#include "orn/object.h"

namespace ORN_3_30 {

class ISegment;

/// A location inside a module. Three address spaces, all unsigned 64-bit: the pseudo address is the address
/// that the location has if the module is loaded at its preferred load address; the RVA is the pseudo
/// address minus that load address; the file offset is where the byte lies in the module's file. Where a
/// module really ran is the client's business.
///
/// An address must not outlive the bank that it came from.
class IAddress : public ISymMgrObject {
public:
    virtual unsigned long long rva() = 0;
    virtual unsigned long long pseudoAddr() = 0;
    /// The segment that holds the address, borrowed from the module; may be null.
    virtual ISegment* segment() = 0;
    /// Offset inside the segment; all ones without a segment.
    virtual unsigned long long segmentOffset() = 0;
    /// Offset in the module's file; all ones if the address has no bytes in the file.
    virtual unsigned long long fileOffset() = 0;
    /// Comparisons of the pseudo addresses, unsigned.
    virtual bool equals(IAddress& other) = 0;
    virtual bool notEquals(IAddress& other) = 0;
    virtual bool greaterThan(IAddress& other) = 0;
    virtual bool lessThan(IAddress& other) = 0;

protected:
    ~IAddress() = default;
};

} // namespace ORN_3_30

#endif
