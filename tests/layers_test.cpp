// Holds the library's own sources to the floors of the house, and the checker to its word: each rule is first
// shown to fail on a made-up tree that breaks it.

#include "support/layer_check.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <fstream>

namespace {

namespace fs = std::filesystem;
using layers::LayerCheck;
using testing::ElementsAre;
using testing::IsEmpty;

LayerCheck ownTree() {
    return LayerCheck(ORN_SOURCE_DIR);
}

TEST(Layers, EveryFileHasAFloor) {
    EXPECT_THAT(ownTree().filesWithoutFloor(), IsEmpty());
    EXPECT_GT(ownTree().fileCount(), 0U);
}

TEST(Layers, NoHeaderIncludesAHigherFloor) {
    EXPECT_THAT(ownTree().upwardIncludes(), IsEmpty());
    EXPECT_GT(ownTree().includeCount(), 0U);
}

TEST(Layers, NoIncludeCycle) {
    EXPECT_THAT(ownTree().cycles(), IsEmpty());
}

TEST(Layers, PublicHeadersIncludeOnlyPublicHeaders) {
    EXPECT_THAT(ownTree().foreignIncludesOfPublicHeaders(), IsEmpty());
}

/// A tree of made-up sources in a directory of its own, gone with the test.
class LayerChecker : public testing::Test {
protected:
    LayerChecker() {
        std::string pattern = (fs::temp_directory_path() / "orn-layers-XXXXXX").string();
        if (const char* made = mkdtemp(pattern.data()))
            m_root = made;
        write("src/orn/floors.txt", "orn_low 1\norn_high 2\n");
    }

    ~LayerChecker() override { fs::remove_all(m_root); }

    void SetUp() override { ASSERT_FALSE(m_root.empty()); }

    void write(const std::string& name, const std::string& text) const {
        fs::create_directories((m_root / name).parent_path());
        std::ofstream(m_root / name) << text;
    }

    LayerCheck check() const { return LayerCheck(m_root); }

private:
    fs::path m_root;
};

TEST_F(LayerChecker, FindsNothingInATreeThatKeepsTheRules) {
    write("include/orn/face.h", "#include <string>\n");
    write("src/orn/orn_low.h", "#include \"orn/face.h\"\n");
    write("src/orn/orn_high.h", "#include \"orn_low.h\"\n#include <zlib.h>\n");
    EXPECT_THAT(check().filesWithoutFloor(), IsEmpty());
    EXPECT_THAT(check().upwardIncludes(), IsEmpty());
    EXPECT_THAT(check().cycles(), IsEmpty());
    EXPECT_THAT(check().foreignIncludesOfPublicHeaders(), IsEmpty());
    EXPECT_EQ(check().fileCount(), 3U);
    EXPECT_EQ(check().includeCount(), 2U);
}

TEST_F(LayerChecker, ReportsAFileWithoutAFloor) {
    write("src/orn/orn_new.cpp", "");
    EXPECT_THAT(check().filesWithoutFloor(),
                ElementsAre("src/orn/orn_new.cpp has no floor: add its subject to src/orn/floors.txt"));
}

TEST_F(LayerChecker, ReportsALineOfTheFloorTableThatCannotBeRead) {
    write("src/orn/floors.txt", "# why\n\norn_low 1 # fine\norn_high two\norn_low 1 2\n");
    EXPECT_THAT(check().filesWithoutFloor(), ElementsAre("src/orn/floors.txt:4: not a subject and a floor",
                                                         "src/orn/floors.txt:5: not a subject and a floor"));
}

TEST_F(LayerChecker, GivesSiblingsTheFloorOfTheirSubject) {
    write("src/orn/orn_low_walk.cpp", "");
    write("src/orn/orn_lower.cpp", "");
    EXPECT_THAT(check().filesWithoutFloor(),
                ElementsAre("src/orn/orn_lower.cpp has no floor: add its subject to src/orn/floors.txt"));
}

TEST_F(LayerChecker, GivesAFileTheFloorOfTheLongestEntryThatFits) {
    write("src/orn/floors.txt", "orn_l* 1\norn_low 3\norn_high 2\n");
    write("src/orn/orn_low.h", "");
    write("src/orn/orn_last.h", "");
    write("src/orn/orn_high.h", "#include \"orn_last.h\"\n#include \"orn_low.h\"\n");
    EXPECT_THAT(check().upwardIncludes(),
                ElementsAre("src/orn/orn_high.h (floor 2) includes src/orn/orn_low.h (floor 3)"));
}

TEST_F(LayerChecker, ReportsAHeaderThatIncludesAHigherFloor) {
    write("src/orn/orn_low.h", "  #  include \"orn_high.h\" // why not\n");
    write("src/orn/orn_high.h", "");
    EXPECT_THAT(check().upwardIncludes(),
                ElementsAre("src/orn/orn_low.h (floor 1) includes src/orn/orn_high.h (floor 2)"));
}

TEST_F(LayerChecker, LetsASourceIncludeAHigherFloor) {
    write("src/orn/orn_low.cpp", "#include \"orn_high.h\"\n");
    write("src/orn/orn_high.h", "");
    EXPECT_THAT(check().upwardIncludes(), IsEmpty());
    EXPECT_EQ(check().includeCount(), 1U);
}

TEST_F(LayerChecker, ReportsAnIncludeCycleOnce) {
    write("src/orn/orn_low.h", "#include \"orn_low_b.h\"\n");
    write("src/orn/orn_low_b.h", "#include \"orn_low_c.h\"\n");
    write("src/orn/orn_low_c.h", "#include \"orn_low_b.h\"\n");
    EXPECT_THAT(check().cycles(),
                ElementsAre("src/orn/orn_low_b.h -> src/orn/orn_low_c.h -> src/orn/orn_low_b.h"));
}

TEST_F(LayerChecker, TakesTwoWaysToOneHeaderForNoCycle) {
    write("src/orn/orn_low.h", "#include \"orn_low_b.h\"\n#include \"orn_low_c.h\"\n");
    write("src/orn/orn_low_b.h", "#include \"orn_low_c.h\"\n");
    write("src/orn/orn_low_c.h", "");
    EXPECT_THAT(check().cycles(), IsEmpty());
}

TEST_F(LayerChecker, ReportsWhatAPublicHeaderMayNotInclude) {
    write("include/orn/face.h", "#include <vector>\n#include <pthread.h>\n#include <orn/other.h>\n#include "
                                "\"../../src/orn/orn_low.h\"\n"
                                "#include <log4cplus/logger.h>\n#include \"missing.h\"\n#include <zlib.h>\n");
    write("include/orn/other.h", "");
    write("src/orn/orn_low.h", "");
    EXPECT_THAT(check().foreignIncludesOfPublicHeaders(),
                ElementsAre("include/orn/face.h includes \"../../src/orn/orn_low.h\"",
                            "include/orn/face.h includes <log4cplus/logger.h>",
                            "include/orn/face.h includes \"missing.h\"",
                            "include/orn/face.h includes <zlib.h>"));
}

} // namespace
