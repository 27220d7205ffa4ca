// The library as one peer among others in a kit that times symbolisers in process: the kit's frame `driver.h`
// asks a Peer to open a module and to look addresses up. Built only where ORN_BENCH_KIT names the folder of
// that file. Raw names, like the peers' linkage names; on the public headers alone.

#include "driver.h"

#include "orn/orn.h"

using namespace ORN_3_30;

namespace {

using RangePtr = SymMgrObjectPtr<ISymbolRange>;
using LocationPtr = SymMgrObjectPtr<ISourceLocation>;

/// The first candidate is the line table's own row, the innermost position.
class InnermostLocation final : public ISourceLocationSelector {
public:
    LocationPtr select(SymMgrObjectPtr<IIterator<LocationPtr>>& candidates) override {
        return candidates->current();
    }
};

struct Peer {
    static constexpr unsigned fewLookups = 8;
    static constexpr unsigned long long everyUnit = 0;

    SymMgrObjectPtr<ISymbolManager> manager;
    SymMgrObjectPtr<IModuleSymbolBank> bank;
    InnermostLocation innermost;
    unsigned lookups = 0;
    std::vector<RangePtr> chain;
    std::vector<LocationPtr> locations; ///< keeps the texts of the last answer

    static const char* name() { return "ours"; }

    bool open(const char* module) {
        return !isFailure(ISymbolManager::create(manager)) &&
               !isFailure(
                   manager->loadSymbolsFromModule(module, nullptr, bank, arch_unknown, false, nullptr));
    }

    void lookup(std::uint64_t wanted, bool inlines, std::vector<Frame>& out) {
        chain.clear();
        locations.clear();
        SymMgrObjectPtr<IAddress> address;
        if (isFailure(bank->addressFromPseudoAddress(wanted, address)))
            return;
        RangePtr range;
        (void)bank->symbolRangeByAddress(address, range, symbol_kind_function, nullptr);
        chain.push_back(range);
        while (inlines && range) {
            RangePtr nested;
            range->nestedRangeByAddress(nested, address);
            range = nested;
            if (range && range->inlineInstance())
                chain.push_back(range);
        }
        addFrames(*address, out);
    }

    /// The lines of the unit that owns the function, or of all units where that has none at the address. Who
    /// goes on asking will need most units: to read all at once is cheaper then.
    LocationPtr locationAt(IAddress& address) {
        if (lookups++ == fewLookups)
            locationAt(address, everyUnit);
        ICompUnitDetails* unit = nullptr;
        if (chain.front())
            (void)chain.front()->symbol()->compUnitDetails(unit);
        LocationPtr location;
        if (unit)
            location = locationAt(address, unit->getOffset());
        return location ? location : locationAt(address, everyUnit);
    }

    LocationPtr locationAt(IAddress& address, unsigned long long unitId) {
        LocationPtr location;
        ISourceLocationSelector* selector = &innermost;
        (void)bank->sourceLocationByAddress(&address, location, unitId, selector);
        return location;
    }

    void addFrames(IAddress& address, std::vector<Frame>& out) {
        LocationPtr location = locationAt(address);
        if (!chain.front() && !location)
            return;
        for (auto range = chain.rbegin(); range != chain.rend(); ++range) {
            out.push_back({*range ? (*range)->symbol()->rawName() : nullptr, nullptr, 0});
            if (location) {
                if (ISourceFile* file = location->file())
                    out.back().file = file->name();
                out.back().line = location->line();
                locations.push_back(location);
            }
            location = nullptr;
            if (!*range)
                return;
            if (IInlineInstance* instance = (*range)->inlineInstance())
                instance->callSite(location);
        }
    }
};

} // namespace

int main(int argc, char** argv) {
    return drive<Peer>(argc, argv);
}
