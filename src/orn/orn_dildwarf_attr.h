// One decoded entry of `.debug_info`, asked by attribute number.
#ifndef ORN_DILDWARF_ATTR_H
#define ORN_DILDWARF_ATTR_H

#include "orn/object.h"
#include "orn_dildwarf_abbrev.h"
#include "orn_dildwarf_constants.h"

#include <cstdint>
#include <memory>
#include <vector>

namespace ORN_3_30 {

class DWARFCompilationUnit;

/// One decoded attribute. Forms are normalised, so that no consumer needs the form of the file: blocks are
/// `DW_FORM_block` (or `DW_FORM_exprloc`), constants `DW_FORM_data8` (or `DW_FORM_sdata`, `DW_FORM_udata`),
/// references `DW_FORM_ref_addr` with an absolute offset in `.debug_info`.
struct AttrBinding {
    unsigned long long form;  ///< the normalised `DW_FORM_*`
    unsigned long long value; ///< the number, or the length of a block or of a `DW_FORM_string`
    const void* data;         ///< a text or a block; null otherwise, and for a text outside `.debug_str`

    /// The text; null unless the attribute is one, since a block has no end mark.
    const char* text() const {
        return form == DW_FORM_string || form == DW_FORM_strp ? static_cast<const char*>(data) : nullptr;
    }
    const unsigned char* bytes() const { return static_cast<const unsigned char*>(data); }
};

/// The text of an attribute that may be absent (null) or be none.
inline const char* textOf(const AttrBinding* binding) {
    return binding ? binding->text() : nullptr;
}

/// One decoded entry: its tag and its attributes in ascending order, the first of equal ones.
///
/// An object serves one entry after another: decoding resets it, and memory is only ever taken when an entry
/// has more attributes than all before it. Whoever keeps an entry takes kept().
class AttrBindings : public SymMgrObjectImpl {
public:
    /// `compUnit` is borrowed: hold the loader.
    explicit AttrBindings(DWARFCompilationUnit* compUnit) : m_compUnit(compUnit) {}
    ~AttrBindings() override;

    DWARFCompilationUnit* compUnit() const { return m_compUnit; }
    /// `DW_TAG_*`.
    unsigned long long tag() const { return m_tag; }
    /// In `.debug_info`, of the byte behind the abbreviation code.
    ///
    /// Quirk: it is not the entry's start, so that it never equals a reference; the two are never compared.
    unsigned long long offset() const { return m_offset; }
    /// In `.debug_info`, of the entry itself: where it is decoded again.
    unsigned long long entryStart() const { return m_entryStart; }
    /// The `DW_CHILDREN_*` byte.
    std::uint8_t getHasChildren() const { return m_hasChildren; }
    bool hasChildren() const { return m_hasChildren == DW_CHILDREN_yes; }

    /// The attribute of this entry; with `localOnly` false, if it has none, that of the entry it refers to,
    /// and so on. Null if there is none. Borrowed until this object is reset.
    AttrBinding* find(unsigned long long attribute, bool localOnly = false) {
        const std::uint32_t place = m_shape->find(attribute);
        if (place != AttrSpec::notKept)
            return &m_nodes[place];
        return localOnly || !mayHaveOrigin() ? nullptr : findInOrigins(attribute);
    }
    /// The entry that this one refers to by `DW_AT_abstract_origin`, else by `DW_AT_specification`; null if
    /// there is none, it cannot be decoded, or the references lead round in a circle. Borrowed: the object
    /// counts it.
    AttrBindings* getOrigin();

    /// The attributes, ascending.
    std::uint32_t attributeCount() const { return m_shape->count; }
    unsigned long long attributeAt(std::uint32_t index) const { return m_shape->keys[index]; }
    AttrBinding* bindingAt(std::uint32_t index) { return &m_nodes[index]; }

    /// Makes the object an entry of `compUnit` without attributes.
    void reset(DWARFCompilationUnit* compUnit);
    /// A copy of exact size, without its origin, for whoever keeps the entry.
    SymMgrObjectPtr<AttrBindings> kept() const;

private:
    friend class AttrDecoder;

    /// So many origins of a chain are used again.
    static constexpr unsigned long long spareOrigins = 4;
    /// Chains of references are no longer in sound data; the links of a longer one are counted.
    static constexpr unsigned long long usualChain = 16;

    bool mayHaveOrigin() const {
        return m_origin || m_shape->find(DW_AT_abstract_origin) != AttrSpec::notKept ||
               m_shape->find(DW_AT_specification) != AttrSpec::notKept;
    }
    AttrBinding* findInOrigins(unsigned long long attribute);
    void loadOrigin(unsigned long long reference);
    DWARFCompilationUnit* unitHolding(unsigned long long reference) const;
    void notePlaceInChain(const AttrBindings& referrer);
    void dropOrigin();
    void retireOrigin();
    bool isSoleReference();
    void reserve(std::uint32_t count);

    DWARFCompilationUnit* m_compUnit;
    const AttrShape* m_shape = &s_noAttributes; ///< the abbreviation's, or &m_ownShape
    std::unique_ptr<AttrBinding[]> m_nodes;
    std::uint32_t m_capacity = 0;
    std::uint8_t m_hasChildren = 0;
    unsigned long long m_tag = 0;
    unsigned long long m_offset = 0;
    SymMgrObjectPtr<AttrBindings> m_origin;
    /// A former origin, to be used again: entries of a walk have their origins decoded one after another.
    SymMgrObjectPtr<AttrBindings> m_spareOrigin;

    // To end a circle of references: the start of this entry if it was reached by reference, how many
    // references led to it, and the start of an earlier entry of the chain, which later ones are held
    // against.
    unsigned long long m_entryStart = 0;
    unsigned long long m_chainStart = 0;
    unsigned long long m_chainLength = 0;

    /// Of entries whose forms are only told by the entry itself; rare.
    struct OwnShape {
        AttrShape shape;
        std::vector<unsigned long long> keys;
    };
    std::unique_ptr<OwnShape> m_ownShape;

    static const AttrShape s_noAttributes;
};

} // namespace ORN_3_30

#endif
