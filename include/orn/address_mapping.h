// Translation from generated addresses to kernel addresses of GPU code.
#ifndef ORN_ADDRESS_MAPPING_H
#define ORN_ADDRESS_MAPPING_H

#include "orn/object.h"
#include "orn/status.h"

namespace ORN_3_30 {

/// Maps addresses of generated code to those of the kernel binary.
class IAddressMapping : public ISymMgrObject {
public:
    /// Converts both ends of an interval in place.
    virtual status_t convert(unsigned long long& low, unsigned long long& high) = 0;
    virtual void addMapping(unsigned long long from, unsigned long long to) = 0;

protected:
    ~IAddressMapping() = default;
};

} // namespace ORN_3_30

#endif
