// From an address to everything that is said about it.
#ifndef ORN_TOOLS_SYMBOLIZER_H
#define ORN_TOOLS_SYMBOLIZER_H

#include "module_session.h"

#include "orn/source.h"
#include "orn/symbol_table.h"

#include <optional>
#include <vector>

namespace orn_tool {

/// What the numbers of the user count from.
enum class AddressSpace { Pseudo, Rva, FileOffset };

/// One level of the chain of calls that were expanded into each other. Texts are borrowed from the module.
struct Frame {
    const char* function; ///< demangled
    const char* raw;
    bool isInlined;
    const char* file; ///< null if it is not known
    std::optional<unsigned> line;
    std::optional<unsigned> column;
};

/// Answer for one address; valid until the next question.
struct Answer {
    std::optional<unsigned long long>
        address;                           ///< pseudo address; none for a file offset outside every segment
    std::optional<unsigned long long> rva; ///< none below the load address
    ORN_3_30::ISymbol* symbol = nullptr;   ///< null if nothing owns the address
    unsigned long long begin = 0;
    unsigned long long end = 0;
    bool isThunk = false;
    std::vector<Frame> frames; ///< innermost first
};

/// Asks the bank of a session, address by address.
class Symbolizer {
public:
    Symbolizer(const ModuleSession& session, AddressSpace space);

    const Answer& resolve(unsigned long long value);

private:
    using RangePtr = ORN_3_30::SymMgrObjectPtr<ORN_3_30::ISymbolRange>;
    using AddressPtr = ORN_3_30::SymMgrObjectPtr<ORN_3_30::IAddress>;

    void forget();
    AddressPtr addressOf(unsigned long long value);
    RangePtr rangeAt(ORN_3_30::IAddress& address);
    void fillSymbol();
    void fillFrames(ORN_3_30::IAddress& address);
    ORN_3_30::SymMgrObjectPtr<ORN_3_30::ISourceLocation> locationOf(ORN_3_30::IAddress& address);
    ORN_3_30::SymMgrObjectPtr<ORN_3_30::ISourceLocation> locationOf(ORN_3_30::IAddress& address,
                                                                    unsigned long long unitId);
    void fillLocations(ORN_3_30::IAddress& address);

    const ModuleSession& m_session;
    ORN_3_30::IModuleSymbolBank& m_bank;
    AddressSpace m_space;
    unsigned long long m_loadAddress;
    bool m_hasWarned = false;
    unsigned m_questions = 0; ///< for locations
    Answer m_answer;
    std::vector<RangePtr> m_chain; ///< ranges behind the frames, outermost first; keeps their texts alive
    std::vector<ORN_3_30::SymMgrObjectPtr<ORN_3_30::ISourceLocation>> m_locations;
};

} // namespace orn_tool

#endif
