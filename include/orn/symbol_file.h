// Candidates for a module's symbol file, and who chooses among them.
#ifndef ORN_SYMBOL_FILE_H
#define ORN_SYMBOL_FILE_H

#include "orn/export.h"
#include "orn/iterator.h"

namespace ORN_3_30 {

/// One candidate for a module's symbol file: it says what it wants and judges the paths it is offered.
class ISymbolFileToResolve : public ISymMgrObject {
public:
    /// The file name or relative path to search for; once accepted, the path to open.
    virtual const char* wantedName() = 0;
    /// Path of the module.
    virtual const char* modulePath() = 0;
    /// A value of symbol_file_type_t.
    virtual unsigned kind() = 0;
    /// 1: usable, wantedName() is the path to open. 0: not set up (no build id, no module path). 2: the
    /// module holds no debug information. 3: a file of the wanted name lies beside the module, but its
    /// checksum differs. 4: nothing found yet, wantedName() is the name to search for.
    virtual unsigned state() = 0;
    /// Judges `path`: the candidate's index if it passes, -1 if not. May be called any number of times.
    virtual long long resolve(const char* path) = 0;
    /// 1 if the format's loader cannot do without this file kind, else 0.
    virtual int isRequired() = 0;

protected:
    ~ISymbolFileToResolve() = default;
};

/// Chooses a module's symbol file. Implemented by callers that know where symbol files lie; the library's own
/// takes the first candidate that is usable as it stands. Not counted: it has to live through the load only.
class ORN_API ISymbolFileResolver {
public:
    /// Index of the candidate to use; negative: none.
    virtual long long
    resolveSymbolFile(SymMgrObjectPtr<IIterator<SymMgrObjectPtr<ISymbolFileToResolve>>>& candidates) = 0;
    virtual ~ISymbolFileResolver();
};

} // namespace ORN_3_30

#endif
