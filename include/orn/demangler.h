// Holder of a symbol's name in all its forms.
#ifndef ORN_DEMANGLER_H
#define ORN_DEMANGLER_H

#include "orn/object.h"
#include "orn/types.h"

namespace ORN_3_30 {

/// Holds one symbol name and gives its forms. Every text lives as long as the object.
class ISymbolNameDemangler : public ISymMgrObject {
public:
    /// Exactly the name that the object was made with.
    virtual const char* rawForm() = 0;
    /// The whole demangled text.
    virtual const char* demangledForm(unsigned int options) = 0;
    /// The bare function name with its template arguments, without parameters, return type and qualifiers.
    virtual const char* shortForm() = 0;
    virtual const char* fullForm() = 0;

    static SymMgrObjectPtr<ISymbolNameDemangler> create(const char* name, exec_format_t format);

protected:
    ~ISymbolNameDemangler() = default;
};

} // namespace ORN_3_30

#endif
