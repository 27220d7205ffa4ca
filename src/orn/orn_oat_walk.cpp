// Walks over the classes and methods of a container of compiled managed code, and enters a symbol, and the
// lines, of each method that has code. The loader runs it once for each load, after it has read the header.
// A class's methods are numbered as its dex file lists them, whether they are compiled or not, and that
// number finds a method's record.

#include "orn_oat_walk.h"

#include "orn_log.h"

#include <algorithm>
#include <cstddef>

namespace ORN_3_30 {

status_t qualifiedMethodName(const char* descr, std::size_t descrSize, std::string_view method,
                             std::string& out) {
    if (!ORN_ASSERT(descr != NULL))
        return status_InvalidPointer;
    std::string_view type(descr, descrSize);
    if (type.starts_with('L'))
        type.remove_prefix(1);
    if (type.ends_with(';'))
        type.remove_suffix(1);
    out = type;
    std::replace(out.begin(), out.end(), '/', '.');
    out += '.';
    out += method;
    return status_Ok;
}

OATSymbolWalk::OATSymbolWalk(const OatLayout& layout, OATSymbolCallBack& callBack, LoadFilter* filter,
                             OATSrcLineResolver* resolver)
    : m_layout(layout),
      m_callBack(callBack),
      m_filter(filter),
      m_resolver(resolver),
      m_budget(layout.buffer->size()) {}

status_t OATSymbolWalk::loadDexFile(DexLoader* dexFile) {
    if (!ORN_ASSERT(dexFile != NULL))
        return status_Ok;
    const std::uint32_t classCount = dexFile->classCount();
    for (std::uint32_t classIndex = 0; classIndex < classCount; ++classIndex)
        if (const status_t status = loadClass(*dexFile, classIndex); isFailure(status))
            return status;
    return status_Ok;
}

status_t OATSymbolWalk::loadClass(DexLoader& dexFile, std::uint32_t classIndex) {
    constexpr unsigned statusAndType = 4;
    DexClassDef classDef;
    if (!dexFile.readClassDef(classIndex, classDef))
        return status_Ok;
    const SectionWalker record(m_layout.buffer->data(), m_layout.buffer->size(),
                               dexFile.oatClassOffset(classIndex));
    if (record.remaining() < statusAndType)
        return status_Ok;
    const SymMgrObjectPtr<OatClass> cl = OatClass::read(record, &dexFile, classIndex);
    // A class without a record has no method with code.
    if (!ORN_ASSERT(cl != NULL) || classDef.class_data_off == 0)
        return status_Ok;
    return loadMethods(dexFile, *cl, classDef);
}

/// The counts of class data may be anything. Once no later method can have a record there is nothing left to
/// find, however many are promised.
status_t OATSymbolWalk::loadMethods(DexLoader& dexFile, OatClass& oatClass, const DexClassDef& classDef) {
    if (!oatClass.mayHaveRecordFrom(0, m_layout.version))
        return status_Ok;
    DexClassData item(dexFile.walkerAt(classDef.class_data_off), m_budget);
    if (const status_t status = item.skipFields(); isFailure(status))
        return status;
    for (std::uint32_t oatMethodIndex = 0;; ++oatMethodIndex) {
        const status_t next = item.nextMethod();
        if (next != status_Ok)
            return isFailure(next) ? next : status_Ok;
        const SymMgrObjectPtr<OatMethod> method = oatClass.makeMethod(oatMethodIndex, m_layout.version);
        if (const status_t status = loadMethod(dexFile, oatClass, *method, item); isFailure(status))
            return status;
        if (!method->hasCode() && !oatClass.mayHaveRecordFrom(oatMethodIndex, m_layout.version))
            return status_Ok;
    }
}

/// `status_False`: there is nothing to enter.
status_t OATSymbolWalk::loadMethod(DexLoader& dexFile, const OatClass& oatClass, OatMethod& method,
                                   const DexClassData& item) {
    if (!method.hasCode())
        return status_False;
    std::string name;
    if (const status_t status = readName(dexFile, item.methodIdx(), name); isFailure(status))
        return status;
    ORN_LOG_INFO("Dex method: " << name << " offset: 0x" << std::hex << method.codeOffset()
                                << " size: " << std::dec << method.codeSize());
    const unsigned long long address = addressOf(method);
    if (!passesFilter(m_filter, address, method.codeSize()))
        return status_False;
    m_callBack(name.c_str(), address, method.codeSize(), symbol_visibility_local, symbol_kind_function);
    return m_resolver ? loadLines(dexFile, oatClass, method, item.codeOffset()) : status_Ok;
}

status_t OATSymbolWalk::readName(const DexLoader& dexFile, std::uint32_t methodIdx, std::string& name) {
    DexMethodId id;
    std::string_view method;
    std::string_view descr;
    if (!m_budget.spend(OatBudget::symbolCost))
        return status_BadFileFormat;
    if (const status_t status = dexFile.readMethodId(methodIdx, id); isFailure(status))
        return status;
    if (const status_t status = dexFile.readString(id.name_idx, m_budget, method); isFailure(status))
        return status;
    if (const status_t status = dexFile.readTypeDescriptor(id.class_idx, m_budget, descr); isFailure(status))
        return status;
    return qualifiedMethodName(descr.data(), descr.size(), method, name);
}

unsigned long long OATSymbolWalk::addressOf(const OatMethod& method) const {
    return method.codeOffset() - m_layout.executableOffset + m_layout.executableAddress;
}

/// A method that is compiled without dex code of its own has no lines, and nothing is wrong with it.
status_t OATSymbolWalk::loadLines(const DexLoader& dexFile, const OatClass& oatClass, OatMethod& method,
                                  std::uint32_t codeOffset) {
    if (codeOffset == 0)
        return status_Ok;
    DexCodeItem code;
    if (!dexFile.readCodeItem(codeOffset, code)) {
        ORN_LOG_WARNING("Invalid offset in dex method");
        return status_Ok;
    }
    if (code.debug_info_off == 0)
        return status_Ok;
    OatMappingTable& mapping = method.mappingTable();
    if (const status_t status = mapping.readMappingTable(m_budget); isFailure(status))
        return status;
    MethodLineContext context(*m_resolver, mapping.map());
    context.m_executableOffset = m_layout.executableOffset;
    context.m_executableAddress = m_layout.executableAddress;
    context.m_methodAddress = addressOf(method);
    context.m_methodSize = method.codeSize();
    return runLineMachine(dexFile, code.debug_info_off, oatClass.classIndex(), context, m_budget);
}

} // namespace ORN_3_30
