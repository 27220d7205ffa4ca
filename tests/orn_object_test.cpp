// Counting, locks, counted pointers and status codes.

#include "orn/object.h"
#include "orn/status.h"

#include "support/allocation.h"
#include "support/orn_fixture.h"

#include <sstream>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

namespace ORN_3_30::test {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using Events = std::vector<std::string>;

class IThing : public ISymMgrObject {
public:
    virtual int value() = 0;

protected:
    ~IThing() = default;
};

/// Reports its death.
class Thing : public SymMgrObject<IThing> {
public:
    Thing(Events& events, ILock* lock) : SymMgrObject<IThing>(lock), m_events(events) {}
    Thing(Events& events, bool ownLock) : SymMgrObject<IThing>(ownLock), m_events(events) {}
    ~Thing() override { m_events.push_back("destroyed"); }
    int value() override { return 7; }

private:
    Events& m_events;
};

/// Reports what is done to it.
class RecordingLock : public ILock {
public:
    explicit RecordingLock(Events& events) : m_events(events) {}
    ~RecordingLock() override { m_events.push_back("lock destroyed"); }
    void lock() override { m_events.push_back("lock"); }
    void unlock() override { m_events.push_back("unlock"); }

private:
    Events& m_events;
};

/// Counts like any other and reports each step.
struct Counted {
    Counted(Events& log, std::string text) : events(log), name(std::move(text)) {}
    unsigned addRef() {
        events.push_back("addRef " + name);
        return ++count;
    }
    unsigned release() {
        events.push_back("release " + name);
        return --count;
    }

    Events& events;
    std::string name;
    unsigned count = 0;
};

unsigned countOf(const Thing& thing) {
    unsigned count = 99;
    thing.refCount(count);
    return count;
}

class ObjectTest : public OrnTest {
protected:
    Events events;
};

TEST_F(ObjectTest, ANewObjectHasCountZero) {
    Thing* thing = new Thing(events, nullptr);
    EXPECT_EQ(countOf(*thing), 0u);
    delete thing;
}

TEST_F(ObjectTest, TheFirstPointerMakesTheCountOneAndItsEndDestroysTheObject) {
    {
        Thing* raw = new Thing(events, nullptr);
        SymMgrObjectPtr<IThing> thing(raw);
        EXPECT_EQ(countOf(*raw), 1u);
        EXPECT_THAT(events, IsEmpty());
    }
    EXPECT_THAT(events, ElementsAre("destroyed"));
}

TEST_F(ObjectTest, AddRefAndReleaseGiveTheNewCount) {
    Thing* thing = new Thing(events, nullptr);
    EXPECT_EQ(thing->addRef(), 1u);
    EXPECT_EQ(thing->addRef(), 2u);
    EXPECT_EQ(thing->release(), 1u);
    EXPECT_EQ(thing->release(), 0u);
    EXPECT_THAT(events, ElementsAre("destroyed"));
}

TEST_F(ObjectTest, TheObjectDiesWhileTheSharedLockIsHeldAndTheLockSurvives) {
    RecordingLock lock(events);
    Thing* thing = new Thing(events, &lock);
    thing->addRef();
    thing->release();
    EXPECT_THAT(events, ElementsAre("lock", "unlock", "lock", "destroyed", "unlock"));
}

TEST_F(ObjectTest, ReleaseAboveZeroUnlocksAndKeepsTheObject) {
    RecordingLock lock(events);
    Thing* thing = new Thing(events, &lock);
    thing->addRef();
    thing->addRef();
    events.clear();
    thing->release();
    EXPECT_THAT(events, ElementsAre("lock", "unlock"));
    thing->release();
}

TEST_F(ObjectTest, TheCountIsReadUnderTheLock) {
    RecordingLock lock(events);
    Thing* thing = new Thing(events, &lock);
    EXPECT_EQ(countOf(*thing), 0u);
    EXPECT_THAT(events, ElementsAre("lock", "unlock"));
    delete thing;
}

TEST_F(ObjectTest, AnOwnedLockGoesWithTheObject) {
    if (!ORN_3_30::test::canFailAllocations())
        GTEST_SKIP() << "the sanitizer keeps operator new";
    events.reserve(16);
    const long before = liveAllocations();
    Thing* thing = new Thing(events, true);
    EXPECT_EQ(liveAllocations(), before + 2);
    thing->addRef();
    thing->release();
    EXPECT_EQ(liveAllocations(), before);
}

/// Its counter outlives the last release, so that what the counter did can be seen.
struct Survivor : internal::IDeleteObserver {
    explicit Survivor(Events& log) : events(log) {}
    void onLastRelease() override { events.push_back("last release"); }
    Events& events;
};

TEST_F(ObjectTest, TheObserverIsToldBetweenLockAndUnlock) {
    RecordingLock lock(events);
    Survivor survivor(events);
    internal::RefCountHelper counter(&survivor, &lock);
    counter.addRef();
    counter.release();
    EXPECT_THAT(events, ElementsAre("lock", "unlock", "lock", "last release", "unlock"));
}

TEST_F(ObjectTest, ACounterWithoutObserverJustCounts) {
    internal::RefCountHelper counter(nullptr, nullptr);
    EXPECT_EQ(counter.addRef(), 1u);
    EXPECT_EQ(counter.release(), 0u);
}

TEST_F(ObjectTest, AnObjectThatAsksForNoLockCountsWithoutOne) {
    if (!ORN_3_30::test::canFailAllocations())
        GTEST_SKIP() << "the sanitizer keeps operator new";
    const long before = liveAllocations();
    Thing* thing = new Thing(events, false);
    EXPECT_EQ(liveAllocations(), before + 1);
    EXPECT_EQ(thing->addRef(), 1u);
    EXPECT_EQ(thing->release(), 0u);
}

struct Unfinished : Thing {
    explicit Unfinished(Events& log) : Thing(log, true) { throw std::runtime_error("no"); }
};

TEST_F(ObjectTest, AFailedConstructionFreesTheOwnedLock) {
    events.reserve(16);
    const long before = liveAllocations();
    try {
        new Unfinished(events);
        ADD_FAILURE() << "the constructor was to throw";
    } catch (const std::runtime_error&) {
    }
    EXPECT_EQ(liveAllocations(), before);
}

TEST_F(ObjectTest, TheLockIsRecursive) {
    OrnLock lock;
    ScopedLock first(&lock);
    ScopedLock second(&lock);
    SUCCEED() << "a lock that is not recursive would hang";
}

TEST_F(ObjectTest, AScopeGuardLocksForItsScope) {
    RecordingLock lock(events);
    {
        ScopedLock guard(&lock);
        EXPECT_THAT(events, ElementsAre("lock"));
    }
    EXPECT_THAT(events, ElementsAre("lock", "unlock"));
}

TEST_F(ObjectTest, AScopeGuardOverANullLockDoesNothing) {
    ScopedLock guard(nullptr);
}

class LightThing : public SymMgrObjectImpl {
public:
    LightThing(Events& events, ILock* lock) : SymMgrObjectImpl(lock), m_events(events) {}
    ~LightThing() override { m_events.push_back("destroyed"); }

private:
    Events& m_events;
};

TEST_F(ObjectTest, ALightObjectDiesUnderItsLockAtTheLastRelease) {
    RecordingLock lock(events);
    auto* thing = new LightThing(events, &lock);
    EXPECT_EQ(thing->addRef(), 1u);
    EXPECT_EQ(thing->release(), 0u);
    EXPECT_THAT(events, ElementsAre("lock", "unlock", "lock", "destroyed", "unlock"));
}

TEST_F(ObjectTest, ALightObjectWithoutLockCounts) {
    auto* thing = new LightThing(events, nullptr);
    EXPECT_EQ(thing->addRef(), 1u);
    EXPECT_EQ(thing->addRef(), 2u);
    EXPECT_EQ(thing->release(), 1u);
    EXPECT_EQ(thing->release(), 0u);
    EXPECT_THAT(events, ElementsAre("destroyed"));
}

using CountedPtr = SymMgrObjectPtr<Counted>;

TEST_F(ObjectTest, ADefaultPointerIsNull) {
    CountedPtr pointer;
    EXPECT_FALSE(pointer);
    EXPECT_TRUE(pointer == 0L);
    EXPECT_EQ(pointer.get(), nullptr);
}

TEST_F(ObjectTest, APointerMadeFromNullTakesNothing) {
    Counted* none = nullptr;
    CountedPtr pointer(none);
    EXPECT_TRUE(pointer == nullptr);
}

TEST_F(ObjectTest, CopyingTakesAReferenceAndMovingDoesNot) {
    Counted a(events, "a");
    CountedPtr first(&a);
    CountedPtr second(first);
    EXPECT_EQ(a.count, 2u);
    CountedPtr third(std::move(second));
    EXPECT_EQ(a.count, 2u);
    EXPECT_EQ(third.get(), &a);
    EXPECT_TRUE(first != 0L);
}

TEST_F(ObjectTest, AssignmentReleasesTheOldOneBeforeItTakesTheNewOne) {
    Counted a(events, "a");
    Counted b(events, "b");
    CountedPtr pointer(&a);
    pointer = &b;
    EXPECT_THAT(events, ElementsAre("addRef a", "release a", "addRef b"));
}

TEST_F(ObjectTest, AssigningWhatIsHeldDoesNotTouchTheCount) {
    Counted a(events, "a");
    CountedPtr pointer(&a);
    CountedPtr other(&a);
    events.clear();
    pointer = &a;
    pointer = other;
    CountedPtr& self = pointer;
    pointer = self;
    EXPECT_THAT(events, IsEmpty());
}

TEST_F(ObjectTest, MoveAssignmentToItselfKeepsTheObject) {
    Counted a(events, "a");
    CountedPtr pointer(&a);
    CountedPtr& self = pointer;
    pointer = std::move(self);
    EXPECT_EQ(pointer.get(), &a);
    EXPECT_EQ(a.count, 1u);
}

TEST_F(ObjectTest, AssigningNullReleases) {
    Counted a(events, "a");
    CountedPtr pointer(&a);
    pointer = nullptr;
    EXPECT_EQ(a.count, 0u);
    EXPECT_FALSE(pointer);
}

TEST_F(ObjectTest, APointerStandsWhereARawOneIsExpected) {
    Thing* raw = new Thing(events, nullptr);
    SymMgrObjectPtr<IThing> thing = raw;
    auto valueOf = [](IThing* object) { return object->value(); };
    EXPECT_EQ(valueOf(thing), 7);
    EXPECT_EQ(thing->value(), 7);
    EXPECT_EQ((*thing).value(), 7);
}

struct StatusText {
    std::uint32_t value;
    const char* text;
};

const StatusText statusTexts[] = {
    {0x00000000, "\"Operation succeeded\""},
    {0x00000001, "\"Operation succeeded and return logical FALSE\""},
    {0x10000001, "\"Unspecified error\""},
    {0x10000002, "\"Not implemented\""},
    {0x10000003, "\"Out of memory\""},
    {0x10000004, "\"One or more arguments are invalid\""},
    {0x10000005, "\"Not supported\""},
    {0x10000006, "\"Invalid pointer\""},
    {0x10000007, "\"Can't create file\""},
    {0x10000008, "\"Can't delete file\""},
    {0x10000009, "\"Can't open file\""},
    {0x1000000A, "\"Can't close file\""},
    {0x1000000B, "\"Can't write to file\""},
    {0x1000000C, "\"Can't read from file\""},
    {0x1000000D, "\"File format is incorrect\""},
    {0x1000000E, "\"Debug information is incorrect\""},
    {0x1000000F, "\"There is no debug info of some type\""},
    {0x10000010, "\"There is no valid .pdb file\""},
    {0x10000011, "\"There is no pdb reader\""},
    {0x10000012, "\"Not found\""},
    {0x10000014, "\"File was changed\""},
    {0x10000015, "\"File does not exist\""},
    {0x10000016, "\"Unknown Property\""},
    {0x10000017, "\"Empty file name\""},
    {0x10000018, "\"Internal object is not initialized properly\""},
    {0x10000019, "\"Unknown file format\""},
    {0x1000001A, "\"Unsupported version of file format\""},
    {0x1000001B, "\"Unsupported debug info format\""},
    {0x1000001C, "\"Failed to get section data\""},
};

TEST(StatusTest, EveryTextStandsInDoubleQuotes) {
    for (const StatusText& expected : statusTexts)
        EXPECT_STREQ(toUString(static_cast<status_t>(expected.value)), expected.text);
}

TEST(StatusTest, TheNumbersAreFixed) {
    EXPECT_EQ(status_False, 0x00000001u);
    EXPECT_EQ(status_NotFound, 0x10000012u);
    EXPECT_EQ(status_FileChanged, 0x10000014u);
    EXPECT_EQ(status_NoSectionData, 0x1000001Cu);
}

TEST(StatusTest, TheHoleAndUnknownValuesHaveABareText) {
    for (std::uint32_t value : {0x10000013u, 2u, 0x10000000u, 0x1000001Du, 0xFFFFFFFFu})
        EXPECT_STREQ(toUString(static_cast<status_t>(value)), "<Unknown status>");
}

TEST(StatusTest, WritingAStatusWritesItsText) {
    std::ostringstream stream;
    stream << status_NotFound << ' ' << status_Ok;
    EXPECT_EQ(stream.str(), "\"Not found\" \"Operation succeeded\"");
}

TEST(StatusTest, OnlyTheFailureBitMakesAFailure) {
    EXPECT_FALSE(isFailure(status_Ok));
    EXPECT_FALSE(isFailure(status_False));
    EXPECT_FALSE(isFailure(static_cast<status_t>(2)));
    for (const StatusText& expected : statusTexts)
        EXPECT_EQ(isFailure(static_cast<status_t>(expected.value)), expected.value > 1);
}

} // namespace
} // namespace ORN_3_30::test
