// Asks a module about addresses, one by one. The owner of an address is the outermost symbol; from its range
// the way goes inwards through the calls that were expanded there.

#include "symbolizer.h"

#include "orn/address.h"
#include "orn/comp_unit_details.h"
#include "orn/symbol.h"

#include <algorithm>

namespace orn_tool {

using ORN_3_30::IAddress;
using ORN_3_30::ICompUnitDetails;
using ORN_3_30::IInlineInstance;
using ORN_3_30::IIterator;
using ORN_3_30::isFailure;
using ORN_3_30::ISourceFile;
using ORN_3_30::ISourceLocation;
using ORN_3_30::ISourceLocationSelector;
using ORN_3_30::ISymbol;
using ORN_3_30::ISymbolRange;
using ORN_3_30::status_t;
using ORN_3_30::SymMgrObjectPtr;
using enum ORN_3_30::status_t;
using enum ORN_3_30::symbol_kind_t;

namespace {

void setLocation(Frame& frame, ISourceLocation& location) {
    ISourceFile* file = location.file();
    frame.file = file ? file->name() : nullptr;
    if (location.line() != 0)
        frame.line = location.line();
    if (location.column() != 0)
        frame.column = location.column();
}

/// The first candidate at an address is the line table's own row there, the innermost position; calls that
/// were expanded follow it. Without a selector the library gives the one that begins last, which may be a
/// call.
class InnermostLocation final : public ISourceLocationSelector {
public:
    SymMgrObjectPtr<ISourceLocation>
    select(SymMgrObjectPtr<IIterator<SymMgrObjectPtr<ISourceLocation>>>& candidates) override {
        return candidates->current();
    }
};

/// Unit id of a question to all units.
constexpr unsigned long long everyUnit = 0;

Frame frameOf(ISymbol* symbol, bool isInlined) {
    constexpr const char* unknown = "??";
    return {symbol ? symbol->demangledName(0) : unknown,
            symbol ? symbol->rawName() : unknown,
            isInlined,
            nullptr,
            {},
            {}};
}

} // namespace

Symbolizer::Symbolizer(const ModuleSession& session, AddressSpace space)
    : m_session(session),
      m_bank(session.bank()),
      m_space(space),
      m_loadAddress(m_bank.preferredLoadAddress()) {}

const Answer& Symbolizer::resolve(unsigned long long value) {
    forget();
    AddressPtr address = addressOf(value);
    if (!address)
        return m_answer;
    RangePtr range = rangeAt(*address);
    if (!range || !range->symbol())
        return m_answer;
    m_chain.push_back(range);
    fillSymbol();
    fillFrames(*address);
    fillLocations(*address);
    return m_answer;
}

void Symbolizer::forget() {
    m_answer.address.reset();
    m_answer.rva.reset();
    m_answer.symbol = nullptr;
    m_answer.frames.clear();
    m_locations.clear();
    m_chain.clear();
}

/// Null for an address outside the module, whose number is part of the answer all the same.
Symbolizer::AddressPtr Symbolizer::addressOf(unsigned long long value) {
    AddressPtr address;
    status_t status = status_Ok;
    switch (m_space) {
    case AddressSpace::Pseudo:
        status = m_bank.addressFromPseudoAddress(value, address);
        m_answer.address = value;
        break;
    case AddressSpace::Rva:
        status = m_bank.addressFromRVA(value, address);
        m_answer.address = m_loadAddress + value;
        break;
    case AddressSpace::FileOffset:
        status = m_bank.addressFromFileOffset(value, address);
        if (!isFailure(status) && address)
            m_answer.address = address->pseudoAddr();
        break;
    }
    if (m_answer.address && *m_answer.address >= m_loadAddress)
        m_answer.rva = *m_answer.address - m_loadAddress;
    return isFailure(status) ? AddressPtr() : address;
}

/// A load that fails in part is told to the query that caused it, once; the same query then answers from what
/// could be read.
Symbolizer::RangePtr Symbolizer::rangeAt(IAddress& address) {
    RangePtr range;
    status_t status = m_bank.symbolRangeByAddress(&address, range, symbol_kind_all, nullptr);
    if (!isFailure(status))
        return range;
    if (!m_hasWarned)
        warnAboutSymbols(m_session.path(), status);
    m_hasWarned = true;
    status = m_bank.symbolRangeByAddress(&address, range, symbol_kind_all, nullptr);
    return isFailure(status) ? RangePtr() : range;
}

void Symbolizer::fillSymbol() {
    ISymbolRange& range = *m_chain.front();
    AddressPtr begin;
    range.beginAddress(begin);
    m_answer.symbol = range.symbol();
    m_answer.begin = begin ? begin->pseudoAddr() : 0;
    m_answer.end = m_answer.begin + range.size();
    m_answer.isThunk = range.thunk() != nullptr;
}

void Symbolizer::fillFrames(IAddress& address) {
    m_answer.frames.push_back(frameOf(m_answer.symbol, false));
    while (true) {
        RangePtr nested;
        m_chain.back()->nestedRangeByAddress(nested, &address);
        if (!nested)
            break;
        m_chain.push_back(nested);
        if (IInlineInstance* instance = nested->inlineInstance())
            m_answer.frames.push_back(frameOf(instance->symbol(), true));
    }
    std::reverse(m_answer.frames.begin(), m_answer.frames.end());
}

/// The unit that owns the symbol is asked first: where linkers keep rows of several units for one function,
/// its own belong to the names that are told. That also spares the first questions the reading of all other
/// units. Who goes on asking will need most of them: to read all at once is cheaper then.
SymMgrObjectPtr<ISourceLocation> Symbolizer::locationOf(IAddress& address) {
    constexpr unsigned fewQuestions = 8;
    SymMgrObjectPtr<ISourceLocation> ofAll;
    if (m_questions++ == fewQuestions)
        ofAll = locationOf(address, everyUnit);
    SymMgrObjectPtr<ISourceLocation> location;
    ICompUnitDetails* unit = nullptr;
    if (!isFailure(m_answer.symbol->compUnitDetails(unit)) && unit)
        location = locationOf(address, unit->getOffset());
    if (location)
        return location;
    return ofAll ? ofAll : locationOf(address, everyUnit);
}

SymMgrObjectPtr<ISourceLocation> Symbolizer::locationOf(IAddress& address, unsigned long long unitId) {
    InnermostLocation innermost;
    // The selector travels behind a pointer to void: it has to be one to the interface itself.
    ISourceLocationSelector* selector = &innermost;
    SymMgrObjectPtr<ISourceLocation> location;
    if (isFailure(m_bank.sourceLocationByAddress(&address, location, unitId, selector)))
        return nullptr;
    return location;
}

/// The innermost frame is where the address is; every other one is where the call into the frame before
/// stood.
void Symbolizer::fillLocations(IAddress& address) {
    auto frame = m_answer.frames.begin();
    if (SymMgrObjectPtr<ISourceLocation> location = locationOf(address)) {
        setLocation(*frame, *location);
        m_locations.push_back(location);
    }
    for (auto range = m_chain.rbegin(); range != m_chain.rend(); ++range) {
        IInlineInstance* instance = (*range)->inlineInstance();
        if (!instance || ++frame == m_answer.frames.end())
            continue;
        SymMgrObjectPtr<ISourceLocation> call;
        if (instance->hasCallSite())
            instance->callSite(call);
        if (call) {
            setLocation(*frame, *call);
            m_locations.push_back(call);
        }
    }
}

} // namespace orn_tool
