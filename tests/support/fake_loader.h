// Loaders whose answers a test sets by hand.
#ifndef ORN_FAKE_LOADER_H
#define ORN_FAKE_LOADER_H

#include "orn/debug_info_loader.h"
#include "orn/file_format_loader.h"
#include "orn/source.h"
#include "orn_address.h"
#include "orn_containers.h"

#include <cstring>
#include <functional>
#include <list>
#include <map>
#include <string>
#include <vector>

namespace ORN_3_30::test {

class FakeSegment : public ISegment {
public:
    const char* getName() override { return name.c_str(); }
    unsigned long long getFileSize() override { return fileSize; }
    unsigned long long getMemorySize() override { return memorySize; }
    unsigned long long getRva() override { return rva; }
    unsigned long long getFileOffset() override { return fileOffset; }
    unsigned getKind() override { return 0; }
    status_t read(SymMgrObjectPtr<IBuffer>&) override { return status_NotImpl; }
    status_t readAt(unsigned long long, unsigned long long, SymMgrObjectPtr<IBuffer>&) override {
        return status_NotImpl;
    }
    void getSections(SymMgrObjectPtr<IIterator<SymMgrObjectPtr<ISection>>>& out, bool) override {
        out = nullptr;
    }

    std::string name = "text";
    unsigned long long rva = 0;
    unsigned long long fileOffset = 0;
    unsigned long long fileSize = 0;
    unsigned long long memorySize = 0;
};

class FakeSection : public SymMgrObject<ISection> {
public:
    FakeSection() : SymMgrObject<ISection>(nullptr) {}

    const char* getName() override { return name.c_str(); }
    unsigned long long getSize() override { return size; }
    unsigned long long getFileOffset() override { return fileOffset; }
    unsigned long long getAddress() override { return address; }
    status_t read(SymMgrObjectPtr<IBuffer>&) override { return status_NotImpl; }
    status_t readAt(unsigned long long, unsigned long long, SymMgrObjectPtr<IBuffer>&) override {
        return status_NotImpl;
    }
    bool isNoBits() override { return false; }

    std::string name = ".text";
    unsigned long long address = 0;
    unsigned long long fileOffset = 0;
    unsigned long long size = 0;
};

/// Counts what it is asked for that would read a file, and answers from its fields.
class FakeLoader : public SymMgrObject<IFileFormatLoader> {
public:
    FakeLoader() : SymMgrObject<IFileFormatLoader>(true) {}
    ~FakeLoader() override {
        if (onDestruction)
            onDestruction();
    }

    using CandidateIterator = IIterator<SymMgrObjectPtr<ISymbolFileToResolve>>;

    status_t getSymbolFiles(SymMgrObjectPtr<CandidateIterator>& out) override {
        ++symbolFilesAsked;
        if (!isFailure(symbolFilesStatus))
            out = new VectorIteratorWrapper<decltype(candidates), SymMgrObjectPtr<ISymbolFileToResolve>>(
                &candidates, nullptr);
        return symbolFilesStatus;
    }
    status_t getDebugInfoLoader(SymMgrObjectPtr<IDebugInfoLoader>& out, long long index) override {
        indexAsked = index;
        if (debugInfoLoader)
            out = debugInfoLoader;
        return debugInfoStatus;
    }
    const char* getPath() override { return path.c_str(); }
    exec_format_t getExecFormat() override { return exec_format_elf; }
    arch_t getArch() override { return arch_arm; }
    unsigned long long getImageBase() override { return imageBase; }
    unsigned long long getEntryPoint() override { return entryPoint; }
    unsigned long long getImageSize() override { return 0x5000; }
    status_t readSymbols(ISymbolTable* sink, LoadFilter*, symbol_kind_t flags) override {
        ++reads;
        kindsRead = flags;
        return onRead ? onRead(sink, flags) : readStatus;
    }
    status_t getStatus() override { return status_Ok; }
    ISegment* findSegment(unsigned long long address) override {
        ++lookUps;
        for (FakeSegment& segment : segments)
            if (address >= segment.rva + imageBase && address <= segment.rva + imageBase + segment.memorySize)
                return &segment;
        return nullptr;
    }
    ISegment* getSegmentAt(int) override { return nullptr; }
    ISegment* findSegmentByFileOffset(unsigned long long) override { return nullptr; }
    ISection* findSection(unsigned long long address) override {
        ++lookUps;
        if (section && address >= section->address && address <= section->address + section->size)
            return section;
        return nullptr;
    }
    status_t readBytes(unsigned long long, unsigned long long, SymMgrObjectPtr<IBuffer>&) override {
        ++reads;
        return status_NotImpl;
    }
    status_t getAddress(SymMgrObjectPtr<IAddress>& out, unsigned long long address) override {
        if (onAddress)
            return onAddress(out, address);
        if (!findSegment(address))
            return status_Fail;
        out = new Address(this, address, nullptr);
        return status_Ok;
    }
    status_t getAddressOfFileOffset(SymMgrObjectPtr<IAddress>& out, unsigned long long offset) override {
        return getAddress(out, offset + 0x100000);
    }
    void getSegments(SymMgrObjectPtr<IIterator<ISegment*>>& out) override {
        m_segmentPointers.clear();
        for (FakeSegment& segment : segments)
            m_segmentPointers.push_back(&segment);
        if (hasSegmentIterator)
            out = new VectorIteratorWrapper<std::vector<ISegment*>, ISegment*>(&m_segmentPointers, nullptr);
    }
    ISegment* findSegmentByName(const char* name) override {
        for (FakeSegment& segment : segments)
            if (segment.name == name)
                return &segment;
        return nullptr;
    }
    void getSectionByName(SymMgrObjectPtr<ISection>& out, const char* name) override {
        if (section && section->name == name)
            out = section.get();
    }
    void getSectionByIndex(SymMgrObjectPtr<ISection>&, unsigned) override {}
    const char* getKernelName() override { return ""; }
    bool isReadyToRun() override { return false; }

    std::string path = "/fake/module";
    unsigned long long imageBase = 0x400000;
    unsigned long long entryPoint = 0x400010;
    std::list<FakeSegment> segments;
    bool hasSegmentIterator = true;
    SymMgrObjectPtr<FakeSection> section;
    std::vector<SymMgrObjectPtr<ISymbolFileToResolve>> candidates;
    status_t symbolFilesStatus = status_Ok;
    status_t debugInfoStatus = status_False;
    SymMgrObjectPtr<IDebugInfoLoader> debugInfoLoader;
    status_t readStatus = status_Ok;
    std::function<status_t(ISymbolTable*, symbol_kind_t)> onRead;
    std::function<status_t(SymMgrObjectPtr<IAddress>&, unsigned long long)> onAddress;
    std::function<void()> onDestruction;

    int symbolFilesAsked = 0;
    int reads = 0;
    int lookUps = 0;
    long long indexAsked = -2;
    symbol_kind_t kindsRead = symbol_kind_none;

private:
    std::vector<ISegment*> m_segmentPointers;
};

class FakeDebugInfoLoader : public SymMgrObject<IDebugInfoLoader> {
public:
    FakeDebugInfoLoader() : SymMgrObject<IDebugInfoLoader>(nullptr) {}
    ~FakeDebugInfoLoader() override {
        if (onDestruction)
            onDestruction();
    }

    const char* getPath() override { return path.c_str(); }
    unsigned getType() override { return symbol_file_dwarf; }
    status_t loadSymbols(ISymbolTable* sink, LoadFilter*, symbol_kind_t flags, ISrcLineResolver*) override {
        ++loads;
        return onLoad ? onLoad(sink, flags) : loadStatus;
    }
    ISrcLineResolver* getLineResolver(GlobalScope*, ILock* lock) override {
        lentLock = lock;
        return lineResolver;
    }
    status_t findStackVariable(ISymbol* function, IAddress* codeAddress, unsigned long long dataAddress,
                               IStackFrameContext* context, SymMgrObjectPtr<ISymbol>& out,
                               bool* memberFlag) override {
        return onStackVariable ? onStackVariable(function, codeAddress, dataAddress, context, out, memberFlag)
                               : status_False;
    }
    void getSectionByIndex(SymMgrObjectPtr<ISection>& out, unsigned) override { out = nullptr; }
    status_t loadLineTable(ILineTable*) override { return status_False; }
    ICompUnitDetails* getCompilationUnit(unsigned long long) override { return nullptr; }

    std::string path = "/fake/module.debug";
    status_t loadStatus = status_Ok;
    SymMgrObjectPtr<ISrcLineResolver> lineResolver;
    ILock* lentLock = nullptr;
    std::function<status_t(ISymbolTable*, symbol_kind_t)> onLoad;
    std::function<status_t(ISymbol*, IAddress*, unsigned long long, IStackFrameContext*,
                           SymMgrObjectPtr<ISymbol>&, bool*)>
        onStackVariable;
    std::function<void()> onDestruction;
    int loads = 0;
};

} // namespace ORN_3_30::test

#endif
