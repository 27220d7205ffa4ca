// Random programs of additions and queries, run on the table and on a plain model of it: every answer, and
// the order of the answers, has to be the same.

#include "support/reference_symbol_table.h"
#include "support/symbol_fakes.h"

#include <algorithm>
#include <iterator>
#include <map>
#include <memory>
#include <random>

using namespace ORN_3_30;
using namespace ORN_3_30::test;

namespace {

/// What a program adds in one step.
struct Addition {
    enum Way { wholeScope, oneRange, sectionEnd } way;
    int number;
    std::string name; ///< empty: no symbol
    symbol_kind_t kind;
    symbol_visibility_t visibility;
    std::vector<std::pair<Address64, Address64>> ranges;
    std::vector<std::pair<Address64, Address64>> thunks; ///< address and size
    bool isInlined;
    bool hasDetail;
    bool hasOwnRule; ///< compare() answers with arbitrary bits
    bool isPlain;    ///< made by createSymbolScope()
    bool isBare;     ///< handed in without a scope, which the table makes when somebody asks
};

/// One of the two worlds that a program runs in: its scopes, and a record of all that happened to them.
class World {
public:
    explicit World(FakeLoader& loader) : m_loader(loader) {}

    Scope* make(const Addition& addition) {
        if (addition.name.empty()) {
            auto* nameless = new SymbolScope(&m_loader, nullptr, nullptr);
            return filled(nameless, addition);
        }
        if (addition.isPlain)
            return filled(createSymbolScope(m_loader, addition.name.c_str(), addition.ranges[0].first,
                                            nullptr, addition.visibility, addition.kind),
                          addition);
        auto* scope = new FakeScope(&m_loader, addition.name.c_str(), addition.ranges[0].first, nullptr,
                                    addition.visibility, addition.kind);
        scope->isInlined = addition.isInlined;
        if (addition.hasDetail)
            scope->fakeSymbol->unit = &m_unit;
        scope->onDestruction = [this, number = addition.number] { note("dies", number); };
        if (addition.hasOwnRule)
            giveOwnRule(*scope);
        return filled(scope, addition);
    }

    int numberOf(Scope* scope) const {
        auto found = m_numbers.find(scope);
        return found != m_numbers.end() ? found->second : -1;
    }

    /// A scope that was refused is gone, and another may come to lie where it lay.
    void forget(Scope* scope) { m_numbers.erase(scope); }

    void noteSymbol(ISymbol* symbol) {
        if (!symbol)
            return note("of nothing", 0);
        SymMgrObjectPtr<IAddress> address;
        symbol->address(address);
        note("of " + std::string(symbol->rawName()), numberOf(static_cast<Symbol*>(symbol)->scope()));
        note("kind", symbol->kind());
        note("visibility", symbol->visibility());
        note("value", static_cast<long long>(address->pseudoAddr()));
    }

    void note(const std::string& what, long long number) {
        record.push_back(what + " " + std::to_string(number));
    }

    std::vector<std::string> record;

private:
    template <typename AnyScope>
    Scope* filled(AnyScope* scope, const Addition& addition) {
        for (auto [low, high] : addition.ranges)
            scope->addRange(low, high);
        for (auto [address, size] : addition.thunks)
            scope->addThunk(new ImportThunk(scope, address, size));
        // A bare symbol's scope is not known beforehand: it has no number in either world.
        if (!addition.isBare)
            m_numbers[scope] = addition.number;
        return scope;
    }

    void giveOwnRule(FakeScope& scope) {
        scope.onCompare = [this, &scope](Scope* other, Address64 nextKey, Scope* nextScope) {
            static constexpr unsigned answers[] = {0, 0, 1, 2, 4, 8, 16, 18, 20, 26, 6, 3, 5, 32};
            auto mixed = static_cast<unsigned>(numberOf(&scope) * 7 + numberOf(other) * 13);
            unsigned bits = answers[mixed % std::size(answers)];
            note("asked", numberOf(&scope));
            note("about", numberOf(other));
            note("key", static_cast<long long>(nextKey));
            note("next", numberOf(nextScope));
            return bits;
        };
        scope.onMerge = [this, &scope](Scope* other, unsigned bits) {
            note("merges", bits);
            Scope::RangeNode* head = scope.rangeList()->m_head;
            if ((bits & 2) && head && other->rangeList()->m_head)
                head->high = other->rangeList()->m_head->high;
            if (bits & 4)
                scope.collapseRanges(other->lastHigh());
        };
    }

    FakeLoader& m_loader;
    FakeUnit m_unit;
    std::map<Scope*, int> m_numbers;
};

/// Makes programs from a seed.
class Chance {
public:
    explicit Chance(unsigned seed) : m_random(seed) {}

    bool oneIn(int count) { return below(static_cast<Address64>(count)) == 0; }
    Address64 below(Address64 limit) { return m_random() % limit; }

    /// Few addresses, so that symbols meet; now and then the top of the address space.
    Address64 address() { return oneIn(40) ? ~0ULL - below(4) : 10 + below(m_span); }
    std::pair<Address64, Address64> range() {
        Address64 low = address();
        if (oneIn(4))
            return {low, low};
        if (oneIn(30))
            return {low, ~0ULL - 5}; // almost everything
        return {low, low + below(m_span / 2) + (oneIn(60) ? ~0ULL / 2 : 0)};
    }

    Addition addition(int number) {
        Addition made;
        made.way = oneIn(8) ? Addition::sectionEnd : oneIn(2) ? Addition::wholeScope : Addition::oneRange;
        made.number = number;
        made.name = m_mayBeNameless && oneIn(25) ? "" : "n" + std::to_string(below(4));
        made.kind = static_cast<symbol_kind_t>(1U << below(5));
        made.visibility = oneIn(2) ? symbol_visibility_local : symbol_visibility_global;
        made.ranges.push_back(range());
        while (made.way == Addition::wholeScope && oneIn(3))
            made.ranges.push_back(range());
        while (made.way == Addition::wholeScope && oneIn(6))
            made.thunks.emplace_back(address(), below(8));
        made.isInlined = oneIn(4);
        made.hasDetail = oneIn(4);
        made.hasOwnRule = m_hasOwnRules && oneIn(2);
        made.isPlain = !made.hasOwnRule && oneIn(2);
        made.isBare = made.isPlain && !made.name.empty() && made.way == Addition::oneRange && oneIn(2);
        return made;
    }

    symbol_kind_t mask() { return oneIn(2) ? symbol_kind_all : static_cast<symbol_kind_t>(below(32)); }

    void setUp(Address64 span, bool hasOwnRules, bool mayBeNameless) {
        m_span = span;
        m_hasOwnRules = hasOwnRules;
        m_mayBeNameless = mayBeNameless;
    }

private:
    std::mt19937_64 m_random;
    Address64 m_span = 60;
    bool m_hasOwnRules = false;
    bool m_mayBeNameless = false;
};

class ReferenceTest : public SymbolModelTest {
protected:
    ReferenceTest() {
        // Ranges up to the top of the address space end with a segment.
        loader.imageBase = 0;
        loader.segments.emplace_back();
        loader.segments.back().memorySize = ~0ULL;
    }

    struct Run {
        Run(FakeLoader& loader, unsigned seed)
            : mine(loader),
              model(loader),
              chance(seed),
              table(ISymbolTable::create(nullptr)),
              reference(new ReferenceSymbolTable) {}

        World mine;
        World model;
        Chance chance;
        SymMgrObjectPtr<ISymbolTable> table;
        std::unique_ptr<ReferenceSymbolTable> reference;
        int reports = 0;
    };

    /// Adds the same to both tables.
    void add(Run& run, int number) {
        Addition addition = run.chance.addition(number);
        if (addition.way == Addition::sectionEnd) {
            Address64 end = addition.ranges[0].first;
            EXPECT_EQ(run.table->addScopeRange(end, end, nullptr), 0);
            run.reference->addScopeRange(end, end, nullptr);
            return;
        }
        Scope* model = run.model.make(addition);
        if (addition.isBare) {
            // Its own interval is its scope's range, whatever addRange() would make of it.
            auto [low, high] = addition.ranges[0];
            static_cast<SymbolTable&>(*run.table)
                .addPlainSymbol(loader, {lastingName(addition.name), addition.visibility, addition.kind}, low,
                                high);
            run.reference->addScopeRange(low, high, model);
            return;
        }
        Scope* mine = run.mine.make(addition);
        int isMineAdded, isModelAdded;
        if (addition.way == Addition::wholeScope) {
            isMineAdded = run.table->addScope(mine);
            isModelAdded = run.reference->addScope(model);
        } else {
            auto [low, high] = addition.ranges[0];
            isMineAdded = run.table->addScopeRange(low, high, mine);
            isModelAdded = run.reference->addScopeRange(low, high, model);
        }
        run.mine.note("added", isMineAdded);
        run.model.note("added", isModelAdded);
        if (!isMineAdded)
            run.mine.forget(mine);
        if (!isModelAdded)
            run.model.forget(model);
    }

    /// The text of a bare symbol's name outlives the table.
    static const char* lastingName(const std::string& name) {
        static const std::string names[] = {"n0", "n1", "n2", "n3"};
        return std::find(std::begin(names), std::end(names), name)->c_str();
    }

    void query(Run& run) {
        Address64 low = run.chance.address(), high = run.chance.address();
        symbol_kind_t mask = run.chance.mask();
        if (low > high && !run.chance.oneIn(10))
            std::swap(low, high);
        bool selects = run.chance.oneIn(3);
        auto chosenPlace = static_cast<std::size_t>(run.chance.below(4)); // the last: none

        FakeSelector selector;
        selector.onSelect = [&](FakeSelector::Candidates& candidates) {
            std::vector<SymMgrObjectPtr<ISymbol>> all;
            for (auto symbol = candidates->current(); symbol;
                 symbol = candidates->next() ? candidates->current() : nullptr)
                all.push_back(symbol);
            run.mine.note("candidates", static_cast<long long>(all.size()));
            return chosenPlace < all.size() ? all[chosenPlace] : nullptr;
        };
        ReferenceSymbolTable::Selector modelSelector;
        if (selects)
            modelSelector = [&](const std::vector<ISymbol*>& all) {
                run.model.note("candidates", static_cast<long long>(all.size()));
                return chosenPlace < all.size() ? all[chosenPlace] : nullptr;
            };
        ISymbolSelector* mySelector = selects ? &selector : nullptr;

        SymMgrObjectPtr<ISymbolRange> found;
        run.table->symbolRangeByAddress(found, low, mask, mySelector);
        noteRange(run.mine, found);
        noteAnswers(run.model, run.reference->atAddress(low, mask, modelSelector, run.reports));

        RangeIteratorPtr raw;
        run.table->symbolRanges(raw, low, high, mask);
        if (raw)
            for (auto range = raw->current(); range; range = raw->next() ? raw->current() : nullptr)
                noteRange(run.mine, range);
        for (const auto& answer : run.reference->rawView(low, high, mask))
            noteAnswers(run.model, {answer});

        compareCuts(run, low, high, mask, mySelector, modelSelector);
    }

    void compareCuts(Run& run, Address64 low, Address64 high, symbol_kind_t mask, ISymbolSelector* mySelector,
                     const ReferenceSymbolTable::Selector& modelSelector) {
        RangeIteratorPtr cut;
        run.table->nonOverlappedSymbolRanges(cut, low, high, mask, mySelector);
        if (low > high) {
            EXPECT_FALSE(cut);
            return;
        }
        ReferenceSymbolTable::CutView model(*run.reference, low, high, mask, modelSelector, run.reports);
        run.model.note("cut", !model.current().empty());
        run.mine.note("cut", cut ? 1 : 0);
        if (!cut || model.current().empty())
            return;
        int ends = 0;
        for (int step = 0; step < 100000 && ends < 3; ++step) { // also what comes behind the end
            noteRange(run.mine, cut->current());
            noteAnswers(run.model, model.current());
            run.mine.note("next", cut->next());
            bool more = model.next();
            run.model.note("next", more);
            ends += more ? 0 : 1;
        }
        ASSERT_EQ(ends, 3) << "the cut view does not end";
    }

    void noteRange(World& world, const SymMgrObjectPtr<ISymbolRange>& range) {
        if (!range)
            return;
        SymMgrObjectPtr<IAddress> address;
        range->beginAddress(address);
        world.note("begin", static_cast<long long>(address->pseudoAddr()));
        range->endAddress(address);
        world.note("end", static_cast<long long>(address->pseudoAddr()));
        world.noteSymbol(range->symbol());
    }

    void noteAnswers(World& world, const std::vector<ReferenceSymbolTable::Answer>& answers) {
        for (const auto& answer : answers) {
            world.note("begin", static_cast<long long>(answer.begin));
            // An end of all ones is shown as the end of the segment, which is all ones here.
            world.note("end", static_cast<long long>(answer.end));
            world.noteSymbol(answer.scope->symbol());
        }
    }

    void runPrograms(unsigned firstSeed, unsigned count, Address64 span, int additions, bool hasOwnRules,
                     bool mayBeNameless) {
        for (unsigned seed = firstSeed; seed < firstSeed + count; ++seed) {
            Run run(loader, seed);
            run.chance.setUp(span, hasOwnRules, mayBeNameless);
            for (int number = 0; number < additions; ++number) {
                add(run, number);
                if (run.chance.oneIn(3))
                    query(run);
            }
            for (int number = 0; number < 20; ++number)
                query(run);
            for (Address64 address = 0; address < span + 20 && span < 1000; ++address)
                noteBoth(run, address);
            std::size_t reports = takeLogs().size();
            run.table = nullptr;
            run.reference = nullptr;
            if (run.mine.record != run.model.record || HasFailure()) {
                FAIL() << "seed " << seed << ": " << firstDifference(run.mine.record, run.model.record);
            }
            EXPECT_TRUE(mayBeNameless || reports == 0) << "seed " << seed;
        }
    }

    void noteBoth(Run& run, Address64 address) {
        SymMgrObjectPtr<ISymbolRange> found;
        run.table->symbolRangeByAddress(found, address, symbol_kind_all, nullptr);
        noteRange(run.mine, found);
        noteAnswers(run.model, run.reference->atAddress(address, symbol_kind_all, nullptr, run.reports));
    }

    static std::string firstDifference(const std::vector<std::string>& mine,
                                       const std::vector<std::string>& model) {
        auto [a, b] = std::mismatch(mine.begin(), mine.end(), model.begin(), model.end());
        return "\"" + (a != mine.end() ? *a : "end") + "\" for \"" + (b != model.end() ? *b : "end") +
               "\" in line " + std::to_string(a - mine.begin());
    }
};

TEST_F(ReferenceTest, PlainSymbolsAreAnsweredAlike) {
    runPrograms(1, 1500, 60, 25, false, false);
}

TEST_F(ReferenceTest, ScopesThatMergeAreAnsweredAlike) {
    runPrograms(100000, 1500, 40, 25, true, false);
}

TEST_F(ReferenceTest, ScopesWithoutSymbolAreAnsweredAlike) {
    runPrograms(200000, 500, 40, 25, true, true);
}

TEST_F(ReferenceTest, CrowdedCellsAreAnsweredAlike) {
    runPrograms(300000, 150, 6, 120, false, false);
    runPrograms(400000, 150, 6, 120, true, false);
}

TEST_F(ReferenceTest, ManyCellsAreAnsweredAlike) {
    runPrograms(500000, 2, 40000, 500, false, false);
    runPrograms(600000, 2, 4000, 400, true, false);
}

} // namespace
