// Turns entries into symbols. The loader (orn_dildwarf.cpp) starts a walk for each unit, and one for the
// inside of a function when someone asks; scopes go to the sink innermost first. How entries are decoded and
// passed is orn_dildwarf_attr.cpp's.
//
// Namespaces, structures and classes are not entered: a function that is declared in one is reached from its
// definition, which stands at the level of the unit and refers to the declaration.

#include "orn_dildwarf_walk.h"

#include "orn_dildwarf_inline.h"
#include "orn_log.h"

#include <algorithm>
#include <cstring>

namespace ORN_3_30 {

namespace {

constexpr symbol_kind_t nothing = symbol_kind_none;

/// Null for an empty text as well.
const char* nonEmpty(const char* text) {
    return text && *text ? text : nullptr;
}

bool has(const AbbrevEntry& abbrev, unsigned attribute) {
    return abbrev.shape.find(attribute) != AttrSpec::notKept;
}

/// Whether the entries of an abbreviation may have code, be it through another entry. Declarations have none:
/// they are passed without being decoded.
bool mayBeFunction(const AbbrevEntry& abbrev) {
    if (abbrev.hasIndirect)
        return true;
    return has(abbrev, DW_AT_low_pc) || has(abbrev, DW_AT_high_pc) || has(abbrev, DW_AT_ranges) ||
           has(abbrev, DW_AT_inline) || has(abbrev, DW_AT_abstract_origin) ||
           has(abbrev, DW_AT_specification);
}

unsigned long long siblingOf(AttrBindings& attrs) {
    const AttrBinding* sibling = attrs.find(DW_AT_sibling, true);
    return sibling ? sibling->value : 0;
}

unsigned long long saturatedSum(unsigned long long a, unsigned long long b) {
    return b > ~0ULL - a ? ~0ULL : a + b;
}

} // namespace

void DWARFSymbolSink::add(Scope* scope) {
    try {
        if (!m_table)
            m_table = m_scope->symbolTable();
        m_table->addScope(scope);
    } catch (...) {
        // A table that failed half way may have taken it already.
        if (!scope->isOwnedByTable())
            delete scope;
        throw;
    }
}

void InlinedNames::add(unsigned long long offset, const char* name) {
    if (m_count * 2 >= m_slots.size())
        grow();
    m_slots[placeOf(offset)] = {offset + 1, name};
    ++m_count;
}

void InlinedNames::grow() {
    constexpr std::size_t firstSize = 256;
    std::vector<Slot> former(m_slots.empty() ? firstSize : m_slots.size() * 2);
    former.swap(m_slots);
    for (const Slot& slot : former) {
        if (slot.isTaken())
            m_slots[placeOf(slot.offsetPlusOne - 1)] = slot;
    }
}

DWARFSymbolWalk::DWARFSymbolWalk(DWARFDebugInfoLoader& loader) : m_loader(loader), m_attrs(nullptr) {}

DWARFSymbolWalk::~DWARFSymbolWalk() {
    dropScopes();
}

// --- The tree

void DWARFSymbolWalk::walkUnit(DWARFCompilationUnit& unit, symbol_kind_t flags, const DWARFSymbolSink& sink,
                               LoadFilter* filter) {
    begin(unit, unit.firstEntryOffset(), sink, filter);
    m_isOuter = true;
    const EntryCode code = m_unit->readEntryCode(m_walker);
    if (!code.abbrev || !processDIE(code, flags))
        return;
    walkLevels();
}

void DWARFSymbolWalk::walkChildren(DWARFCompilationUnit& unit, unsigned long long entryOffset,
                                   symbol_kind_t flags, const DWARFSymbolSink& sink) {
    begin(unit, entryOffset, sink, nullptr);
    m_isOuter = false;
    const EntryCode code = m_unit->readEntryCode(m_walker);
    if (!code.abbrev || !descend(code, flags))
        return;
    walkLevels();
}

void DWARFSymbolWalk::begin(DWARFCompilationUnit& unit, unsigned long long offset,
                            const DWARFSymbolSink& sink, LoadFilter* filter) {
    m_unit = &unit;
    m_walker = unit.walkerAt(offset);
    m_sink = sink;
    m_filter = filter;
    m_levels.clear();
    dropScopes();
}

/// What ends the children of one entry is a null entry, or one that cannot be read: then the walker stands at
/// the end, so that all levels end.
void DWARFSymbolWalk::walkLevels() {
    try {
        while (!m_levels.empty()) {
            if (!readDIE(m_levels.back().flags))
                closeLevel();
        }
    } catch (...) {
        dropScopes();
        throw;
    }
}

/// Scopes are left over where memory ran out.
void DWARFSymbolWalk::dropScopes() {
    for (Scope* scope : m_scopeStack)
        delete scope;
    m_scopeStack.clear();
}

void DWARFSymbolWalk::closeLevel() {
    const Level level = m_levels.back();
    m_levels.pop_back();
    if (level.hasScope)
        popScope();
}

bool DWARFSymbolWalk::readDIE(symbol_kind_t flags) {
    if (!m_isOuter && !m_loader.affordsInside(1)) {
        m_walker.skip(m_walker.remaining());
        return false;
    }
    const EntryCode code = m_unit->readEntryCode(m_walker);
    return code.abbrev && processDIE(code, flags);
}

bool DWARFSymbolWalk::processDIE(const EntryCode& code, symbol_kind_t flags) {
    const auto wants = [flags](symbol_kind_t kind) { return (flags & kind) != nothing; };
    switch (code.abbrev->tag) {
    case DW_TAG_compile_unit: // what it says was read before any walk
    case DW_TAG_lexical_block:
    case DW_TAG_try_block:
    case DW_TAG_common_block:
    case DW_TAG_module:
        return descend(code, flags);
    case DW_TAG_subprogram:
        return processSubprogram(code, flags);
    case DW_TAG_entry_point:
        if (!wants(symbol_kind_entry_point))
            return skipEntry(code);
        return readEntry(code, [&] { return readFunction(symbol_kind_entry_point, flags); });
    case DW_TAG_inlined_subroutine:
        if (m_isOuter || !wants(symbol_kind_function))
            return descend(code, flags);
        return readEntry(code, [&] { return readInlinedSubroutine(); });
    case DW_TAG_label:
        if (!wants(symbol_kind_label))
            return skipEntry(code);
        return readEntry(code, [&] { return readLabel(flags); });
    case DW_TAG_variable:
        if (!wants(symbol_kind_variable))
            return skipEntry(code);
        return readEntry(code, [&] { return readVariable(flags); });
    case DW_TAG_VEXOR_compile_options:
        return readEntry(code, [&] { return readCompileOptions(flags); });
    default:
        return skipEntry(code);
    }
}

bool DWARFSymbolWalk::processSubprogram(const EntryCode& code, symbol_kind_t flags) {
    if ((flags & symbol_kind_function) != nothing) {
        if (!mayBeFunction(*code.abbrev))
            return skipEntry(code);
        return readEntry(code, [&] { return readFunction(symbol_kind_function, flags); });
    }
    // Fortran keeps variables of the whole module inside functions.
    if (m_unit->isFortran() && (flags & symbol_kind_variable) != nothing)
        return descend(code, flags);
    return skipEntry(code);
}

/// Passes an entry with all that is below it.
bool DWARFSymbolWalk::skipEntry(const EntryCode& code) {
    unsigned long long sibling = 0;
    if (!m_unit->skipAttributes(m_walker, code, sibling))
        return false;
    if (code.abbrev->hasChildren == DW_CHILDREN_yes)
        skipChildren(sibling);
    return true;
}

/// The walk over a unit passes everything once. The inside of a function is read one level of expanded calls
/// at a time, and each of these walks passes all that is below its level: where calls nest as deep as damaged
/// data likes, the ends of what was passed are noted.
void DWARFSymbolWalk::skipChildren(unsigned long long sibling) {
    if (m_isOuter) {
        m_unit->skipChildren(m_walker, sibling);
        return;
    }
    if (const auto known = m_subtreeEnds.find(m_walker.offset()); known != m_subtreeEnds.end()) {
        m_walker.seek(known->second);
        return;
    }
    const SectionWalker begin = m_walker;
    if (m_unit->skipChildren(m_walker, sibling) <= largeSubtree)
        return;
    const auto found = m_unit->largeSubtrees(begin, sibling, largeSubtree);
    m_subtreeEnds.insert(found.begin(), found.end());
}

/// Passes an entry; its children are walked.
bool DWARFSymbolWalk::descend(const EntryCode& code, symbol_kind_t flags) {
    unsigned long long sibling = 0;
    if (!m_unit->skipAttributes(m_walker, code, sibling))
        return false;
    if (code.abbrev->hasChildren == DW_CHILDREN_yes)
        m_levels.push_back({flags, false});
    return true;
}

template <typename Read>
bool DWARFSymbolWalk::readEntry(const EntryCode& code, const Read& read) {
    if (!m_unit->readAttributes(m_walker, code, m_attrs))
        return false;
    const std::size_t openScopes = m_scopeStack.size();
    const Descent descent = read();
    const bool hasScope = m_scopeStack.size() > openScopes;
    const bool hasChildren = code.abbrev->hasChildren == DW_CHILDREN_yes;
    if (hasChildren && descent.isWanted) {
        m_levels.push_back({descent.flags, hasScope});
        return true;
    }
    if (hasChildren)
        skipChildren(siblingOf(m_attrs));
    if (hasScope)
        popScope();
    return true;
}

// --- Entries

DWARFSymbolWalk::Descent DWARFSymbolWalk::readFunction(symbol_kind_t kind, symbol_kind_t flags) {
    const AttrBinding* low = m_attrs.find(DW_AT_low_pc);
    const AttrBinding* high = m_attrs.find(DW_AT_high_pc);
    const AttrBinding* ranges = m_attrs.find(DW_AT_ranges);
    if (!low && !high && !ranges && !m_attrs.find(DW_AT_inline))
        return nothingBelow;
    const char* told = nameOfEntry();
    if (!told)
        return {true, flags};
    const DWARFName name = withoutFortranMark(told);
    if (ranges)
        makeRangesFunction(name, kind, ranges);
    else if (!makePlainFunction(name, kind, low, high))
        return nothingBelow;
    // The inside of a function waits until someone asks; in Fortran other functions stand there.
    return {m_unit->isFortran(), flags};
}

void DWARFSymbolWalk::makeRangesFunction(const DWARFName& name, symbol_kind_t kind,
                                         const AttrBinding* ranges) {
    unsigned long long address = m_loader.readRanges(*m_unit, ranges, m_unit->getAddressSize(), &m_ranges, 0);
    unsigned long long end = address;
    mapAddresses(address, end);
    pushWithRanges(makeFunctionSymbol(name, address, kind));
}

/// False if the function lies where nobody looks.
bool DWARFSymbolWalk::makePlainFunction(const DWARFName& name, symbol_kind_t kind, const AttrBinding* lowAttr,
                                        const AttrBinding* highAttr) {
    unsigned long long low = 0;
    unsigned long long high = 0;
    dwarf_utils::calculateHighLowAdresses(lowAttr, highAttr, low, high);
    mapAddresses(low, high);
    if ((!lowAttr && !highAttr) || high < low)
        return true;
    if (!passesFilter(low, high))
        return false;
    pushWithRange(makeFunctionSymbol(name, low, kind), low, high);
    return true;
}

/// Nothing that is below an expanded call becomes an object now: its own scope will read it, one level at a
/// time. So the children are passed.
DWARFSymbolWalk::Descent DWARFSymbolWalk::readInlinedSubroutine() {
    // On the entry itself: the function that was expanded may have code of its own elsewhere.
    const AttrBinding* low = m_attrs.find(DW_AT_low_pc, true);
    const AttrBinding* high = m_attrs.find(DW_AT_high_pc, true);
    const AttrBinding* ranges = m_attrs.find(DW_AT_ranges, true);
    if (ranges && (!low || !high))
        makeRangesInline(ranges);
    else if (low || high)
        makePlainInline(low, high);
    return nothingBelow;
}

void DWARFSymbolWalk::makeRangesInline(const AttrBinding* ranges) {
    unsigned long long low =
        m_loader.readRanges(*m_unit, ranges, m_unit->getAddressSize(), &m_ranges, limitOfRanges());
    unsigned long long high = low;
    for (const auto& range : m_ranges)
        high = std::max(high, range.second);
    mapAddresses(low, high);
    pushWithRanges(makeInlineSymbol(low, high));
}

void DWARFSymbolWalk::makePlainInline(const AttrBinding* lowAttr, const AttrBinding* highAttr) {
    unsigned long long low = 0;
    unsigned long long high = 0;
    dwarf_utils::calculateHighLowAdresses(lowAttr, highAttr, low, high);
    high = std::max(low, high);
    mapAddresses(low, high);
    // Compilers leave many expansions behind of which no code is left. In the table an empty interval is a
    // symbol whose size nobody told and takes the cell behind it; what is known to be nowhere must not. A
    // range list drops its empty pairs for the same reason.
    if (low != high)
        pushWithRange(makeInlineSymbol(low, high), low, high);
}

DWARFSymbolWalk::Descent DWARFSymbolWalk::readLabel(symbol_kind_t flags) {
    const AttrBinding* low = m_attrs.find(DW_AT_low_pc);
    const char* name = nonEmpty(textOf(m_attrs.find(DW_AT_name)));
    if (low && name && passesFilter(low->value, saturatedSum(low->value, 1)))
        pushWithRange(makeFunctionSymbol({name, true}, low->value, symbol_kind_label), low->value,
                      low->value);
    return {true, flags};
}

/// Only variables that stand at one address have symbols; the others are found in their frames.
DWARFSymbolWalk::Descent DWARFSymbolWalk::readVariable(symbol_kind_t flags) {
    const Descent below{true, flags};
    const AttrBinding* location = m_attrs.find(DW_AT_location);
    const bool isExpression =
        location && (location->form == DW_FORM_block || location->form == DW_FORM_exprloc);
    if (!isExpression || location->value == 0 || location->bytes()[0] != DW_OP_addr)
        return below;
    SectionWalker operand(location->bytes(), location->value, 1);
    operand.setAddressSize(m_unit->getAddressSize());
    const unsigned long long address = operand.readAddress() + m_unit->getLoadBias();
    TypeInfo type;
    if (const AttrBinding* reference = m_attrs.find(DW_AT_type))
        static_cast<void>(m_loader.types().readType(*m_unit, reference->value, type));
    const unsigned long long end = saturatedSum(address, type.size);
    if (!passesFilter(address, end))
        return below;
    if (const char* name = nameOfEntry())
        pushWithRange(makeFunctionSymbol({name, true}, address, symbol_kind_variable), address, end);
    return below;
}

DWARFSymbolWalk::Descent DWARFSymbolWalk::readCompileOptions(symbol_kind_t flags) {
    if (const char* text = textOf(m_attrs.find(DW_AT_VEXOR_compile_options)))
        m_unit->mergeCompileOptions(text);
    return {true, flags};
}

// --- Names

/// Null where there is none. An empty linkage name is no name either, whatever the other one is.
const char* DWARFSymbolWalk::nameOfEntry() {
    const AttrBinding* linkageName = m_attrs.find(DW_AT_MIPS_linkage_name);
    if (!linkageName)
        linkageName = m_attrs.find(DW_AT_linkage_name);
    return nonEmpty(textOf(linkageName ? linkageName : m_attrs.find(DW_AT_name)));
}

const char* DWARFSymbolWalk::nameOfInlined() {
    const AttrBinding* reference = m_attrs.find(DW_AT_abstract_origin, true);
    // Whether the linkage name counts depends on the unit of the call as well.
    if (!reference || !m_unit->holds(reference->value))
        return readNameOfInlined();
    const unsigned long long origin = reference->value;
    if (const char* const* known = m_inlinedNames.find(origin))
        return *known;
    const char* name = readNameOfInlined();
    m_inlinedNames.add(origin, name);
    return name;
}

/// Quirk: the linkage name counts only in C++, and only of a function that was declared before.
const char* DWARFSymbolWalk::readNameOfInlined() {
    AttrBindings* origin = m_attrs.getOrigin();
    if (!origin)
        return nullptr;
    const AttrBinding* linkageName = origin->find(DW_AT_MIPS_linkage_name);
    if (!linkageName)
        linkageName = origin->find(DW_AT_linkage_name);
    const char* linkage = nonEmpty(textOf(linkageName));
    if (linkage && m_unit->getLanguage() == language_Cplusplus &&
        (origin->find(DW_AT_specification) || origin->find(DW_AT_declaration)))
        return linkage;
    return nonEmpty(textOf(origin->find(DW_AT_name)));
}

/// The name that the programmer wrote; the common block without a name keeps its own.
DWARFName DWARFSymbolWalk::withoutFortranMark(const char* name) {
    if (!m_unit->isFortran() || !m_unit->getSections()->affordsText(name))
        return {name, true};
    const std::size_t length = std::strlen(name);
    if (name[length - 1] != '_' || std::strcmp(name, "_BLNK_") == 0)
        return {name, true};
    m_nameBuffer.assign(name, length - 1);
    return {m_nameBuffer.c_str(), false};
}

// --- Symbols and scopes

DWARFScope* DWARFSymbolWalk::makeFunctionSymbol(const DWARFName& name, unsigned long long address,
                                                symbol_kind_t kind) {
    if (!m_sink.exists() || !m_loader.segments().holdBoth(address, address) || !affordsScope())
        return nullptr;
    return new DWARFScope(&m_loader.fileLoader(), m_sink.scope(), name, address, kind,
                          {m_unit, m_attrs.entryStart(), m_attrs.tag()});
}

DWARFScope* DWARFSymbolWalk::makeInlineSymbol(unsigned long long low, unsigned long long high) {
    if (!m_sink.exists() || !m_loader.segments().holdBoth(low, high) || !affordsScope())
        return nullptr;
    const char* name = nameOfInlined();
    if (!name)
        return nullptr;
    return new DWARFInlineInstanceScope(&m_loader.fileLoader(), m_sink.scope(), withoutFortranMark(name), low,
                                        {m_unit, m_attrs.entryStart(), m_attrs.tag()},
                                        callSiteOf(m_attrs).exists());
}

/// A scope takes so much more memory than its entry that the two count differently.
bool DWARFSymbolWalk::affordsScope() {
    constexpr unsigned long long entriesOfScope = 16;
    return m_isOuter || m_loader.affordsInside(entriesOfScope);
}

void DWARFSymbolWalk::pushWithRange(DWARFScope* scope, unsigned long long low, unsigned long long high) {
    if (!scope)
        return;
    std::unique_ptr<DWARFScope> owner(scope);
    scope->addRange(low, high);
    m_scopeStack.push_back(scope);
    static_cast<void>(owner.release());
}

void DWARFSymbolWalk::pushWithRanges(DWARFScope* scope) {
    if (!scope)
        return;
    std::unique_ptr<DWARFScope> owner(scope);
    m_loader.sortIfLong(m_ranges);
    for (auto [low, high] : m_ranges) {
        mapAddresses(low, high);
        scope->addRange(low, high);
    }
    m_scopeStack.push_back(scope);
    static_cast<void>(owner.release());
}

void DWARFSymbolWalk::popScope() {
    Scope* scope = m_scopeStack.back();
    m_scopeStack.pop_back();
    if (passesFilter(*scope))
        m_sink.add(scope);
    else
        delete scope;
}

/// A range list of that compiler may select a base that carries ranges out of the function they belong to.
unsigned long long DWARFSymbolWalk::limitOfRanges() const {
    if (m_unit->getCompilerKind() != compiler_Vexor || !m_sink.scope())
        return 0;
    return m_sink.scope()->lastHigh();
}

void DWARFSymbolWalk::mapAddresses(unsigned long long& low, unsigned long long& high) const {
    if (IAddressMapping* mapping = m_loader.addressMapping())
        static_cast<void>(mapping->convert(low, high));
}

bool DWARFSymbolWalk::passesFilter(unsigned long long low, unsigned long long high) const {
    return !m_filter || m_filter->passes(low, high);
}

/// A scope without ranges passes.
bool DWARFSymbolWalk::passesFilter(Scope& scope) const {
    const Scope::RangeNode* range = scope.rangeList()->m_head;
    if (!m_filter || !range)
        return true;
    for (; range; range = range->next) {
        if (m_filter->passes(range->low, range->high))
            return true;
    }
    return false;
}

} // namespace ORN_3_30
