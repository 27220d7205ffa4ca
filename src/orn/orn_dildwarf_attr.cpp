// Decodes entries of `.debug_info` and follows the references between them. Called for every entry of every
// walk: units, symbols, inlined code, stack variables. This is the hottest code of a load, so it works on
// plain pointers, takes no memory once an AttrBindings object has served a few entries, and passes what
// nobody wants without looking at it. Which entries are wanted is the walker's business (orn_dildwarf.cpp).
//
// Nothing is checked but what has to be: a view is followed by endless zeros, so that damaged entries decode
// to something and end.

#include "orn_dildwarf_attr.h"

#include "orn_dildwarf.h"
#include "orn_dildwarf_reader.h"
#include "orn_log.h"

#include <algorithm>
#include <cstring>
#include <memory>

namespace ORN_3_30 {

namespace {

/// What decoding and skipping need of a unit.
struct UnitForms {
    explicit UnitForms(const DWARFCompilationUnit& unit)
        : loadBias(unit.getLoadBias()),
          unitOffset(unit.header().offset),
          is64Bit(unit.isBigOffsets()),
          offsetSize(unit.getOffsetSize()),
          addressSize(unit.getAddressSize()),
          refAddrIsAddress(unit.getVersion() < 3) {}

    bool hasUsualAddresses() const { return addressSize == 4 || addressSize == 8; }

    unsigned long long loadBias;
    unsigned long long unitOffset;
    bool is64Bit;
    unsigned offsetSize;
    unsigned addressSize;
    bool refAddrIsAddress; ///< version 2: a reference beyond the unit is as wide as an address
};

enum class Outcome { kept, dropped, undecodable };

/// Counts the attributes of one entry that take none of its bytes: flags that are there by name alone,
/// whatever is cut off, addresses of a width that is not read. A damaged abbreviation may have any number of
/// them, and any number of entries of a byte or two; a real one has a few.
class EmptyAttributes {
public:
    /// Abbreviations with no more attributes need not be counted.
    static constexpr std::uint32_t most = 256;

    explicit EmptyAttributes(const ViewReader& reader) : m_remaining(reader.remaining()) {}

    /// Behind each attribute; false if the entry has too many of them, and so cannot be decoded.
    bool areFewAt(const ViewReader& reader) {
        m_count += reader.remaining() == m_remaining ? 1 : 0;
        m_remaining = reader.remaining();
        return m_count <= most;
    }

private:
    unsigned long long m_remaining;
    std::uint32_t m_count = 0;
};

/// `DW_FORM_sec_offset` alone is read with a bound.
bool readSecOffset(ViewReader& walker, bool is64Bit, unsigned long long& attrValue) {
    const unsigned width = is64Bit ? 8 : 4;
    const bool isHeld = walker.remaining() >= width;
    if (is64Bit)
        ORN_ASSERT_TEXT(isHeld, "walker.getUnsigned8(attrValue) == status_Ok");
    else
        ORN_ASSERT_TEXT(isHeld, "walker.getUnsigned4(attrValue) == status_Ok");
    if (isHeld)
        attrValue = walker.readOffset(is64Bit);
    return isHeld;
}

void takeBlock(ViewReader& reader, unsigned long long length, unsigned form, AttrBinding& out) {
    out = {form, std::min(length, reader.remaining()), reader.cursor()};
    reader.skip(length);
}

void takeText(ViewReader& reader, DWARFSections& sections, AttrBinding& out) {
    out.form = DW_FORM_string;
    out.data = sections.textInInfo(reader.offset(), reader.viewEnd(), out.value);
    reader.skip(out.value + 1);
}

/// The decoding table of forms.
Outcome decodeValue(ViewReader& reader, unsigned form, const UnitForms& unit, DWARFSections& sections,
                    AttrBinding& out) {
    const auto number = [&out](unsigned normalised, unsigned long long value) {
        out = {normalised, value, nullptr};
        return Outcome::kept;
    };
    const auto localReference = [&](unsigned long long value) {
        return number(DW_FORM_ref_addr, value + unit.unitOffset);
    };
    const auto block = [&](unsigned long long length) {
        takeBlock(reader, length, DW_FORM_block, out);
        return Outcome::kept;
    };
    switch (form) {
    case DW_FORM_addr:
        return number(DW_FORM_addr, reader.readAddress() + unit.loadBias);
    case DW_FORM_block1:
        return block(reader.readU8());
    case DW_FORM_block2:
        return block(reader.readU16());
    case DW_FORM_block4:
        return block(reader.readU32());
    case DW_FORM_block:
        return block(reader.readULEB());
    case DW_FORM_exprloc:
        takeBlock(reader, reader.readULEB(), DW_FORM_exprloc, out);
        return Outcome::kept;
    case DW_FORM_data1:
        return number(DW_FORM_data8, reader.readU8());
    case DW_FORM_data2:
        return number(DW_FORM_data8, reader.readU16());
    case DW_FORM_data4:
        return number(DW_FORM_data8, reader.readU32());
    case DW_FORM_data8:
        return number(DW_FORM_data8, reader.readU64());
    case DW_FORM_sdata:
        return number(DW_FORM_sdata, reader.readSLEB());
    case DW_FORM_udata:
        return number(DW_FORM_udata, reader.readULEB());
    case DW_FORM_flag:
        return number(DW_FORM_flag, reader.readU8());
    case DW_FORM_flag_present:
        // Quirk: the value is 0: the attribute's being there is the flag, never its value.
        return number(DW_FORM_flag_present, 0);
    case DW_FORM_string:
        takeText(reader, sections, out);
        return Outcome::kept;
    case DW_FORM_strp:
        // Quirk: the offset is kept nowhere; consumers read the text.
        out = {DW_FORM_strp, 0, sections.stringAt(reader.readOffset(unit.is64Bit))};
        return Outcome::kept;
    case DW_FORM_ref_addr:
        return number(DW_FORM_ref_addr,
                      unit.refAddrIsAddress ? reader.readAddress() : reader.readOffset(unit.is64Bit));
    case DW_FORM_ref1:
        return localReference(reader.readU8());
    case DW_FORM_ref2:
        return localReference(reader.readU16());
    case DW_FORM_ref4:
        return localReference(reader.readU32());
    case DW_FORM_ref8:
        return localReference(reader.readU64());
    case DW_FORM_ref_udata:
        return localReference(reader.readULEB());
    case DW_FORM_sec_offset:
        out = {DW_FORM_sec_offset, 0, nullptr};
        return readSecOffset(reader, unit.is64Bit, out.value) ? Outcome::kept : Outcome::undecodable;
    case DW_FORM_ref_sig8:
        // Type units are not read, so a signature leads nowhere.
        reader.skip(8);
        return number(DW_FORM_ref_sig8, ~0ULL);
    case DW_FORM_GNU_addr_index:
    case DW_FORM_GNU_str_index:
        reader.skipULEB();
        return Outcome::dropped;
    case DW_FORM_GNU_ref_alt:
    case DW_FORM_GNU_strp_alt:
        reader.skip(unit.offsetSize);
        return Outcome::dropped;
    default:
        return Outcome::undecodable;
    }
}

/// The form that an entry names itself; one indirection may name another.
std::uint32_t readIndirectForm(ViewReader& reader) {
    unsigned long long form = DW_FORM_indirect;
    while (form == DW_FORM_indirect)
        form = reader.readULEB();
    return form < AttrSpec::noForm ? static_cast<std::uint32_t>(form) : AttrSpec::noForm;
}

/// Passes a value that nobody wants. False if it cannot be decoded.
bool skipValue(ViewReader& reader, std::uint32_t form, const UnitForms& unit) {
    switch (form) {
    case DW_FORM_addr:
        if (unit.hasUsualAddresses())
            reader.skip(unit.addressSize);
        else
            reader.readAddress();
        return true;
    case DW_FORM_block1:
        reader.skip(reader.readU8());
        return true;
    case DW_FORM_block2:
        reader.skip(reader.readU16());
        return true;
    case DW_FORM_block4:
        reader.skip(reader.readU32());
        return true;
    case DW_FORM_block:
    case DW_FORM_exprloc:
        reader.skip(reader.readULEB());
        return true;
    case DW_FORM_data1:
    case DW_FORM_flag:
    case DW_FORM_ref1:
        reader.skip(1);
        return true;
    case DW_FORM_data2:
    case DW_FORM_ref2:
        reader.skip(2);
        return true;
    case DW_FORM_data4:
    case DW_FORM_ref4:
        reader.skip(4);
        return true;
    case DW_FORM_data8:
    case DW_FORM_ref8:
    case DW_FORM_ref_sig8:
        reader.skip(8);
        return true;
    case DW_FORM_sdata:
        reader.skipSLEB();
        return true;
    case DW_FORM_udata:
    case DW_FORM_ref_udata:
    case DW_FORM_GNU_addr_index:
    case DW_FORM_GNU_str_index:
        reader.skipULEB();
        return true;
    case DW_FORM_flag_present:
        return true;
    case DW_FORM_ref_addr:
        if (unit.refAddrIsAddress)
            return skipValue(reader, DW_FORM_addr, unit);
        reader.skip(unit.offsetSize);
        return true;
    case DW_FORM_strp:
    case DW_FORM_GNU_ref_alt:
    case DW_FORM_GNU_strp_alt:
        reader.skip(unit.offsetSize);
        return true;
    default:
        return false;
    }
}

/// The sibling of an abbreviation that has it in a fixed place, from the bytes at the reader.
unsigned long long fixedSibling(const ViewReader& reader, const AbbrevEntry& abbrev, const UnitForms& unit) {
    unsigned long long value = 0;
    std::memcpy(&value, reader.cursor() + abbrev.sizesToSibling.total(unit.addressSize, unit.offsetSize),
                abbrev.siblingWidth);
    return value + unit.unitOffset;
}

/// Passes all attributes one by one, for entries that are of no fixed size or are cut off.
bool skipEachAttribute(ViewReader& reader, const AbbrevEntry& abbrev, const UnitForms& unit,
                       DWARFSections& sections, unsigned long long& sibling) {
    bool siblingSeen = false;
    EmptyAttributes emptyOnes(reader);
    for (std::uint32_t i = 0; i < abbrev.specCount; ++i) {
        const AttrSpec& spec = abbrev.specs[i];
        std::uint32_t form = spec.form;
        if (form == DW_FORM_indirect)
            form = readIndirectForm(reader);
        if ((spec.attribute == DW_AT_sibling && !siblingSeen) || form == DW_FORM_string ||
            form == DW_FORM_sec_offset) {
            AttrBinding binding{};
            const Outcome outcome = decodeValue(reader, form, unit, sections, binding);
            if (outcome == Outcome::undecodable)
                return false;
            if (spec.attribute == DW_AT_sibling && !siblingSeen && outcome == Outcome::kept) {
                siblingSeen = true;
                sibling = binding.value;
            }
        } else if (!skipValue(reader, form, unit)) {
            return false;
        }
        if (!emptyOnes.areFewAt(reader))
            return false;
    }
    return true;
}

inline bool skipAllAttributes(ViewReader& reader, const AbbrevEntry& abbrev, const UnitForms& unit,
                              DWARFSections& sections, unsigned long long& sibling) {
    sibling = 0;
    if (abbrev.isFixedSize && abbrev.specCount <= EmptyAttributes::most && unit.hasUsualAddresses()) {
        const unsigned long long size = abbrev.sizes.total(unit.addressSize, unit.offsetSize);
        if (size <= reader.remaining()) {
            if (abbrev.hasFixedSibling)
                sibling = fixedSibling(reader, abbrev, unit);
            reader.skip(size);
            return true;
        }
    }
    return skipEachAttribute(reader, abbrev, unit, sections, sibling);
}

/// Null at a null entry, and after the message at a code that the table does not define: then the reader goes
/// to the end of its view, so that nothing is decoded out of step.
inline const AbbrevEntry* readCode(ViewReader& reader, const AbbrevTable& table) {
    const unsigned long long code = reader.readULEB();
    if (code == 0)
        return nullptr;
    const AbbrevEntry* abbrev = table.find(code);
    if (!ORN_ASSERT_TEXT(abbrev != nullptr, "false"))
        reader.giveUp();
    return abbrev;
}

} // namespace

const AttrShape AttrBindings::s_noAttributes;

/// Fills AttrBindings objects.
class AttrDecoder {
public:
    AttrDecoder(ViewReader& reader, const DWARFCompilationUnit& unit, AttrBindings& out)
        : m_reader(reader), m_forms(unit), m_sections(*unit.getSections()), m_out(out) {}

    bool decode(const AbbrevEntry& abbrev, unsigned long long entryStart) {
        m_out.m_entryStart = entryStart;
        m_out.m_chainStart = entryStart;
        m_out.m_tag = abbrev.tag;
        m_out.m_hasChildren = abbrev.hasChildren;
        m_out.m_offset = m_reader.offset();
        if (abbrev.hasIndirect)
            return decodeUnordered(abbrev);
        return abbrev.specCount <= EmptyAttributes::most ? decodeOrdered(abbrev, AnyNumber())
                                                         : decodeOrdered(abbrev, EmptyAttributes(m_reader));
    }

private:
    /// In place of EmptyAttributes where there are not so many.
    struct AnyNumber {
        bool areFewAt(const ViewReader&) { return true; }
    };

    /// Every value goes to the place that the abbreviation knows for it.
    template <typename EmptyOnes>
    bool decodeOrdered(const AbbrevEntry& abbrev, EmptyOnes emptyOnes) {
        m_out.reserve(abbrev.shape.count);
        AttrBinding* nodes = m_out.m_nodes.get();
        AttrBinding unwanted;
        for (const AttrSpec *spec = abbrev.specs, *end = spec + abbrev.specCount; spec != end; ++spec) {
            AttrBinding& node = spec->place != AttrSpec::notKept ? nodes[spec->place] : unwanted;
            if (decodeValue(m_reader, spec->form, m_forms, m_sections, node) == Outcome::undecodable ||
                !emptyOnes.areFewAt(m_reader))
                return false;
        }
        m_out.m_shape = &abbrev.shape;
        return true;
    }

    /// Only the entry tells what an indirect form is, and so whether it is kept: the order is made here.
    bool decodeUnordered(const AbbrevEntry& abbrev) {
        std::vector<std::pair<unsigned long long, AttrBinding>> found;
        EmptyAttributes emptyOnes(m_reader);
        for (const AttrSpec *spec = abbrev.specs, *end = spec + abbrev.specCount; spec != end; ++spec) {
            const std::uint32_t form =
                spec->form == DW_FORM_indirect ? readIndirectForm(m_reader) : spec->form;
            AttrBinding node;
            const Outcome outcome = decodeValue(m_reader, form, m_forms, m_sections, node);
            if (outcome == Outcome::undecodable || !emptyOnes.areFewAt(m_reader))
                return false;
            if (outcome == Outcome::kept)
                found.emplace_back(spec->attribute, node);
        }
        std::stable_sort(found.begin(), found.end(),
                         [](const auto& a, const auto& b) { return a.first < b.first; });
        found.erase(std::unique(found.begin(), found.end(),
                                [](const auto& a, const auto& b) { return a.first == b.first; }),
                    found.end());
        keep(found);
        return true;
    }

    void keep(const std::vector<std::pair<unsigned long long, AttrBinding>>& found) {
        m_out.reserve(static_cast<std::uint32_t>(found.size()));
        if (!m_out.m_ownShape)
            m_out.m_ownShape = std::make_unique<AttrBindings::OwnShape>();
        AttrBindings::OwnShape& own = *m_out.m_ownShape;
        own.keys.clear();
        for (const auto& [attribute, node] : found) {
            m_out.m_nodes[own.keys.size()] = node;
            own.keys.push_back(attribute);
        }
        own.shape.assign(own.keys.data(), own.keys.size());
        m_out.m_shape = &own.shape;
    }

    ViewReader& m_reader;
    UnitForms m_forms;
    DWARFSections& m_sections;
    AttrBindings& m_out;
};

namespace {

bool decodeAttributes(ViewReader& reader, DWARFCompilationUnit& unit, const AbbrevEntry& abbrev,
                      unsigned long long start, AttrBindings& out) {
    if (AttrDecoder(reader, unit, out).decode(abbrev, start))
        return true;
    out.reset(&unit);
    reader.giveUp();
    return false;
}

} // namespace

AttrBindings::~AttrBindings() {
    dropOrigin();
}

void AttrBindings::reset(DWARFCompilationUnit* compUnit) {
    if (m_origin)
        retireOrigin();
    m_compUnit = compUnit;
    m_shape = &s_noAttributes;
    m_hasChildren = 0;
    m_tag = 0;
    m_offset = 0;
    m_entryStart = 0;
    m_chainStart = 0;
    m_chainLength = 0;
}

void AttrBindings::reserve(std::uint32_t count) {
    if (count <= m_capacity)
        return;
    m_nodes = std::make_unique_for_overwrite<AttrBinding[]>(count);
    m_capacity = count;
}

/// Lets the chain of origins go link by link: it may be as long as the section, so that the destructors must
/// not nest. What someone else counts stays with him.
void AttrBindings::dropOrigin() {
    SymMgrObjectPtr<AttrBindings> link = std::move(m_origin);
    while (link) {
        SymMgrObjectPtr<AttrBindings> next;
        if (link->isSoleReference())
            next = std::move(link->m_origin);
        link = std::move(next);
    }
}

/// Keeps the objects of the first few origins for the next entry's.
void AttrBindings::retireOrigin() {
    if (m_chainLength >= spareOrigins || !m_origin->isSoleReference()) {
        dropOrigin();
        return;
    }
    if (m_origin->m_origin)
        m_origin->retireOrigin();
    m_spareOrigin = std::move(m_origin);
}

bool AttrBindings::isSoleReference() {
    const bool isSole = addRef() == 2;
    release();
    return isSole;
}

SymMgrObjectPtr<AttrBindings> AttrBindings::kept() const {
    SymMgrObjectPtr<AttrBindings> copy = new AttrBindings(m_compUnit);
    copy->m_tag = m_tag;
    copy->m_offset = m_offset;
    copy->m_hasChildren = m_hasChildren;
    copy->m_entryStart = m_entryStart;
    copy->m_chainStart = m_chainStart;
    copy->m_chainLength = m_chainLength;
    copy->reserve(m_shape->count);
    std::copy_n(m_nodes.get(), m_shape->count, copy->m_nodes.get());
    copy->m_shape = m_shape;
    if (m_ownShape && m_shape == &m_ownShape->shape) {
        copy->m_ownShape = std::make_unique<OwnShape>(*m_ownShape);
        OwnShape& own = *copy->m_ownShape;
        own.shape.assign(own.keys.data(), own.keys.size());
        copy->m_shape = &own.shape;
    }
    return copy;
}

AttrBinding* AttrBindings::findInOrigins(unsigned long long attribute) {
    for (AttrBindings* entry = getOrigin(); entry; entry = entry->getOrigin()) {
        if (AttrBinding* found = entry->find(attribute, true))
            return found;
    }
    return nullptr;
}

AttrBindings* AttrBindings::getOrigin() {
    if (m_origin)
        return m_origin;
    const AttrBinding* reference = find(DW_AT_abstract_origin, true);
    if (!reference)
        reference = find(DW_AT_specification, true);
    if (reference)
        loadOrigin(reference->value);
    return m_origin;
}

void AttrBindings::loadOrigin(unsigned long long reference) {
    // References that lead round in a circle pass the noted start again, however long the circle is.
    if (reference == m_chainStart || reference == m_entryStart)
        return;
    DWARFCompilationUnit* unit = unitHolding(reference);
    if (!unit)
        return;
    if (m_chainLength >= usualChain && !m_compUnit->getSections()->affords(1))
        return;
    SymMgrObjectPtr<AttrBindings> origin = std::move(m_spareOrigin);
    if (!origin)
        origin = new AttrBindings(unit);
    SectionWalker walker = unit->walkerAt(reference);
    if (!unit->readReferredEntry(walker, *origin)) {
        m_spareOrigin = std::move(origin);
        return;
    }
    origin->notePlaceInChain(*this);
    m_origin = std::move(origin);
}

DWARFCompilationUnit* AttrBindings::unitHolding(unsigned long long reference) const {
    if (m_compUnit->holds(reference))
        return m_compUnit;
    DWARFDebugInfoLoader* loader = m_compUnit->getLoader();
    if (!ORN_ASSERT_TEXT(loader != nullptr, "loader != 0L"))
        return nullptr;
    return loader->findCompUnitContaining(reference);
}

/// The noted start moves on whenever the chain has doubled: so it gets into the circle, and the circle fits
/// between two moves.
void AttrBindings::notePlaceInChain(const AttrBindings& referrer) {
    m_chainLength = referrer.m_chainLength + 1;
    const bool hasDoubled = (m_chainLength & (m_chainLength - 1)) == 0;
    m_chainStart = hasDoubled ? m_entryStart : referrer.m_chainStart;
}

SectionWalker DWARFCompilationUnit::walkerAt(unsigned long long offset) const {
    const RelocatedSection& info = m_sections->info();
    const unsigned long long end =
        m_header.size > ~0ULL - m_header.offset ? ~0ULL : m_header.offset + m_header.size;
    SectionWalker walker(info.begin(), std::min(end, info.size()), offset);
    walker.setAddressSize(m_header.addressSize);
    return walker;
}

bool DWARFCompilationUnit::readAttrBindings(SectionWalker& walker, AttrBindings& attrBindings) {
    attrBindings.reset(this);
    ViewReader reader(walker);
    const unsigned long long start = reader.offset();
    const AbbrevEntry* abbrev = readCode(reader, *m_abbrevsMap);
    const bool isDecoded = abbrev && decodeAttributes(reader, *this, *abbrev, start, attrBindings);
    reader.finish();
    return isDecoded;
}

bool DWARFCompilationUnit::readAttrBindingsAt(unsigned long long offset, AttrBindings& attrBindings) {
    SectionWalker walker = walkerAt(offset);
    return readAttrBindings(walker, attrBindings);
}

bool DWARFCompilationUnit::readReferredEntry(SectionWalker& walker, AttrBindings& attrBindings) {
    attrBindings.reset(this);
    if (m_sections->isExcessUsedUp())
        return false;
    ViewReader reader(walker);
    const unsigned long long start = reader.offset();
    const AbbrevEntry* abbrev = readCode(reader, *m_abbrevsMap);
    const bool isDecoded = abbrev && decodeAttributes(reader, *this, *abbrev, start, attrBindings);
    const unsigned long long work = reader.longLEBBytes() + (abbrev ? abbrev->specCount : 0);
    if (work > usualEntryWork)
        static_cast<void>(m_sections->affords(work));
    reader.finish();
    return isDecoded;
}

DWARFCompilationUnit::EntryCode DWARFCompilationUnit::readEntryCode(SectionWalker& walker) const {
    ViewReader reader(walker);
    EntryCode code;
    code.start = reader.offset();
    code.abbrev = readCode(reader, *m_abbrevsMap);
    reader.finish();
    return code;
}

bool DWARFCompilationUnit::readAttributes(SectionWalker& walker, const EntryCode& code,
                                          AttrBindings& attrBindings) {
    attrBindings.reset(this);
    ViewReader reader(walker);
    const bool isDecoded = decodeAttributes(reader, *this, *code.abbrev, code.start, attrBindings);
    reader.finish();
    return isDecoded;
}

bool DWARFCompilationUnit::skipAttributes(SectionWalker& walker, const EntryCode& code,
                                          unsigned long long& sibling) const {
    ViewReader reader(walker);
    const UnitForms forms(*this);
    const bool isSkipped = skipAllAttributes(reader, *code.abbrev, forms, *m_sections, sibling);
    if (!isSkipped)
        reader.giveUp();
    reader.finish();
    return isSkipped;
}

/// A sibling that leads back, or out of the unit, would have entries read twice or not at all.
inline bool DWARFCompilationUnit::followSibling(ViewReader& reader, unsigned long long sibling) const {
    if (!trustsSiblings() || sibling <= reader.offset() || !reachesTo(sibling))
        return false;
    reader.seekInside(std::min(sibling, reader.viewEnd()));
    return true;
}

/// Tells of each list of children that has to be read: where it begins, and what is behind its end, with the
/// number of entries read up to there.
template <typename OnOpen, typename OnClose>
inline unsigned long long DWARFCompilationUnit::passSubtree(SectionWalker& walker, unsigned long long sibling,
                                                            const OnOpen& onOpen,
                                                            const OnClose& onClose) const {
    ViewReader reader(walker);
    const UnitForms forms(*this);
    unsigned long long entries = 0;
    unsigned long long depth = 0;
    if (!followSibling(reader, sibling)) {
        depth = 1;
        onOpen(reader.offset(), entries);
    }
    while (depth > 0 && reader.remaining() > 0) {
        ++entries;
        const AbbrevEntry* abbrev = readCode(reader, *m_abbrevsMap);
        if (!abbrev) {
            --depth;
            onClose(reader.offset(), entries);
        } else if (!skipAllAttributes(reader, *abbrev, forms, *m_sections, sibling)) {
            reader.giveUp();
        } else if (abbrev->hasChildren == DW_CHILDREN_yes && !followSibling(reader, sibling)) {
            ++depth;
            onOpen(reader.offset(), entries);
        }
    }
    for (; depth > 0; --depth)
        onClose(reader.offset(), entries);
    reader.finish();
    return entries;
}

unsigned long long DWARFCompilationUnit::skipChildren(SectionWalker& walker,
                                                      unsigned long long sibling) const {
    const auto ignore = [](unsigned long long, unsigned long long) {};
    return passSubtree(walker, sibling, ignore, ignore);
}

std::vector<DWARFCompilationUnit::Subtree>
DWARFCompilationUnit::largeSubtrees(SectionWalker walker, unsigned long long sibling,
                                    unsigned long long least) const {
    std::vector<Subtree> found;
    std::vector<std::pair<unsigned long long, unsigned long long>> open; // begin, entries before it
    passSubtree(
        walker, sibling,
        [&](unsigned long long offset, unsigned long long entries) { open.emplace_back(offset, entries); },
        [&](unsigned long long offset, unsigned long long entries) {
            const auto [begin, before] = open.back();
            open.pop_back();
            if (entries - before > least)
                found.emplace_back(begin, offset);
        });
    return found;
}

} // namespace ORN_3_30
