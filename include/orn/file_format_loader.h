// A module's file as segments, sections and addresses, whatever its format.
#ifndef ORN_FILE_FORMAT_LOADER_H
#define ORN_FILE_FORMAT_LOADER_H

#include "orn/buffer.h"
#include "orn/export.h"
#include "orn/iterator.h"
#include "orn/module_image.h"
#include "orn/status.h"
#include "orn/symbol_file.h"
#include "orn/types.h"

namespace ORN_3_30 {

class IAddress;
class IDebugInfoLoader;
class ISymbolTable;
class LoadFilter;

/// One section of a module. Keeps a plain pointer to its module's loader: hold the bank.
class ISection : public ISymMgrObject {
public:
    virtual const char* getName() = 0;
    virtual unsigned long long getSize() = 0;
    virtual unsigned long long getFileOffset() = 0;
    /// Pseudo address of the section's start; in PE modules its RVA.
    virtual unsigned long long getAddress() = 0;
    /// Reads the whole section. `status_False`, with `out` untouched, if it has no bytes in the file.
    virtual status_t read(SymMgrObjectPtr<IBuffer>& out) = 0;
    /// Reads `size` bytes from `delta` bytes into the section.
    virtual status_t readAt(unsigned long long delta, unsigned long long size,
                            SymMgrObjectPtr<IBuffer>& out) = 0;
    /// True if the section occupies memory but no bytes in the file.
    virtual bool isNoBits() = 0;

protected:
    ~ISection() = default;
};

/// One segment of a module, owned by the module's loader: hold the bank for as long as you hold it.
class ISegment {
public:
    virtual const char* getName() = 0;
    virtual unsigned long long getFileSize() = 0;
    virtual unsigned long long getMemorySize() = 0;
    virtual unsigned long long getRva() = 0;
    virtual unsigned long long getFileOffset() = 0;
    /// The format's own number: code is 0 in ELF modules and 1 in PE modules.
    virtual unsigned getKind() = 0;
    /// Reads the segment's bytes in the file.
    virtual status_t read(SymMgrObjectPtr<IBuffer>& out) = 0;
    virtual status_t readAt(unsigned long long delta, unsigned long long size,
                            SymMgrObjectPtr<IBuffer>& out) = 0;
    /// The sections inside the segment, or null where the format does not tell.
    virtual void getSections(SymMgrObjectPtr<IIterator<SymMgrObjectPtr<ISection>>>& out, bool codeOnly) = 0;
    virtual ~ISegment() {}
};

/// The format-neutral view of a module's file. Addresses are pseudo addresses unless a name says RVA or file
/// offset.
///
/// An operation without a status lets `std::bad_alloc` through, since "none" would be a wrong answer; the
/// bank around it turns the failure into `status_OutOfMemory`.
class IFileFormatLoader : public ISymMgrObject {
public:
    /// The candidates for the symbol file, in order of preference.
    virtual status_t
    getSymbolFiles(SymMgrObjectPtr<IIterator<SymMgrObjectPtr<ISymbolFileToResolve>>>& out) = 0;
    /// The reader of candidate number `index`, made once. `status_False` for an index without candidate.
    virtual status_t getDebugInfoLoader(SymMgrObjectPtr<IDebugInfoLoader>& out, long long index) = 0;
    virtual const char* getPath() = 0;
    virtual exec_format_t getExecFormat() = 0;
    virtual arch_t getArch() = 0;
    /// Preferred load address.
    virtual unsigned long long getImageBase() = 0;
    virtual unsigned long long getEntryPoint() = 0;
    virtual unsigned long long getImageSize() = 0;
    /// Feeds the format's own symbols of the kinds `flags` into `sink`; `filter` limits them.
    virtual status_t readSymbols(ISymbolTable* sink, LoadFilter* filter, symbol_kind_t flags) = 0;
    /// Outcome of recognising and reading the file.
    virtual status_t getStatus() = 0;
    /// Segments are borrowed; null if there is none. The end of a segment still belongs to it here.
    virtual ISegment* findSegment(unsigned long long address) = 0;
    /// Number `index` in address order, which counts from 1.
    virtual ISegment* getSegmentAt(int index) = 0;
    virtual ISegment* findSegmentByFileOffset(unsigned long long offset) = 0;
    virtual ISection* findSection(unsigned long long address) = 0;
    /// Reads bytes of the module's file. `status_False`, with `out` untouched, if there are fewer.
    virtual status_t readBytes(unsigned long long offset, unsigned long long size,
                               SymMgrObjectPtr<IBuffer>& out) = 0;
    /// `status_Fail` for an address outside the module.
    virtual status_t getAddress(SymMgrObjectPtr<IAddress>& out, unsigned long long address) = 0;
    virtual status_t getAddressOfFileOffset(SymMgrObjectPtr<IAddress>& out, unsigned long long offset) = 0;
    virtual void getSegments(SymMgrObjectPtr<IIterator<ISegment*>>& out) = 0;
    virtual ISegment* findSegmentByName(const char* name) = 0;
    /// Null if there is none.
    virtual void getSectionByName(SymMgrObjectPtr<ISection>& out, const char* name) = 0;
    virtual void getSectionByIndex(SymMgrObjectPtr<ISection>& out, unsigned index) = 0;
    /// Name of the GPU kernel that the loader stands for; empty in other formats.
    virtual const char* getKernelName() = 0;
    /// True for a managed image with native code beside the byte code.
    virtual bool isReadyToRun() = 0;

    /// Recognises the file and makes its loader. A loader may stand in `out` while the status says that the
    /// file is damaged. A null image is `status_InvalidArg`; `kernelName` matters to GPU binaries alone.
    ORN_API static status_t create(SymMgrObjectPtr<IFileFormatLoader>& out,
                                   SymMgrObjectPtr<IModuleImage> image, const char* kernelName);

protected:
    ~IFileFormatLoader() = default;
};

} // namespace ORN_3_30

#endif
