// Reader of the debug files of the newer GPU compiler.
#ifndef ORN_DILKOR_LUN_UTILS_H
#define ORN_DILKOR_LUN_UTILS_H

#include "orn_dilkor_parser.h"

#include <map>
#include <utility>

namespace ORN_3_30 {

/// Head of the file, as it lies there.
struct SProgramDebugDataHeaderLUN {
    FileWord Unused0;
    FileWord Version;
    FileWord Unused8;
    FileWord LimitA;
    FileWord LimitB;
    FileWord Alignment;
    FileWord NumberOfKernels;
};
static_assert(sizeof(SProgramDebugDataHeaderLUN) == 28);

/// Head of a kernel's record. Behind it stand the name, padded to whole words, and the two streams.
struct SKernelDebugDataHeaderLUN {
    FileWord KernelNameSize;
    FileWord SizeMiraDbgInBytes;
    FileWord SizeKorIsaDbgInBytes;
};
static_assert(sizeof(SKernelDebugDataHeaderLUN) == 12);

/// The newer format: for each kernel of a program an ELF object with DWARF, whose addresses are instructions
/// of a virtual machine, and a stream that tells which machine code became of them.
///
/// The ELF object is read where it lies in the file, and so the parser knows the file's path.
class KorLunDebugInfoParser : public SymMgrObject<IKorDebugInfoParser> {
public:
    using LineEntries = std::vector<KorTavLineEntry>;
    /// Instructions of the virtual machine and the offsets of their machine code.
    using InstructionMap = std::vector<std::pair<unsigned, unsigned>>;

    /// load() has to follow; create() does both.
    KorLunDebugInfoParser(IBuffer* buffer, const char* path);

    /// Whether the buffer, which may be the head of a file, is of this format. The last argument has no
    /// meaning here.
    static bool validate(const SymMgrObjectPtr<IBuffer>& buffer, unsigned arch, bool);
    /// The least bytes that validate() wants.
    static std::size_t minimumSize();
    /// Sets `out` on `status_Ok` alone.
    static status_t create(SymMgrObjectPtr<KorLunDebugInfoParser>& out,
                           const SymMgrObjectPtr<IBuffer>& buffer, const char* path);

    /// Indexes the kernels.
    status_t load();

    /// Those with a name of their own.
    unsigned getNumberOfKernels() override;
    status_t getKernelNames(std::vector<std::string>& out) override;
    status_t getSourceFileNames(const std::string& kernel, std::vector<std::string>& out) override;
    status_t getLines(const std::string& kernel, LineEntries& out, IAddressMapping* mapping) override;

    /// Null if there is no such kernel. Good as long as the buffer lives.
    const SKernelDebugDataHeaderLUN* findKernel(const std::string& kernel) const;
    // The streams of a kernel in the buffer; null where they do not lie in it.
    const unsigned char* miraStream(const SKernelDebugDataHeaderLUN* kernelHeader) const;
    const unsigned char* korIsaStream(const SKernelDebugDataHeaderLUN* kernelHeader) const;
    /// Where the ELF object of a kernel lies in the file. False if the file has no such kernel.
    bool findMiraImage(const std::string& kernel, unsigned long long& fileOffset) const;

    /// Joins rows whose addresses are instructions with the code of these instructions: one row of machine
    /// code for each run with the same position.
    static status_t mergeLines(const LineEntries& miraLineInfo, const InstructionMap& isaLineInfo,
                               LineEntries& out);

private:
    using Bytes = const unsigned char*;

    unsigned long long offsetOf(const void* place) const {
        return static_cast<unsigned long long>(static_cast<Bytes>(place) - m_debugInfo->data());
    }
    bool fits(Bytes ptr, unsigned long long size, const char* expression) const;
    bool fitsKernelHeader(Bytes ptr) const;
    status_t indexKernel(Bytes& ptr);
    std::string nameOf(const SKernelDebugDataHeaderLUN& kernelHeader) const;
    bool streamOffsets(const SKernelDebugDataHeaderLUN* kernelHeader, unsigned long long& miraOffset,
                       unsigned long long& korIsaOffset) const;
    status_t readInstructionMap(const std::string& kernel, const SKernelDebugDataHeaderLUN* kernelHeader,
                                const SymMgrObjectPtr<IBuffer>& isaDbgInfo, InstructionMap& out) const;

    // orn_dilkor_lun_utils_mira.cpp
    status_t readMiraLines(const SKernelDebugDataHeaderLUN* kernelHeader, LineEntries& out) const;
    status_t readMiraFiles(const SKernelDebugDataHeaderLUN* kernelHeader,
                           std::vector<std::string>& out) const;

    SymMgrObjectPtr<IBuffer> m_debugInfo;
    std::map<std::string, const SKernelDebugDataHeaderLUN*> m_kernels; ///< into the buffer
    std::string m_path;
};

} // namespace ORN_3_30

#endif
