// From the dex files and method records of a container to symbols and lines.
#ifndef ORN_OAT_WALK_H
#define ORN_OAT_WALK_H

#include "orn_oat_class.h"
#include "orn_oat_symbol.h"

#include <string>
#include <string_view>

namespace ORN_3_30 {

class LoadFilter;

/// What a container's header says, as far as the walk needs it.
struct OatLayout {
    IBuffer* buffer = nullptr; ///< from the container's start on
    long long version = -1;
    std::uint32_t executableOffset = 0;
    /// Pseudo address of the code at `executableOffset`.
    unsigned long long executableAddress = 0;
};

/// The name of a method as its source has it: `com.acme.Foo.bar` of class `Lcom/acme/Foo;` and method `bar`.
/// `descr` need not be terminated, but has to be there.
status_t qualifiedMethodName(const char* descr, std::size_t descrSize, std::string_view method,
                             std::string& out);

/// One load of symbols from a container. What it is made with is borrowed.
class OATSymbolWalk {
public:
    /// `filter` and `resolver` may be null; without a resolver no lines are read.
    OATSymbolWalk(const OatLayout& layout, OATSymbolCallBack& callBack, LoadFilter* filter,
                  OATSrcLineResolver* resolver);

    /// The methods of all classes. A failure ends the walk; what was entered stays.
    status_t loadDexFile(DexLoader* dexFile);

private:
    status_t loadClass(DexLoader& dexFile, std::uint32_t classIndex);
    status_t loadMethods(DexLoader& dexFile, OatClass& oatClass, const DexClassDef& classDef);
    status_t loadMethod(DexLoader& dexFile, const OatClass& oatClass, OatMethod& method,
                        const DexClassData& item);
    status_t readName(const DexLoader& dexFile, std::uint32_t methodIdx, std::string& name);
    unsigned long long addressOf(const OatMethod& method) const;
    status_t loadLines(const DexLoader& dexFile, const OatClass& oatClass, OatMethod& method,
                       std::uint32_t codeOffset);

    OatLayout m_layout;
    OATSymbolCallBack& m_callBack;
    LoadFilter* m_filter;
    OATSrcLineResolver* m_resolver;
    OatBudget m_budget;
};

} // namespace ORN_3_30

#endif
