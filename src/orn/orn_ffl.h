// Ground of the format loaders: segments, sections, addresses, candidates and debug info loaders, whatever
// the format.
#ifndef ORN_FFL_H
#define ORN_FFL_H

#include "orn/debug_info_loader.h"
#include "orn/file_format_loader.h"

#include <map>
#include <string>
#include <vector>

namespace ORN_3_30 {

/// A section of a module, by its place in the file.
class Section : public SymMgrObject<ISection> {
public:
    Section(IFileFormatLoader* loader, const char* name, unsigned long long address,
            unsigned long long fileOffset, unsigned long long size, bool noBits);

    const char* getName() override { return m_name.c_str(); }
    unsigned long long getSize() override { return m_size; }
    unsigned long long getFileOffset() override { return m_fileOffset; }
    unsigned long long getAddress() override { return m_address; }
    status_t read(SymMgrObjectPtr<IBuffer>& out) override;
    status_t readAt(unsigned long long delta, unsigned long long size,
                    SymMgrObjectPtr<IBuffer>& out) override;
    bool isNoBits() override { return m_noBits; }

private:
    std::string m_name;
    IFileFormatLoader* m_loader; ///< not counted
    unsigned long long m_address;
    unsigned long long m_fileOffset;
    unsigned long long m_size;
    bool m_noBits;
};

/// A segment of a module, owned by its loader and not counted.
class Segment : public ISegment {
public:
    Segment(IFileFormatLoader* loader, const char* name, unsigned long long rva,
            unsigned long long fileOffset, unsigned long long fileSize, unsigned long long memorySize,
            unsigned kind);

    const char* getName() override { return m_name.c_str(); }
    unsigned long long getFileSize() override { return m_fileSize; }
    unsigned long long getMemorySize() override { return m_memorySize; }
    unsigned long long getRva() override { return m_rva; }
    unsigned long long getFileOffset() override { return m_fileOffset; }
    unsigned getKind() override { return m_kind; }
    status_t read(SymMgrObjectPtr<IBuffer>& out) override;
    status_t readAt(unsigned long long delta, unsigned long long size,
                    SymMgrObjectPtr<IBuffer>& out) override;
    /// A plain segment does not know its sections: null.
    void getSections(SymMgrObjectPtr<IIterator<SymMgrObjectPtr<ISection>>>& out, bool codeOnly) override;

protected:
    IFileFormatLoader* loader() const { return m_loader; }

private:
    std::string m_name;
    IFileFormatLoader* m_loader; ///< not counted
    unsigned long long m_rva;
    unsigned long long m_fileOffset;
    unsigned long long m_fileSize;
    unsigned long long m_memorySize;
    unsigned m_kind;
};

/// What all format loaders share. The maps of segments and sections are written before the loader is shared,
/// or under the format's own lock in ensureRead().
class FileFormatLoader : public SymMgrObject<IFileFormatLoader> {
public:
    FileFormatLoader();
    ~FileFormatLoader() override;

    status_t getSymbolFiles(SymMgrObjectPtr<IIterator<SymMgrObjectPtr<ISymbolFileToResolve>>>& out) override;
    status_t getDebugInfoLoader(SymMgrObjectPtr<IDebugInfoLoader>& out, long long index) override;
    status_t getStatus() override { return m_status; }
    ISegment* findSegment(unsigned long long address) override;
    ISegment* getSegmentAt(int index) override;
    ISegment* findSegmentByFileOffset(unsigned long long offset) override;
    ISection* findSection(unsigned long long address) override;
    status_t readBytes(unsigned long long offset, unsigned long long size,
                       SymMgrObjectPtr<IBuffer>& out) override;
    status_t getAddress(SymMgrObjectPtr<IAddress>& out, unsigned long long address) override;
    status_t getAddressOfFileOffset(SymMgrObjectPtr<IAddress>& out, unsigned long long offset) override;
    void getSegments(SymMgrObjectPtr<IIterator<ISegment*>>& out) override;
    ISegment* findSegmentByName(const char* name) override;
    const char* getKernelName() override { return ""; }
    bool isReadyToRun() override { return false; }

    /// A debug info loader of this module died: its entry goes.
    void forgetDebugInfoLoader(IDebugInfoLoader* loader);

    /// The lock of every debug info loader's count, one for the whole process.
    static ILock* debugInfoLock();

protected:
    /// The extension points, in the order of the table of operations.
    virtual bool isBogusImage() { return false; }
    /// Enters a segment unless one that it overlaps has the better right. True if it was entered.
    virtual bool addSegment(unsigned long long key, const char* name, unsigned long long rva,
                            unsigned long long fileOffset, unsigned long long fileSize,
                            unsigned long long memorySize, unsigned kind);
    virtual bool addSection(const char* name, unsigned long long address, unsigned long long size);
    virtual status_t collectSymbolFiles(std::vector<SymMgrObjectPtr<ISymbolFileToResolve>>& symbolFiles) = 0;
    virtual IDebugInfoLoader* createDebugInfoLoader(const char* path, unsigned type, long long index) = 0;
    virtual void addSectionEnds(ISymbolTable* sink) = 0;
    virtual void ensureRead() {}
    virtual Segment* createSegment(const char* name, unsigned long long rva, unsigned long long fileOffset,
                                   unsigned long long fileSize, unsigned long long memorySize, unsigned kind);

    /// Identity of a symbol file. The candidate's type is no part of it: two candidates with one path share
    /// one debug info loader.
    struct FileIdentity {
        long long modificationTime = 0;
        unsigned long long size = 0;
        std::string path;
        unsigned long long offset = 0;
        unsigned number = 0;

        static FileIdentity ofPath(const char* path);
        bool operator<(const FileIdentity& other) const;
    };

    OrnLock m_symbolFilesLock; ///< held across getSymbolFiles and getDebugInfoLoader
    status_t m_status;
    OrnLock m_sharedLock; ///< count lock of every candidate of this loader
    /// Holds no references: a loader's destructor removes its own entry. A null entry stays: its candidate
    /// has no reader and is not tried again.
    std::map<FileIdentity, IDebugInfoLoader*> m_debugInfoLoaders;
    std::vector<SymMgrObjectPtr<ISymbolFileToResolve>> m_symbolFiles;
    std::map<unsigned long long, Segment*> m_segments; ///< by key address, owned; no two of them overlap
    std::map<unsigned long long, Section*> m_sections; ///< by address, holding one reference each
    /// Sections that another one of the same address replaced: someone may still hold them.
    std::vector<Section*> m_replacedSections;

private:
    void dropOverlappedSegments(unsigned long long key, unsigned long long memorySize);
    void storeSegment(unsigned long long key, Segment* segment);

    /// Memory sizes of the segments whose kind is not 0, which nothing pushes out, by their keys. A lookup
    /// here keeps a file with tens of thousands of segments from being walked once for each of them.
    std::map<unsigned long long, unsigned long long> m_lastingSegments;
};

/// What all debug info loaders share: the counted format loader, whose entry goes when the loader dies.
class DebugInfoLoader : public SymMgrObject<IDebugInfoLoader> {
public:
    DebugInfoLoader(FileFormatLoader* formatLoader, ILock* lock);
    ~DebugInfoLoader() override;

    void getSectionByIndex(SymMgrObjectPtr<ISection>& out, unsigned index) override;

protected:
    FileFormatLoader* formatLoader() const { return m_formatLoader; }

private:
    SymMgrObjectPtr<FileFormatLoader> m_formatLoader;
};

/// The loader of a candidate that has no debug sections.
class EmptyDebugInfoLoader : public SymMgrObject<IDebugInfoLoader> {
public:
    EmptyDebugInfoLoader(FileFormatLoader* formatLoader, const char* path, ILock* lock);
    ~EmptyDebugInfoLoader() override;

    const char* getPath() override { return m_path.c_str(); }
    unsigned getType() override { return symbol_file_none; }
    status_t loadSymbols(ISymbolTable* sink, LoadFilter* filter, symbol_kind_t flags,
                         ISrcLineResolver* resolver) override;
    ISrcLineResolver* getLineResolver(GlobalScope* scope, ILock* loadLock) override;
    status_t findStackVariable(ISymbol* function, IAddress* codeAddress, unsigned long long dataAddress,
                               IStackFrameContext* context, SymMgrObjectPtr<ISymbol>& out,
                               bool* memberFlag) override;
    void getSectionByIndex(SymMgrObjectPtr<ISection>& out, unsigned index) override;
    status_t loadLineTable(ILineTable* lineTable) override;
    ICompUnitDetails* getCompilationUnit(unsigned long long offset) override;

private:
    SymMgrObjectPtr<FileFormatLoader> m_formatLoader;
    std::string m_path;
};

} // namespace ORN_3_30

#endif
