// How a compilation unit was made.
#ifndef ORN_COMP_UNIT_DETAILS_H
#define ORN_COMP_UNIT_DETAILS_H

#include "orn/status.h"
#include "orn/types.h"

namespace ORN_3_30 {

class ISourceFile;
class RangeFilter;

/// Compiler, versions, language, options, directories and main source file of a compilation unit. Borrowed
/// from the debug information: hold the bank for as long as you hold it. Texts live as long as the unit.
class ICompUnitDetails {
public:
    /// Offset of the unit in `.debug_info`; also the unit's id towards the line resolver.
    virtual unsigned long long getOffset() = 0;
    /// The main source file; may be null.
    virtual ISourceFile* getSourceFile() = 0;
    /// The file of that path; null if the unit's line resolver does not know it.
    virtual ISourceFile* findSourceFile(const char* path) = 0;
    /// Always 0.
    virtual unsigned getUnitFlags() = 0;
    virtual const char* getCompilationDirectory() = 0;
    virtual const char* getCompileOptions() = 0;
    /// Null if there is none.
    virtual const char* getOptReportFile() = 0;
    virtual const char* getCompilerName() = 0;
    virtual unsigned getCompilerMajorVersion() = 0;
    virtual unsigned getCompilerMinorVersion() = 0;
    virtual language_t getLanguage() = 0;
    /// Always stores null.
    virtual void getExtension(void*& out) = 0;
    virtual void addFileId(unsigned id) = 0;
    /// Source file id of file number `number` of the unit, which counts from 1; all ones if there is none.
    virtual unsigned getFileId(unsigned number) = 0;
    /// Runs the unit's line program, once.
    virtual status_t loadLines(RangeFilter* ranges) = 0;
    virtual ~ICompUnitDetails() {}
};

} // namespace ORN_3_30

#endif
