// Orn from C++, in one page: from a module's path and an address to a function name.
//
//     orn_example_embed MODULE ADDRESS
//
// ADDRESS is hexadecimal and as the module's own symbol table counts: a pseudo address. For an address of a
// running process take off where the module was loaded, and use addressFromRVA.

#include <orn/orn.h>

#include <cstdio>
#include <cstdlib>

using namespace ORN_3_30;

namespace {

int complain(const char* what, status_t status) {
    std::fprintf(stderr, "%s: %s\n", what, toUString(status));
    return 1;
}

} // namespace

int main(int argc, char** argv) {
    if (argc != 3) {
        std::fprintf(stderr, "usage: %s MODULE ADDRESS\n", argv[0]);
        return 2;
    }
    const char* path = argv[1];
    const unsigned long long wanted = std::strtoull(argv[2], nullptr, 16);

    SymMgrObjectPtr<ISymbolManager> manager;
    status_t status = ISymbolManager::create(manager);
    if (isFailure(status))
        return complain("manager", status);

    // Recognises the file and picks its symbol file. Nothing is read before the first query.
    SymMgrObjectPtr<IModuleSymbolBank> bank;
    status = manager->loadSymbolsFromModule(path, nullptr, bank, arch_unknown, false, nullptr);
    if (isFailure(status))
        return complain(path, status);

    SymMgrObjectPtr<IAddress> address;
    status = bank->addressFromPseudoAddress(wanted, address);
    if (isFailure(status))
        return complain("address", status);

    SymMgrObjectPtr<ISymbolRange> range;
    status = bank->symbolRangeByAddress(address, range, symbol_kind_code, nullptr);
    if (isFailure(status))
        return complain("symbol", status);
    ISymbol* symbol = range != nullptr ? range->symbol() : nullptr;
    std::printf("%s\n", symbol != nullptr ? symbol->fullName() : "??");
    return 0;
}
