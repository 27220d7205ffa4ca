// Reader of the debug files of the older GPU compiler.
#ifndef ORN_DILKOR_TAV_UTILS_H
#define ORN_DILKOR_TAV_UTILS_H

#include "orn_dilkor_parser.h"

namespace ORN_3_30 {

/// Head of the file, as it lies there. What has no meaning here is the writer's alone.
struct SProgramDebugDataHeaderTAV {
    FileWord Unused00;
    FileWord Version;
    FileWord Unused08;
    FileWord StringTableSize;
    FileWord Unused10;
    FileWord KernelDataOffset; ///< in bytes, from the second of the counts behind the strings
    FileWord LimitA;
    FileWord LimitB;
    FileWord Alignment;
    FileWord NumberOfKernels;
    FileWord NumberOfKernelData;
};
static_assert(sizeof(SProgramDebugDataHeaderTAV) == 0x2c);

/// The older format: strings and line tables of all kernels of a program, in one small file.
class KorTavDebugInfoParser : public SymMgrObject<IKorDebugInfoParser> {
public:
    /// load() has to follow; create() does both.
    explicit KorTavDebugInfoParser(IBuffer* buffer);

    /// Whether the buffer, which may be the head of a file, is of this format. `false` for one that may be of
    /// the newer format. The last argument has no meaning here.
    static bool validate(const SymMgrObjectPtr<IBuffer>& buffer, unsigned arch, bool);
    /// The least bytes that validate() wants.
    static std::size_t minimumSize();
    /// Sets `out` on `status_Ok` alone.
    static status_t create(SymMgrObjectPtr<IKorDebugInfoParser>& out, const SymMgrObjectPtr<IBuffer>& buffer);

    /// Finds the tables and the strings. After a failure the file counts as not read.
    status_t load();

    /// As the header says; 0 if none is read.
    unsigned getNumberOfKernels() override;
    status_t getKernelNames(std::vector<std::string>& out) override;
    /// The same for every kernel.
    status_t getSourceFileNames(const std::string& kernel, std::vector<std::string>& out) override;
    /// `mapping` is not used: this format speaks of the kernel's own code.
    status_t getLines(const std::string& kernel, std::vector<KorTavLineEntry>& out,
                      IAddressMapping* mapping) override;

private:
    using Bytes = const unsigned char*;

    unsigned long long offsetOf(Bytes place) const {
        return static_cast<unsigned long long>(place - m_debugInfo->data());
    }
    std::uint32_t wordAt(unsigned long long offset) const;
    bool reaches(unsigned long long offset, unsigned long long size) const;
    status_t readTables();
    status_t readStrings(unsigned long long stringTableEncoding);
    status_t copyStrings(unsigned long long first, unsigned long long count,
                         std::vector<std::string>& out) const;
    bool checkRecord(unsigned long long kernelDataHeader, std::uint32_t i) const;
    void readEntries(unsigned long long lineTableEntry, std::uint32_t count,
                     std::vector<KorTavLineEntry>& out) const;

    SymMgrObjectPtr<IBuffer> m_debugInfo;
    // Into the buffer; null before load().
    const SProgramDebugDataHeaderTAV* m_header;
    Bytes m_fileTableHeader;
    Bytes m_dirTableHeader;
    std::vector<const char*> m_strings; ///< first group, source files, kernels
};

} // namespace ORN_3_30

#endif
