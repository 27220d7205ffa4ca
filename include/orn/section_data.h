// Lazily read contents of one section, and the view of a module that debug information readers use.
#ifndef ORN_SECTION_DATA_H
#define ORN_SECTION_DATA_H

#include "orn/file_format_loader.h"
#include "orn/object.h"

namespace ORN_3_30 {

class RelocationAddends;

/// The contents of one section, decompressed, read on first use. Once read they never change or move.
class ISectionData : public SymMgrObjectImpl {
public:
    /// Null if the contents are not to be had.
    virtual const unsigned char* getData() = 0;
    /// Size of the contents in bytes, after decompression.
    virtual unsigned long long getSize() = 0;
    /// The same, and why it is 0 or the contents are still compressed.
    virtual unsigned long long getSize(status_t& status) = 0;
    /// Index in the file; all ones without a file behind it.
    virtual unsigned getIndex() = 0;
    /// Added to every address found in the contents.
    virtual unsigned long long getBias() = 0;
};

/// Section data is countable in both families: as an internal object and as `SymMgrObject<ISectionData>`.
/// The count of the latter is used throughout; the lock and count inherited with the interface lie idle.
template <>
class SymMgrObject<ISectionData> : public ISectionData, public internal::IDeleteObserver {
public:
    explicit SymMgrObject(ILock* lock) : m_refCountHelper(this, lock) {}
    explicit SymMgrObject(bool ownLock) : m_refCountHelper(this, ownLock) {}

    unsigned addRef() override { return m_refCountHelper.addRef(); }
    unsigned release() override { return m_refCountHelper.release(); }

    ~SymMgrObject() override {}
    virtual void refCount(unsigned& count) const { m_refCountHelper.refCount(count); }
    void onLastRelease() override { delete this; }

private:
    internal::RefCountHelper m_refCountHelper;
};

/// What debug information readers need of a module's format.
class IFileFormatHelper : public ISymMgrObject {
public:
    virtual ~IFileFormatHelper() {}
    virtual bool isCodeOrDataAddress(unsigned long long address) = 0;
    virtual unsigned long long getImageBase() = 0;
    /// Null if the module has no such section.
    virtual void getSectionData(SymMgrObjectPtr<ISectionData>& out, section_kind_t kind) = 0;
    virtual void getSectionByIndex(SymMgrObjectPtr<ISection>& out, unsigned index) = 0;
    /// The relocations of one section; null where they do not apply.
    virtual void getRelocationAddends(SymMgrObjectPtr<RelocationAddends>& out, unsigned sectionIndex) = 0;
};

} // namespace ORN_3_30

#endif
