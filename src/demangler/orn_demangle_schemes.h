// Readers of mangled names, by scheme.
#ifndef ORN_DEMANGLE_SCHEMES_H
#define ORN_DEMANGLE_SCHEMES_H

#include <cstdlib>
#include <memory>

namespace ORN_3_30::demangler {

struct FreeText {
    void operator()(char* text) const noexcept { std::free(text); }
};
/// Text from `malloc`, terminated.
using Text = std::unique_ptr<char, FreeText>;

/// True if the name begins like one of the schemes that are read here. Costs two comparisons.
bool looksMangled(const char* name) noexcept;

/// The whole demangled text; null if the name is not valid, or too long or too expansive to be worth the
/// work. Throws `std::bad_alloc`.
Text fullText(const char* name);

/// The bare name of a function or variable with its template arguments: no scope, parameters, return type,
/// qualifiers or clone suffix. What is none of the program's own functions or variables (a virtual table, a
/// thunk, a guard variable) has its whole text. Null and `std::bad_alloc` as above.
Text shortText(const char* name);

} // namespace ORN_3_30::demangler

#endif
