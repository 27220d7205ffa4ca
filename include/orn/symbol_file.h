// Candidates for a module's symbol file, and who chooses among them.
#ifndef ORN_SYMBOL_FILE_H
#define ORN_SYMBOL_FILE_H

#include "orn/export.h"
#include "orn/iterator.h"

#include <cstdint>

namespace ORN_3_30 {

/// How far a candidate has come.
enum symbol_file_state_t : std::uint32_t {
    symbol_file_not_set_up = 0,   ///< no build id, or no module path
    symbol_file_usable = 1,       ///< wantedName() is the path to open
    symbol_file_no_dwarf = 2,     ///< the module holds no debug information
    symbol_file_wrong_crc = 3,    ///< a file of the wanted name is there, but its checksum differs
    symbol_file_to_search_for = 4 ///< nothing found yet: wantedName() is the name to search for
};

/// One candidate for a module's symbol file: it says what it wants and judges the paths it is offered.
class ISymbolFileToResolve : public ISymMgrObject {
public:
    /// The file name or relative path to search for; once accepted, the path to open. Good until resolve()
    /// accepts another path.
    virtual const char* wantedName() = 0;
    /// Path of the module.
    virtual const char* modulePath() = 0;
    /// A value of symbol_file_type_t.
    virtual unsigned kind() = 0;
    /// A value of symbol_file_state_t.
    virtual unsigned state() = 0;
    /// Judges `path`: the candidate's index if it passes, -1 if not. May be called any number of times; a
    /// null path never passes, but the module's own candidate gives 0 for it.
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
