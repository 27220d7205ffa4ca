// Address: turns a pseudo address into an RVA, a segment offset and a file offset through the loader's
// segments and sections. Made by the loaders and handed out by every query. It reads no file.

#include "orn_address.h"

#include "orn/file_format_loader.h"
#include "orn_log.h"

namespace ORN_3_30 {

namespace {
constexpr unsigned long long noOffset = ~0ULL;
}

Address::Address(IFileFormatLoader* loader, ILock* lock) : Address(loader, 0, lock) {}

Address::Address(IFileFormatLoader* loader, unsigned long long pseudoAddr, ILock* lock)
    : SymMgrObject<IAddress>(lock),
      m_loader(loader),
      m_pseudoAddr(pseudoAddr),
      m_fileOffset(noOffset),
      m_hasNoFileOffset(false) {}

unsigned long long Address::rva() {
    return m_pseudoAddr - m_loader->getImageBase();
}

ISegment* Address::segment() {
    return m_loader->findSegment(m_pseudoAddr);
}

unsigned long long Address::segmentOffset() {
    ISegment* holder = segment();
    if (!holder)
        return noOffset;
    return m_pseudoAddr - holder->getRva() - m_loader->getImageBase();
}

unsigned long long Address::fileOffset() {
    if (m_hasNoFileOffset || m_fileOffset != noOffset)
        return m_fileOffset;
    ISegment* holder = m_loader->findSegment(m_pseudoAddr);
    ISection* section = m_loader->findSection(m_pseudoAddr);
    // The segment of a kernel that is not on disk: all ones mark that it has no bytes in any file.
    if (holder && holder->getFileOffset() == noOffset)
        return keepFileOffset(noOffset, 0);
    if (holder)
        return keepFileOffset(m_pseudoAddr - holder->getRva() - m_loader->getImageBase() +
                                  holder->getFileOffset(),
                              holder->getFileOffset() + holder->getFileSize());
    // Quirk: a section's address is not relative to the image base, and the base is subtracted all the same.
    if (section)
        return keepFileOffset(m_pseudoAddr - section->getAddress() - m_loader->getImageBase() +
                                  section->getFileOffset(),
                              section->getFileOffset() + section->getSize());
    return noOffset;
}

/// The end itself is accepted, so that the address one past the last byte maps. Beyond it lies the
/// zero-filled tail, which has no bytes in the file; that is remembered too.
unsigned long long Address::keepFileOffset(unsigned long long offset, unsigned long long endOfBytes) {
    m_fileOffset = offset > endOfBytes ? noOffset : offset;
    m_hasNoFileOffset = m_fileOffset == noOffset;
    return m_fileOffset;
}

} // namespace ORN_3_30
