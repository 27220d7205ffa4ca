// A location inside one module, over the module's format loader.
#ifndef ORN_ADDRESS_IMPL_H
#define ORN_ADDRESS_IMPL_H

#include "orn/address.h"

namespace ORN_3_30 {

class IFileFormatLoader;

/// Not protected while it works out its file offset: two threads at worst compute the same value twice.
class Address : public SymMgrObject<IAddress> {
public:
    /// `loader` is not counted: the address must not outlive its bank.
    Address(IFileFormatLoader* loader, ILock* lock);
    Address(IFileFormatLoader* loader, unsigned long long pseudoAddr, ILock* lock);

    unsigned long long rva() override;
    unsigned long long pseudoAddr() override { return m_pseudoAddr; }
    ISegment* segment() override;
    unsigned long long segmentOffset() override;
    unsigned long long fileOffset() override;
    bool equals(IAddress& other) override { return m_pseudoAddr == other.pseudoAddr(); }
    bool notEquals(IAddress& other) override { return m_pseudoAddr != other.pseudoAddr(); }
    bool greaterThan(IAddress& other) override { return m_pseudoAddr > other.pseudoAddr(); }
    bool lessThan(IAddress& other) override { return m_pseudoAddr < other.pseudoAddr(); }

    /// Replaces the pseudo address; a file offset that is known already stays.
    void setPseudoAddr(unsigned long long pseudoAddr) { m_pseudoAddr = pseudoAddr; }

private:
    unsigned long long keepFileOffset(unsigned long long offset, unsigned long long endOfBytes);

    IFileFormatLoader* m_loader;
    unsigned long long m_pseudoAddr;
    unsigned long long m_fileOffset;
    bool m_hasNoFileOffset; ///< the address was found to have no bytes in the file
};

} // namespace ORN_3_30

#endif
