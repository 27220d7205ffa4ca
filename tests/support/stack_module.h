// A module in memory with call frame information and location lists, asked for its stack variables.
#pragma once

#include "cfi_assembler.h"
#include "dwarf_module.h"
#include "memory_image.h"
#include "orn_address.h"
#include "orn_fflelf.h"
#include "orn_stackframecontext.h"

#include <optional>
#include <string>
#include <vector>

namespace ORN_3_30::test {

/// Sections in memory with the headers of an ELF file, which say where `.eh_frame` lies.
class ElfMemoryHelper : public ElfFileFormatHelper {
public:
    ElfMemoryHelper(SymMgrObjectPtr<ElfHelper> headers, MemoryHelper& sections)
        : ElfFileFormatHelper(std::move(headers)), m_sections(&sections) {}

    void getSectionData(SymMgrObjectPtr<ISectionData>& out, section_kind_t kind) override {
        m_sections->getSectionData(out, kind);
    }
    void getSectionByIndex(SymMgrObjectPtr<ISection>& out, unsigned) override { out = nullptr; }
    void getRelocationAddends(SymMgrObjectPtr<RelocationAddends>& out, unsigned index) override {
        m_sections->getRelocationAddends(out, index);
    }

private:
    SymMgrObjectPtr<MemoryHelper> m_sections;
};

/// Builds functions with variables and asks what lies at an address of the stack.
///
///     StackModule stack;
///     stack.module.unit();
///     stack.openFunction(StackModule::frameAddressExpression());
///     stack.module.leaf(DW_TAG_variable, M::named("x") + M::type("int") + StackModule::atFrameBase(-20));
///     stack.module.close().endUnit();
///     EXPECT_EQ(stack.nameAt(0x1010, 0x6fec), "x");
///
/// Unless a test changes them, the function is [0x1000, 0x1100), the stack pointer is 0x7000, the frame
/// pointer 0x8000, and the rule everywhere is the stack pointer plus 8, so that the frame is at 0x7008.
class StackModule {
public:
    using Bytes = std::vector<std::uint8_t>;

    static Bytes operation(unsigned opcode) { return {static_cast<std::uint8_t>(opcode)}; }
    static Bytes operation(unsigned opcode, long long operand) {
        orn_test::ByteAssembler bytes;
        bytes.u8(static_cast<std::uint8_t>(opcode)).sleb(operand);
        return bytes.bytes();
    }
    static DwarfAttrs location(const Bytes& expression, unsigned form = DW_FORM_exprloc) {
        return {{DW_AT_location, form, expression}};
    }
    static DwarfAttrs locationList(unsigned long long offset, unsigned form = DW_FORM_sec_offset) {
        return {{DW_AT_location, form, offset}};
    }
    static DwarfAttrs atFrameBase(long long offset) { return location(operation(DW_OP_fbreg, offset)); }
    static DwarfAttrs frameBase(const Bytes& expression, unsigned form) {
        return {{DW_AT_frame_base, form, expression}};
    }
    static DwarfAttrs frameAddressExpression() {
        return frameBase(operation(DW_OP_call_frame_cfa), DW_FORM_exprloc);
    }
    static DwarfAttrs size(unsigned bytes) { return {{DW_AT_byte_size, DW_FORM_data1, bytes}}; }
    static DwarfAttrs memberAt(unsigned offset) {
        return {{DW_AT_data_member_location, DW_FORM_data1, offset}};
    }

    StackModule() {
        context->setRegister(0, 0x7000);
        context->setRegister(1, 0x8000);
        frames.beginCie();
        frames.defCfa(7, 8).end();
    }

    /// int and, for members, a structure of two of them.
    void types() {
        module.leaf(DW_TAG_base_type, DwarfModule::named("int") + size(4), "int");
        module.leaf(DW_TAG_base_type, DwarfModule::named("char") + size(1), "char");
    }
    void openFunction(const DwarfAttrs& attrs = frameAddressExpression()) {
        module.open(DW_TAG_subprogram, DwarfModule::function("f", 0x1000, 0x100) + attrs);
    }
    /// The same as versions before 4 have it: both addresses are addresses.
    void openOldFunction(const DwarfAttrs& attrs) {
        module.open(DW_TAG_subprogram, DwarfModule::named("f") +
                                           DwarfAttrs{{DW_AT_low_pc, DW_FORM_addr, 0x1000},
                                                      {DW_AT_high_pc, DW_FORM_addr, 0x1100}} +
                                           attrs);
    }
    void variable(const char* name, const char* type, const DwarfAttrs& attrs) {
        module.leaf(DW_TAG_variable, DwarfModule::named(name) + DwarfModule::type(type) + attrs);
    }
    /// One entry of a location list.
    StackModule& listEntry(unsigned long long first, unsigned long long second, const Bytes& expression) {
        lists.u64(first).u64(second).u16(static_cast<std::uint16_t>(expression.size())).raw(expression);
        return *this;
    }
    StackModule& listEnd() {
        lists.u64(0).u64(0);
        return *this;
    }

    DWARFDebugInfoLoader& loader() {
        prepare();
        return module.loader();
    }

    /// Asks of the function that covers `pc`.
    status_t ask(unsigned long long pc, unsigned long long dataAddress) {
        prepare();
        DWARFSymbol* function = module.symbolAt(functionAt.value_or(pc));
        return askOf(function, pc, dataAddress);
    }
    status_t askOf(ISymbol* function, unsigned long long pc, unsigned long long dataAddress) {
        prepare();
        const SymMgrObjectPtr<IAddress> address = new Address(module.format.get(), pc, nullptr);
        found = nullptr;
        isMember = false;
        return module.loader().findStackVariable(function, address, dataAddress, context.get(), found,
                                                 &isMember);
    }
    /// The name of what lies there; "" for nothing, with whatever status.
    std::string nameAt(unsigned long long pc, unsigned long long dataAddress) {
        const status_t status = ask(pc, dataAddress);
        EXPECT_EQ(status == status_Ok, found != nullptr);
        return found ? found->rawName() : "";
    }

    void setRegisters(unsigned long long stackPointer, unsigned long long framePointer) {
        context->setRegister(0, stackPointer);
        context->setRegister(1, framePointer);
    }

    DwarfModule module;
    orn_test::CfiAssembler frames{0x2000};
    orn_test::ByteAssembler lists;
    SymMgrObjectPtr<IStackFrameContext> context = new StackFrameContext;
    bool hasFrames = true;                        ///< whether there is an `.eh_frame`
    bool hasElf = true;                           ///< whether headers say where it lies
    std::optional<unsigned long long> functionAt; ///< whom to ask, in place of who covers the code
    std::optional<Bytes> framesBytes;             ///< in place of `frames`
    std::optional<Bytes> listsBytes;              ///< in place of `lists`

    SymMgrObjectPtr<ISymbol> found;
    bool isMember = false;

private:
    void prepare() {
        if (m_isPrepared)
            return;
        m_isPrepared = true;
        MemoryHelper& helper = module.helper();
        if (hasFrames)
            helper.set(section_eh_frame, framesBytes.value_or(frames.bytes().bytes()));
        if (lists.size() > 0 || listsBytes)
            helper.set(section_debug_loc, listsBytes.value_or(lists.bytes()));
        if (hasElf) {
            orn_test::ElfAssembler elf;
            elf.section(".eh_frame", SHT_PROGBITS, SHF_ALLOC).address(frames.sectionAddress()).zeros(8);
            const SymMgrObjectPtr<ElfHelper> headers = new ElfHelper(new orn_test::MemoryImage(elf.build()));
            module.loaderHelper = new ElfMemoryHelper(headers, helper);
        }
    }

    bool m_isPrepared = false;
};

} // namespace ORN_3_30::test
