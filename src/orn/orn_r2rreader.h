// Tells whether a managed module carries native code made ahead of time.
#ifndef ORN_R2RREADER_H
#define ORN_R2RREADER_H

#include "orn/types.h"
#include "orn_pe.h"

#include <cstdint>
#include <span>

namespace ORN_3_30 {

class File;

/// What the reader takes of the headers of a PE module.
struct PEHeaderBlock {
    std::span<const IMAGE_SECTION_HEADER> sectionHeaders;
    arch_t arch = arch_unknown;
    std::uint32_t comDescriptorRva = 0; ///< 0 if the module is not managed
};

/// All is done in construction; afterwards neither the file nor the headers are needed.
class ReadyToRunReader {
public:
    ReadyToRunReader() = default;
    ReadyToRunReader(File* file, const PEHeaderBlock& headers);

    arch_t getArch() const { return m_arch; }
    bool isReadyToRun() const { return m_isReadyToRun; }

private:
    bool readNativeHeaderRva(const PEHeaderBlock& headers, std::uint32_t& rva);
    bool readSignature(std::uint32_t offset);

    arch_t m_arch = arch_unknown;
    File* m_file = nullptr; ///< during construction only
    bool m_isReadyToRun = false;
};

} // namespace ORN_3_30

#endif
