// A module in memory with debug sections, read by the loader of DWARF: what the tests of symbols, scopes and
// expanded calls ask.
#pragma once

#include "dwarf_assembler.h"
#include "dwarf_sections.h"
#include "orn/address.h"
#include "orn/symbol.h"
#include "orn_dildwarf.h"
#include "orn_dildwarf_symbol.h"
#include "orn_ffl.h"
#include "orn_scope.h"

#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

namespace ORN_3_30::test {

/// The least a format loader can be: segments, and nothing to read.
class SegmentsLoader : public FileFormatLoader {
public:
    void segment(unsigned long long begin, unsigned long long size) {
        addSegment(begin, ".text", begin - imageBase, 0, size, size, 0);
    }

    const char* getPath() override { return "/module"; }
    exec_format_t getExecFormat() override { return exec_format_elf; }
    arch_t getArch() override { return arch_x86_64; }
    unsigned long long getImageBase() override { return imageBase; }
    unsigned long long getEntryPoint() override { return 0; }
    unsigned long long getImageSize() override { return 0; }
    status_t readSymbols(ISymbolTable* sink, LoadFilter*, symbol_kind_t) override {
        if (onRead)
            onRead(sink);
        return status_Ok;
    }
    void getSectionByName(SymMgrObjectPtr<ISection>& out, const char*) override { out = nullptr; }
    void getSectionByIndex(SymMgrObjectPtr<ISection>& out, unsigned) override { out = nullptr; }

    unsigned long long imageBase = 0;
    std::function<void(ISymbolTable*)> onRead; ///< what the format's own symbols bring

protected:
    status_t collectSymbolFiles(std::vector<SymMgrObjectPtr<ISymbolFileToResolve>>&) override {
        return status_Ok;
    }
    IDebugInfoLoader* createDebugInfoLoader(const char*, unsigned, long long) override { return nullptr; }
    void addSectionEnds(ISymbolTable*) override {}
};

/// One attribute of an entry, with the form that it is to have.
struct DwarfAttr {
    uint64_t attribute;
    uint64_t form;
    orn_test::DwarfValue value;
};
using DwarfAttrs = std::vector<DwarfAttr>;

inline DwarfAttrs operator+(DwarfAttrs a, const DwarfAttrs& b) {
    a.insert(a.end(), b.begin(), b.end());
    return a;
}

/// Builds a module entry by entry and loads it.
///
///     DwarfModule module;
///     module.unit();
///     module.leaf(DW_TAG_subprogram, function("f", 0x1000, 0x20));
///     module.endUnit();
///     EXPECT_EQ(module.symbols(symbol_kind_function), ...);
///
/// There is one segment, from 0x1000 to 0x9000, unless a test makes its own.
class DwarfModule {
public:
    static DwarfAttrs named(const char* name) { return {{DW_AT_name, DW_FORM_string, name}}; }
    static DwarfAttrs code(unsigned long long low, unsigned long long size) {
        return {{DW_AT_low_pc, DW_FORM_addr, low}, {DW_AT_high_pc, DW_FORM_data4, size}};
    }
    static DwarfAttrs function(const char* name, unsigned long long low, unsigned long long size) {
        return named(name) + code(low, size);
    }
    static DwarfAttrs origin(const char* label) {
        return {{DW_AT_abstract_origin, DW_FORM_ref_addr, orn_test::DwarfValue::ref(label)}};
    }
    static DwarfAttrs declaredBy(const char* label) {
        return {{DW_AT_specification, DW_FORM_ref_addr, orn_test::DwarfValue::ref(label)}};
    }
    static DwarfAttrs type(const char* label) {
        return {{DW_AT_type, DW_FORM_ref_addr, orn_test::DwarfValue::ref(label)}};
    }
    /// A static variable's place.
    static DwarfAttrs place(unsigned long long address) {
        std::vector<uint8_t> expression{DW_OP_addr};
        for (int i = 0; i < 8; ++i)
            expression.push_back(static_cast<uint8_t>(address >> (8 * i)));
        return {{DW_AT_location, DW_FORM_exprloc, expression}};
    }
    static DwarfAttrs ranges(unsigned long long offset) {
        return {{DW_AT_ranges, DW_FORM_sec_offset, offset}};
    }
    static DwarfAttrs language(unsigned language) { return {{DW_AT_language, DW_FORM_data1, language}}; }
    static DwarfAttrs producer(const char* text) { return {{DW_AT_producer, DW_FORM_string, text}}; }
    static DwarfAttrs lines(unsigned long long offset) {
        return {{DW_AT_stmt_list, DW_FORM_sec_offset, offset}};
    }
    static DwarfAttrs declared(unsigned file, unsigned line) {
        return {{DW_AT_decl_file, DW_FORM_data1, file}, {DW_AT_decl_line, DW_FORM_data1, line}};
    }
    static DwarfAttrs called(unsigned file, unsigned line) {
        return {{DW_AT_call_file, DW_FORM_data1, file}, {DW_AT_call_line, DW_FORM_data1, line}};
    }

    // Building

    DwarfModule& unit(const DwarfAttrs& attrs = {}, const orn_test::DwarfUnitOptions& options = {}) {
        dwarf.beginUnit(options);
        return open(DW_TAG_compile_unit, attrs);
    }
    /// An entry with children, which follow up to close().
    DwarfModule& open(uint64_t tag, const DwarfAttrs& attrs = {}, const std::string& label = "") {
        return entry(tag, true, attrs, label);
    }
    DwarfModule& leaf(uint64_t tag, const DwarfAttrs& attrs = {}, const std::string& label = "") {
        return entry(tag, false, attrs, label);
    }
    DwarfModule& close() {
        dwarf.null();
        return *this;
    }
    DwarfModule& endUnit() {
        dwarf.null();
        dwarf.endUnit();
        return *this;
    }
    /// An unnamed function that opens: what is inside it is for loadContent.
    DwarfModule& openFunction(const char* name, unsigned long long low, unsigned long long size) {
        return open(DW_TAG_subprogram, function(name, low, size));
    }
    /// A pair of `.debug_ranges`.
    DwarfModule& pair(unsigned long long first, unsigned long long second) {
        dwarf.ranges().u64(first).u64(second);
        return *this;
    }
    /// The line program of the next unit: its files, and one row for each 0x10 bytes from `address` on.
    unsigned long long lineProgram(const std::vector<const char*>& files, unsigned long long address = 0x1000,
                                   unsigned rows = 1) {
        const unsigned long long offset = dwarf.line().size();
        dwarf.beginLines().endIncludeDirectories();
        for (const char* file : files)
            dwarf.file(file);
        dwarf.endFiles().setAddress(address);
        for (unsigned row = 0; row < rows; ++row)
            dwarf.op(DW_LNS_copy).opULEB(DW_LNS_advance_pc, 0x10).opSLEB(DW_LNS_advance_line, 1);
        dwarf.endSequence().endLines();
        return offset;
    }

    // Loading

    MemoryHelper& helper() {
        prepare();
        return *m_helper;
    }
    DWARFDebugInfoLoader& loader() {
        prepare();
        if (!m_loader)
            m_loader = new DWARFDebugInfoLoader(
                format, "/module.debug", loaderHelper ? loaderHelper.get() : m_helper.get(), bias, nullptr);
        return *m_loader;
    }
    GlobalScope& scope() {
        if (!m_scope)
            m_scope = std::make_unique<GlobalScope>(format.get(), &loader(), nullptr);
        return *m_scope;
    }
    ISymbolTable* table() { return scope().symbolTable(); }
    status_t load(symbol_kind_t flags) {
        return loader().loadSymbols(table(), nullptr, flags, scope().lineResolver());
    }

    // Asking

    /// Sections in place of those that were built, before the first query.
    void replace(section_kind_t kind, const std::vector<std::uint8_t>& bytes) { helper().set(kind, bytes); }

    /// What a table holds, in the order of its raw view: "name 0x1000-0x1020".
    static std::vector<std::string> listOf(IScope& scope, symbol_kind_t mask = symbol_kind_all) {
        std::vector<std::string> list;
        SymMgrObjectPtr<IIterator<SymMgrObjectPtr<ISymbolRange>>> ranges;
        static_cast<void>(scope.symbolRanges(ranges, 0, ~0ULL, mask));
        if (!ranges)
            return list;
        for (auto range = ranges->current(); range; range = ranges->next() ? ranges->current() : nullptr)
            list.push_back(textOf(*range));
        return list;
    }
    std::vector<std::string> symbols(symbol_kind_t mask = symbol_kind_all) { return listOf(scope(), mask); }

    /// The scope of the symbol at an address, null without one.
    SymMgrObjectPtr<ISymbolRange> at(unsigned long long address, symbol_kind_t mask = symbol_kind_function) {
        SymMgrObjectPtr<ISymbolRange> range;
        static_cast<void>(scope().symbolRangeByAddress(range, address, mask, nullptr));
        return range;
    }
    DWARFSymbol* symbolAt(unsigned long long address, symbol_kind_t mask = symbol_kind_function) {
        SymMgrObjectPtr<ISymbolRange> range = at(address, mask);
        return range ? dynamic_cast<DWARFSymbol*>(range->symbol()) : nullptr;
    }
    Scope* scopeAt(unsigned long long address, symbol_kind_t mask = symbol_kind_function) {
        DWARFSymbol* symbol = symbolAt(address, mask);
        return symbol ? symbol->scope() : nullptr;
    }
    /// Names of what covers an address, outermost first, as queries that go inwards find them.
    std::vector<std::string> chainAt(unsigned long long address) {
        std::vector<std::string> names;
        for (SymMgrObjectPtr<ISymbolRange> range = at(address); range; range = nestedAt(*range, address))
            names.push_back(range->symbol()->rawName());
        return names;
    }
    SymMgrObjectPtr<ISymbolRange> nestedAt(ISymbolRange& range, unsigned long long address) {
        SymMgrObjectPtr<IAddress> place;
        EXPECT_EQ(format->getAddress(place, address), status_Ok);
        SymMgrObjectPtr<ISymbolRange> nested;
        range.nestedRangeByAddress(nested, place);
        return nested;
    }

    orn_test::DwarfAssembler dwarf;
    SymMgrObjectPtr<SegmentsLoader> format = new SegmentsLoader;
    unsigned long long bias = 0;
    bool hasOwnSegments = false;
    SymMgrObjectPtr<IFileFormatHelper> loaderHelper; ///< in place of helper(), before the loader is made

private:
    static std::string textOf(ISymbolRange& range) {
        SymMgrObjectPtr<IAddress> begin;
        SymMgrObjectPtr<IAddress> end;
        range.beginAddress(begin);
        range.endAddress(end);
        std::ostringstream text;
        text << range.symbol()->rawName() << std::hex << " 0x" << begin->pseudoAddr() << "-0x"
             << end->pseudoAddr();
        return text.str();
    }

    /// Every entry has an abbreviation of its own.
    DwarfModule& entry(uint64_t tag, bool hasChildren, const DwarfAttrs& attrs, const std::string& label) {
        std::vector<orn_test::DwarfSpec> specs;
        std::vector<orn_test::DwarfValue> values;
        for (const DwarfAttr& attr : attrs) {
            specs.push_back({attr.attribute, attr.form});
            values.push_back(attr.value);
        }
        ++m_lastCode;
        dwarf.abbreviation(m_lastCode, tag, hasChildren, specs);
        dwarf.entry(m_lastCode, values, label);
        return *this;
    }

    void prepare() {
        if (m_helper)
            return;
        dwarf.endAbbreviations();
        m_helper = new MemoryHelper;
        set(section_debug_info, dwarf.info());
        set(section_debug_abbrev, dwarf.abbrev());
        set(section_debug_str, dwarf.str());
        set(section_debug_line, dwarf.line());
        set(section_debug_ranges, dwarf.ranges());
        if (!hasOwnSegments)
            format->segment(0x1000, 0x8000);
    }
    void set(section_kind_t kind, const orn_test::ByteAssembler& bytes) {
        if (bytes.size() > 0)
            m_helper->set(kind, bytes.bytes());
    }

    uint64_t m_lastCode = 0;
    SymMgrObjectPtr<MemoryHelper> m_helper;
    SymMgrObjectPtr<DWARFDebugInfoLoader> m_loader;
    std::unique_ptr<GlobalScope> m_scope;
};

} // namespace ORN_3_30::test
