// Symbol names through every form.

#include "fuzz_targets.h"
#include "orn/demangler.h"

#include <string>

namespace orn_fuzz {

using namespace ORN_3_30;

void demangler(const std::uint8_t* data, std::size_t size) {
    const std::string name(reinterpret_cast<const char*>(data), size);
    auto forms = ISymbolNameDemangler::create(name.c_str(), exec_format_elf);
    (void)forms->shortForm();
    (void)forms->fullForm();
    (void)forms->demangledForm(0);
    (void)forms->rawForm();
}

} // namespace orn_fuzz
