#include "orn_filename.h"

#include "support/temp_dir.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <random>
#include <string>
#include <vector>

using namespace ORN_3_30;

namespace {

const IFilenameParser& unixParser() {
    return UnixFilenameParser::instance();
}

const IFilenameParser& winParser() {
    return WinFilenameParser::instance();
}

std::string normalized(const IFilenameParser& parser, const std::string& path) {
    std::string out = "stale";
    parser.normalize(out, path);
    return out;
}

std::string madeAbsolute(const IFilenameParser& parser, const std::string& path, const std::string& base) {
    std::string out = "stale";
    parser.makeAbsolute(out, path, base);
    return out;
}

std::string driveOf(const IFilenameParser& parser, const std::string& path) {
    std::string out = "stale";
    parser.drive(out, path);
    return out;
}

std::string appended(const IFilenameParser& parser, std::string path, const std::string& name) {
    parser.append(path, name);
    return path;
}

std::string composed(const IFilenameParser& parser, const std::string& drive, const std::string& dir,
                     const std::string& name) {
    std::string out = "stale";
    parser.compose(out, drive, dir, name);
    return out;
}

std::string canonical(const std::string& path, path_style_t style = pathStyle_Detect) {
    std::string out = "stale";
    canonicalPath(out, path, style);
    return out;
}

template <class Function>
std::string result(Function function, const std::string& path) {
    std::string out = "stale";
    function(out, path);
    return out;
}

std::string joinedPath(const std::string& dir, const std::string& name) {
    std::string out = "stale";
    appendPath(out, dir, name);
    return out;
}

/// Makes a directory current for as long as it lives.
class CurrentDirectory {
public:
    explicit CurrentDirectory(const std::string& path) : m_before(std::filesystem::current_path()) {
        std::filesystem::current_path(path);
    }
    ~CurrentDirectory() { std::filesystem::current_path(m_before); }

private:
    std::filesystem::path m_before;
};

struct PathCase {
    const char* path;
    const char* expected;
};

struct SplitCase {
    const char* path;
    const char* drive;
    const char* dir;
    const char* name;
};

void expectSplits(const IFilenameParser& parser, const std::vector<SplitCase>& cases) {
    for (const SplitCase& each : cases) {
        SCOPED_TRACE(each.path);
        std::string drive = "stale", dir = "stale", name = "stale";
        parser.split(each.path, &drive, &dir, &name);
        EXPECT_EQ(drive, each.drive);
        EXPECT_EQ(dir, each.dir);
        EXPECT_EQ(name, each.name);
        EXPECT_EQ(drive + dir + name, each.path);
    }
}

void expectNormalized(const IFilenameParser& parser, const std::vector<PathCase>& cases) {
    for (const PathCase& each : cases)
        EXPECT_EQ(normalized(parser, each.path), each.expected) << each.path;
}

} // namespace

// Parsers

TEST(FilenameParser, EachStyleHasItsNumberAndSeparator) {
    EXPECT_EQ(unixParser().style(), 1);
    EXPECT_EQ(winParser().style(), 2);
    EXPECT_STREQ(unixParser().separator(), "/");
    EXPECT_STREQ(winParser().separator(), "\\");
}

TEST(FilenameParser, EachStyleIsOneObject) {
    EXPECT_EQ(&UnixFilenameParser::instance(), &UnixFilenameParser::instance());
    EXPECT_EQ(&WinFilenameParser::instance(), &WinFilenameParser::instance());
}

TEST(FilenameParser, OnlyWindowsTakesTheBackslashForASeparator) {
    EXPECT_TRUE(unixParser().isSeparator('/'));
    EXPECT_FALSE(unixParser().isSeparator('\\'));
    EXPECT_TRUE(winParser().isSeparator('/'));
    EXPECT_TRUE(winParser().isSeparator('\\'));
    for (const char other : {'\0', 'a', ':', '.', '|'}) {
        EXPECT_FALSE(unixParser().isSeparator(other));
        EXPECT_FALSE(winParser().isSeparator(other));
    }
}

TEST(FilenameParser, EmptyPathIsAbsoluteInNeitherStyle) {
    EXPECT_FALSE(unixParser().isAbsolute(""));
    EXPECT_FALSE(winParser().isAbsolute(""));
}

TEST(UnixFilenameParser, AbsoluteMeansALeadingSlash) {
    for (const char* path : {"/", "/a", "//a", "/../a"})
        EXPECT_TRUE(unixParser().isAbsolute(path)) << path;
    for (const char* path : {"a", "./a", "../a", "a/", "\\a", "C:/a", "\\\\server\\share"})
        EXPECT_FALSE(unixParser().isAbsolute(path)) << path;
}

TEST(UnixFilenameParser, NoPathIsANetworkPath) {
    for (const char* path : {"", "/", "//", "//server/share", "\\\\server\\share"})
        EXPECT_FALSE(unixParser().isNetworkPath(path)) << path;
}

TEST(UnixFilenameParser, NoPathHasADrive) {
    for (const char* path : {"", "/a", "C:\\a", "C:", "//server/share/a"})
        EXPECT_EQ(driveOf(unixParser(), path), "") << path;
}

TEST(WinFilenameParser, AbsoluteMeansANetworkPathOrADrive) {
    for (const char* path : {"C:", "c:\\a", "z:/a", "C:a", "\\\\s", "//s", "/\\s", "\\\\server\\share\\a"})
        EXPECT_TRUE(winParser().isAbsolute(path)) << path;
    for (const char* path : {"a", "\\a", "/a", "\\\\", "C", ":", "a\\C:\\b", "CC:\\a"})
        EXPECT_FALSE(winParser().isAbsolute(path)) << path;
}

TEST(WinFilenameParser, TwoSeparatorsAreNotYetANetworkPath) {
    for (const char* path : {"", "\\", "\\\\", "//", "\\/"})
        EXPECT_FALSE(winParser().isNetworkPath(path)) << path;
    for (const char* path : {"\\\\s", "//s", "\\/s", "\\\\\\"})
        EXPECT_TRUE(winParser().isNetworkPath(path)) << path;
    EXPECT_FALSE(winParser().isNetworkPath("C:\\"));
    EXPECT_FALSE(winParser().isNetworkPath("\\a\\"));
}

TEST(WinFilenameParser, DriveIsALetterAndAColon) {
    for (const char* path : {"C:\\a", "C:/a", "C:a", "C:"})
        EXPECT_EQ(driveOf(winParser(), path), "C:") << path;
    EXPECT_EQ(driveOf(winParser(), "a:\\x"), "a:");
    EXPECT_EQ(driveOf(winParser(), "z:\\x"), "z:");
    for (const char* path : {"", "C", "1:\\a", "@:\\a", "[:\\a", "`:\\a", "{:\\a", "\xC4:\\a", "::", "\\C:"})
        EXPECT_EQ(driveOf(winParser(), path), "") << path;
}

TEST(WinFilenameParser, NetworkPartIsServerAndShare) {
    const std::vector<PathCase> cases = {
        {"\\\\server\\share\\dir\\file", "\\\\server\\share"},
        {"//server/share/dir/file", "//server/share"},
        {"\\\\server\\share\\", "\\\\server\\share"},
        {"\\\\server\\share", "\\\\server\\share"},
        {"\\\\server\\", "\\\\server"},
        {"\\\\server", "\\\\server"},
        {"\\\\server\\\\share", "\\\\server"},
        {"\\\\s", "\\\\s"},
        {"\\\\\\", "\\\\"},
        {"\\\\", ""},
    };
    for (const PathCase& each : cases)
        EXPECT_EQ(driveOf(winParser(), each.path), each.expected) << each.path;
}

// append

TEST(FilenameParserAppend, EmptyNameChangesNothing) {
    for (const char* path : {"", "a", "a/", "/"}) {
        EXPECT_EQ(appended(unixParser(), path, ""), path);
        EXPECT_EQ(appended(winParser(), path, ""), path);
    }
}

TEST(FilenameParserAppend, MissingSeparatorIsThatOfTheStyle) {
    EXPECT_EQ(appended(unixParser(), "/a", "b"), "/a/b");
    EXPECT_EQ(appended(winParser(), "C:\\a", "b"), "C:\\a\\b");
    EXPECT_EQ(appended(winParser(), "C:/a", "b"), "C:/a\\b");
    EXPECT_EQ(appended(unixParser(), "a\\", "b"), "a\\/b");
}

TEST(FilenameParserAppend, OneSeparatorIsEnough) {
    EXPECT_EQ(appended(unixParser(), "/a/", "b"), "/a/b");
    EXPECT_EQ(appended(unixParser(), "/a", "/b"), "/a/b");
    EXPECT_EQ(appended(winParser(), "C:\\a/", "b"), "C:\\a/b");
    EXPECT_EQ(appended(winParser(), "C:\\a", "/b"), "C:\\a/b");
}

TEST(FilenameParserAppend, OneOfTwoSeparatorsIsDropped) {
    EXPECT_EQ(appended(unixParser(), "/a/", "/b"), "/a/b");
    EXPECT_EQ(appended(unixParser(), "/", "/"), "/");
    EXPECT_EQ(appended(winParser(), "C:\\a\\", "\\b"), "C:\\a\\b");
    EXPECT_EQ(appended(unixParser(), "/a//", "//b"), "/a///b");
}

TEST(FilenameParserAppend, EmptyPathGetsASeparatorToo) {
    EXPECT_EQ(appended(unixParser(), "", "a"), "/a");
    EXPECT_EQ(appended(winParser(), "", "a"), "\\a");
}

TEST(FilenameParserAppend, NameMayBeThePathItself) {
    std::string path = "/a/";
    unixParser().append(path, path);
    EXPECT_EQ(path, "/a/a/");
}

// split

TEST(FilenameParserSplit, UnixPathsDivideAtTheLastSlash) {
    expectSplits(unixParser(), {
                                   {"", "", "", ""},
                                   {"/", "", "/", ""},
                                   {"a", "", "", "a"},
                                   {"/a", "", "/", "a"},
                                   {"/a/", "", "/a/", ""},
                                   {"/a/b.so", "", "/a/", "b.so"},
                                   {"a/b", "", "a/", "b"},
                                   {"/a//b", "", "/a//", "b"},
                                   {"/a/..", "", "/a/", ".."},
                                   {"C:\\a\\b", "", "", "C:\\a\\b"},
                               });
}

TEST(FilenameParserSplit, WindowsPathsDivideBehindTheDriveAtEitherSeparator) {
    expectSplits(winParser(), {
                                  {"", "", "", ""},
                                  {"a.dll", "", "", "a.dll"},
                                  {"C:\\x\\y.dll", "C:", "\\x\\", "y.dll"},
                                  {"C:/x/y.dll", "C:", "/x/", "y.dll"},
                                  {"C:\\x/y\\z", "C:", "\\x/y\\", "z"},
                                  {"C:\\", "C:", "\\", ""},
                                  {"C:y.dll", "C:", "", "y.dll"},
                                  {"\\x\\y", "", "\\x\\", "y"},
                                  {"\\\\server\\share\\d\\f", "\\\\server\\share", "\\d\\", "f"},
                                  {"\\\\server\\share\\f", "\\\\server\\share", "\\", "f"},
                              });
}

TEST(FilenameParserSplit, NothingBehindTheDriveGivesEmptyParts) {
    expectSplits(winParser(), {
                                  {"C:", "C:", "", ""},
                                  {"\\\\server\\share", "\\\\server\\share", "", ""},
                                  {"\\\\server", "\\\\server", "", ""},
                              });
}

TEST(FilenameParserSplit, EachOutputMayBeNull) {
    const std::string path = "C:\\x\\y.dll";
    std::string drive, dir, name;
    winParser().split(path, nullptr, nullptr, nullptr);
    winParser().split(path, &drive, nullptr, nullptr);
    winParser().split(path, nullptr, &dir, nullptr);
    winParser().split(path, nullptr, nullptr, &name);
    EXPECT_EQ(drive, "C:");
    EXPECT_EQ(dir, "\\x\\");
    EXPECT_EQ(name, "y.dll");
}

TEST(FilenameParserSplit, AnOutputMayBeThePathItself) {
    std::string path = "C:\\x\\y.dll", dir, name;
    winParser().split(path, &path, &dir, &name);
    EXPECT_EQ(path, "C:");
    EXPECT_EQ(dir, "\\x\\");
    EXPECT_EQ(name, "y.dll");

    path = "C:\\x\\y.dll";
    winParser().split(path, nullptr, &path, &name);
    EXPECT_EQ(path, "\\x\\");
    EXPECT_EQ(name, "y.dll");
}

// compose

TEST(FilenameParserCompose, PartsMeetInOneSeparator) {
    EXPECT_EQ(composed(winParser(), "C:", "\\x\\", "y"), "C:\\x\\y");
    EXPECT_EQ(composed(winParser(), "C:", "x", "y"), "C:\\x\\y");
    EXPECT_EQ(composed(winParser(), "C:\\", "\\x\\", "\\y"), "C:\\x\\y");
    EXPECT_EQ(composed(unixParser(), "", "/a/", "b"), "/a/b");
}

TEST(FilenameParserCompose, EmptyPartsAreLeftOut) {
    EXPECT_EQ(composed(unixParser(), "", "", "b"), "b");
    EXPECT_EQ(composed(unixParser(), "", "a/", ""), "a/");
    EXPECT_EQ(composed(winParser(), "C:", "", ""), "C:");
    EXPECT_EQ(composed(winParser(), "C:", "", "y"), "C:\\y");
    EXPECT_EQ(composed(unixParser(), "", "", ""), "");
}

// normalize

TEST(FilenameParserNormalize, UnixPaths) {
    expectNormalized(unixParser(), {
                                       {"/", "/"},
                                       {"/a", "/a"},
                                       {"/a/", "/a/"},
                                       {"/a/b/c.so", "/a/b/c.so"},
                                       {"/./a", "/a"},
                                       {"/a/./b", "/a/b"},
                                       {"/a/././b", "/a/b"},
                                       {"/a/../b", "/b"},
                                       {"/a/b/../c", "/a/c"},
                                       {"/a/b/../../c", "/c"},
                                       {"/a/../b/../c", "/c"},
                                       {"/a/b/c/../../d/e", "/a/d/e"},
                                       {"/a/b/../", "/a/"},
                                       {"/a/../", "/"},
                                       {"/a\\b/../c", "/c"},
                                       {"/a\\..\\b", "/a\\..\\b"},
                                       {"/C:/a", "/C:/a"},
                                       {"/.../a", "/.../a"},
                                       {"/..a/b../c", "/..a/b../c"},
                                       {"/.a/b", "/.a/b"},
                                   });
}

TEST(FilenameParserNormalize, EmptyDirectoriesAreDroppedAndUseUpNoParent) {
    expectNormalized(unixParser(), {
                                       {"//", "/"},
                                       {"///a", "/a"},
                                       {"/a//b", "/a/b"},
                                       {"/a//", "/a/"},
                                       {"/a/b//../c", "/a/c"},
                                       {"/a/b//..//../c", "/c"},
                                       {"/a/b/./../c", "/a/c"},
                                   });
    EXPECT_EQ(normalized(winParser(), "C:\\a\\b\\\\..\\c"), "C:\\a\\c");
}

TEST(FilenameParserNormalize, LastComponentIsANameAndStays) {
    expectNormalized(unixParser(), {
                                       {"/a/b/..", "/a/b/.."},
                                       {"/a/.", "/a/."},
                                       {"/..", "/.."},
                                       {"/.", "/."},
                                       {"/a/../..", "/.."},
                                   });
    EXPECT_EQ(normalized(winParser(), "C:\\a\\.."), "C:\\a\\..");
}

TEST(FilenameParserNormalize, ClimbingAboveTheRootGivesTheEmptyPath) {
    for (const char* path :
         {"/../a", "/../", "/a/../../b", "/./../a", "//../a", "/a/b/../../../", "/../../a"})
        EXPECT_EQ(normalized(unixParser(), path), "") << path;
    for (const char* path : {"C:\\..\\a", "C:/../a", "\\..\\a", "C:\\a\\..\\..\\b",
                             "\\\\server\\share\\..\\a", "//server/share/a/../../b"})
        EXPECT_EQ(normalized(winParser(), path), "") << path;
}

TEST(FilenameParserNormalize, LeftoverParentsOfAPathWithoutRootStayInFront) {
    expectNormalized(unixParser(), {
                                       {"../a", "../a"},
                                       {"../../a", "../../a"},
                                       {"a/../../b", "../b"},
                                       {"../a/../../b/c", "../../b/c"},
                                       {"./../a", "../a"},
                                   });
    expectNormalized(winParser(), {
                                      {"../a", "..\\a"},
                                      {"a\\..\\..\\b", "..\\b"},
                                      {"C:..\\a", "C:\\..\\a"},
                                  });
}

TEST(FilenameParserNormalize, PathsWithoutRootGetNone) {
    expectNormalized(unixParser(), {
                                       {"", ""},
                                       {"a", "a"},
                                       {"./a", "a"},
                                       {"a/b", "a/b"},
                                       {"a/./b", "a/b"},
                                       {"a/../b", "b"},
                                       {"./", ""},
                                   });
}

TEST(FilenameParserNormalize, WindowsPaths) {
    expectNormalized(winParser(), {
                                      {"C:", "C:"},
                                      {"C:\\", "C:\\"},
                                      {"C:\\x", "C:\\x"},
                                      {"C:\\x\\y.dll", "C:\\x\\y.dll"},
                                      {"C:\\x\\..\\y.dll", "C:\\y.dll"},
                                      {"C:\\x\\.\\y.dll", "C:\\x\\y.dll"},
                                      {"\\x\\y", "\\x\\y"},
                                      {"x\\y", "x\\y"},
                                      {"c:\\X", "c:\\X"},
                                  });
}

TEST(FilenameParserNormalize, MixedSeparatorsComeOutUniform) {
    expectNormalized(winParser(), {
                                      {"C:/x/y.dll", "C:\\x\\y.dll"},
                                      {"C:/x\\y/z.dll", "C:\\x\\y\\z.dll"},
                                      {"C:\\x/../y\\./z", "C:\\y\\z"},
                                      {"C:/", "C:\\"},
                                      {"/x/y", "\\x\\y"},
                                      {"//server/share/x/y", "\\\\server\\share\\x\\y"},
                                      {"\\/server/share\\x", "\\\\server\\share\\x"},
                                  });
}

TEST(FilenameParserNormalize, DriveAndDirectoryMeetInOneSeparator) {
    expectNormalized(winParser(), {
                                      {"C:x", "C:\\x"},
                                      {"C:x\\y", "C:\\x\\y"},
                                      {"C:x/../y/z", "C:\\y\\z"},
                                  });
}

TEST(FilenameParserNormalize, NetworkPaths) {
    expectNormalized(winParser(), {
                                      {"\\\\server\\share\\d\\..\\f", "\\\\server\\share\\f"},
                                      {"\\\\server\\share\\", "\\\\server\\share\\"},
                                      {"\\\\server\\share", "\\\\server\\share"},
                                      {"\\\\server\\", "\\\\server\\"},
                                      {"\\\\server\\\\share", "\\\\server\\share"},
                                      {"\\\\server\\share\\\\d\\f", "\\\\server\\share\\d\\f"},
                                  });
}

TEST(FilenameParserNormalize, OutMayBeThePathItself) {
    std::string path = "/a/b/../c";
    unixParser().normalize(path, path);
    EXPECT_EQ(path, "/a/c");
}

TEST(FilenameParserNormalize, NormalizingTwiceIsNormalizingOnce) {
    const std::vector<std::string> pieces = {"/", "\\", "..", ".", "a", "bc", "/", "/.."};
    std::mt19937 random(20240117);
    for (int round = 0; round < 20000; ++round) {
        std::string tail;
        for (unsigned left = random() % 12; left > 0; --left)
            tail += pieces[random() % pieces.size()];

        const std::string once = normalized(unixParser(), "/" + tail);
        EXPECT_EQ(normalized(unixParser(), once), once) << tail;

        const std::string winOnce = normalized(winParser(), "C:\\" + tail);
        EXPECT_EQ(normalized(winParser(), winOnce), winOnce) << tail;
    }
}

TEST(FilenameParserNormalize, TimeGrowsWithTheLengthOnly) {
    std::string path = "/";
    std::string expected = "/";
    for (int i = 0; i < 200000; ++i)
        path += "a/../";
    EXPECT_EQ(normalized(unixParser(), path), expected);

    path = expected = "/";
    for (int i = 0; i < 200000; ++i) {
        path += "a//./";
        expected += "a/";
    }
    EXPECT_EQ(normalized(unixParser(), path), expected);
}

// makeAbsolute

TEST(FilenameParserMakeAbsolute, BaseStandsInFrontOfARelativePath) {
    EXPECT_EQ(madeAbsolute(unixParser(), "a/b", "/base"), "/base/a/b");
    EXPECT_EQ(madeAbsolute(unixParser(), "../a", "/base/dir/"), "/base/a");
    EXPECT_EQ(madeAbsolute(unixParser(), "", "/base"), "/base");
    EXPECT_EQ(madeAbsolute(winParser(), "a/b", "C:\\base"), "C:\\base\\a\\b");
    EXPECT_EQ(madeAbsolute(winParser(), "..\\a", "\\\\server\\share\\dir"), "\\\\server\\share\\a");
}

TEST(FilenameParserMakeAbsolute, AbsolutePathNeedsNoBase) {
    EXPECT_EQ(madeAbsolute(unixParser(), "/a/../b", "/base"), "/b");
    EXPECT_EQ(madeAbsolute(winParser(), "D:/a/./b", "C:\\base"), "D:\\a\\b");
    EXPECT_EQ(madeAbsolute(winParser(), "D:\\a", ""), "D:\\a");
}

TEST(FilenameParserMakeAbsolute, WindowsPathWithRootAndNoDriveTakesTheDriveOfTheBase) {
    EXPECT_EQ(madeAbsolute(winParser(), "\\a\\b", "C:\\base"), "C:\\a\\b");
    EXPECT_EQ(madeAbsolute(winParser(), "/a", "\\\\server\\share\\dir"), "\\\\server\\share\\a");
    EXPECT_EQ(madeAbsolute(winParser(), "\\a", "/home/me"), "\\a");
}

TEST(FilenameParserMakeAbsolute, WithoutABaseThereIsNoPath) {
    EXPECT_EQ(madeAbsolute(unixParser(), "a", ""), "");
    EXPECT_EQ(madeAbsolute(winParser(), "a", ""), "");
    EXPECT_EQ(madeAbsolute(winParser(), "\\a", ""), "");
}

TEST(FilenameParserMakeAbsolute, ClimbingAboveTheRootOfTheBaseGivesTheEmptyPath) {
    EXPECT_EQ(madeAbsolute(unixParser(), "../../a", "/base"), "");
    EXPECT_EQ(madeAbsolute(winParser(), "..\\..\\a", "C:\\base"), "");
}

TEST(FilenameParserMakeAbsolute, OutMayBeAnArgument) {
    std::string path = "a", base = "/base";
    unixParser().makeAbsolute(path, path, base);
    EXPECT_EQ(path, "/base/a");
    unixParser().makeAbsolute(base, "b", base);
    EXPECT_EQ(base, "/base/b");
}

// FileName

TEST(FileName, AbsoluteTextTellsItsStyle) {
    EXPECT_EQ(FileName("/a/b").style(), pathStyle_Unix);
    EXPECT_EQ(FileName("C:\\a").style(), pathStyle_Windows);
    EXPECT_EQ(FileName("C:/a").style(), pathStyle_Windows);
    EXPECT_EQ(FileName("\\\\server\\share").style(), pathStyle_Windows);
}

TEST(FileName, HostIsAskedFirst) {
    EXPECT_EQ(FileName("//server/share").style(), pathStyle_Unix);
}

TEST(FileName, RelativeTextStaysWithTheHost) {
    for (const char* text : {"", "a", "a\\b", "..\\a", "\\a"})
        EXPECT_EQ(FileName(text).style(), pathStyle_Unix) << text;
}

TEST(FileName, GivenStyleWins) {
    EXPECT_EQ(FileName("C:\\a", nullptr, pathStyle_Unix).style(), pathStyle_Unix);
    EXPECT_EQ(&FileName("C:\\a", nullptr, pathStyle_Unix).parser(), &UnixFilenameParser::instance());
    EXPECT_EQ(FileName("/a", nullptr, pathStyle_Windows).style(), pathStyle_Windows);
    EXPECT_EQ(&FileName("/a", nullptr, pathStyle_Windows).parser(), &WinFilenameParser::instance());
}

TEST(FileName, HostStyleIsUnix) {
    EXPECT_EQ(pathStyle_Host, 0);
    EXPECT_EQ(FileName("C:\\a", nullptr, pathStyle_Host).style(), pathStyle_Unix);
}

TEST(FileName, GivenParserWins) {
    const FileName name("/a", &WinFilenameParser::instance());
    EXPECT_EQ(&name.parser(), &WinFilenameParser::instance());
    EXPECT_EQ(name.style(), pathStyle_Windows);
    EXPECT_EQ(FileName("/a", &WinFilenameParser::instance(), pathStyle_Unix).style(), pathStyle_Windows);
}

TEST(FileName, EqualMeansSameStyleAndSameText) {
    EXPECT_TRUE(FileName("/a") == FileName("/a"));
    EXPECT_TRUE(FileName("/a") == FileName("/a", nullptr, pathStyle_Host));
    EXPECT_FALSE(FileName("/a") == FileName("/A"));
    EXPECT_FALSE(FileName("/a") == FileName("/a/"));
    EXPECT_FALSE(FileName("/a") == FileName("/a", nullptr, pathStyle_Windows));
}

// Free functions

TEST(CanonicalPath, AbsolutePathIsNormalizedInItsOwnStyle) {
    EXPECT_EQ(canonical("/a/./b/../c"), "/a/c");
    EXPECT_EQ(canonical("C:/a/../b"), "C:\\b");
    EXPECT_EQ(canonical("\\\\server\\share/a\\.\\b"), "\\\\server\\share\\a\\b");
    EXPECT_EQ(canonical("//server/share/a"), "/server/share/a");
}

TEST(CanonicalPath, RelativePathIsSeenFromTheCurrentDirectory) {
    const orn_test::TempDir dir;
    const CurrentDirectory here(dir.path());
    const std::string current = std::filesystem::current_path().string();
    EXPECT_EQ(canonical("a"), current + "/a");
    EXPECT_EQ(canonical("./x/../a"), current + "/a");
    EXPECT_EQ(canonical("a\\b"), current + "/a\\b");
}

TEST(CanonicalPath, EmptyPathIsTheCurrentDirectory) {
    const orn_test::TempDir dir;
    const CurrentDirectory here(dir.path());
    EXPECT_EQ(canonical(""), std::filesystem::current_path().string());
}

TEST(CanonicalPath, GivenStyleDecides) {
    const orn_test::TempDir dir;
    const CurrentDirectory here(dir.path());
    EXPECT_EQ(canonical("/a\\b/../c", pathStyle_Windows).back(), 'c');
    EXPECT_EQ(canonical("C:\\a", pathStyle_Host), std::filesystem::current_path().string() + "/C:\\a");
    EXPECT_EQ(canonical("//server/share/a", pathStyle_Windows), "\\\\server\\share\\a");
    EXPECT_EQ(canonical("/a/b", pathStyle_Windows), "\\a\\b");
}

TEST(CanonicalPath, ClimbingAboveTheRootGivesNoPath) {
    EXPECT_EQ(canonical("/../a"), "");
    EXPECT_EQ(canonical("C:\\..\\a"), "");
}

TEST(CanonicalPath, UnknownCurrentDirectoryGivesNoPath) {
    const orn_test::TempDir dir;
    const std::string gone = dir.makeDirectory("gone");
    const CurrentDirectory here(gone);
    std::filesystem::remove(gone);
    EXPECT_EQ(canonical("a"), "");
    EXPECT_EQ(canonical("/a"), "/a");
}

TEST(CanonicalPath, OutMayBeThePathItself) {
    std::string path = "/a/../b";
    canonicalPath(path, path);
    EXPECT_EQ(path, "/b");
}

TEST(FileNameFunctions, BaseNameOfAWindowsPathIsFoundOnAnyHost) {
    EXPECT_EQ(result(baseName, "C:\\x\\y.dll"), "y.dll");
    EXPECT_EQ(result(baseName, "\\\\server\\share\\y.dll"), "y.dll");
}

TEST(FileNameFunctions, BaseNameStandsBehindTheLastSeparator) {
    EXPECT_EQ(result(baseName, "/a/b.so"), "b.so");
    EXPECT_EQ(result(baseName, "b.so"), "b.so");
    EXPECT_EQ(result(baseName, "/a/"), "");
    EXPECT_EQ(result(baseName, ""), "");
    EXPECT_EQ(result(baseName, "x\\y.dll"), "x\\y.dll"); // relative, so of the host's style
}

TEST(FileNameFunctions, DirNameKeepsItsFinalSeparator) {
    EXPECT_EQ(result(dirName, "/usr/lib/libx.so"), "/usr/lib/");
    EXPECT_EQ(result(dirName, "/libx.so"), "/");
    EXPECT_EQ(result(dirName, "libx.so"), "");
    EXPECT_EQ(result(dirName, "C:\\x\\y.dll"), "\\x\\");
}

TEST(FileNameFunctions, DriveNameIsTheDriveOrTheNetworkPart) {
    EXPECT_EQ(result(driveName, "C:\\x\\y.dll"), "C:");
    EXPECT_EQ(result(driveName, "\\\\server\\share\\x"), "\\\\server\\share");
    EXPECT_EQ(result(driveName, "/usr/lib"), "");
}

TEST(FileNameFunctions, AppendPathJoinsInTheStyleOfTheDirectory) {
    EXPECT_EQ(joinedPath("/usr/lib", "x.so"), "/usr/lib/x.so");
    EXPECT_EQ(joinedPath("/usr/lib/", "x.so"), "/usr/lib/x.so");
    EXPECT_EQ(joinedPath("/usr/lib/.debug", "x.so"), "/usr/lib/.debug/x.so");
    EXPECT_EQ(joinedPath("C:\\x", "y.dll"), "C:\\x\\y.dll");
    EXPECT_EQ(joinedPath("C:", "y.dll"), "C:\\y.dll");
    EXPECT_EQ(joinedPath("rel", "C:\\y"), "rel/C:\\y");
    EXPECT_EQ(joinedPath("/usr/lib", ""), "/usr/lib");
}

TEST(FileNameFunctions, AppendPathMayWriteOverItsArguments) {
    std::string path = "/a";
    appendPath(path, path, "b");
    EXPECT_EQ(path, "/a/b");
    appendPath(path, "/c", path);
    EXPECT_EQ(path, "/c/a/b");
}

TEST(FileNameFunctions, IsAbsolutePathKnowsBothStyles) {
    for (const char* path : {"/a", "C:\\a", "C:a", "\\\\server"})
        EXPECT_TRUE(isAbsolutePath(path)) << path;
    for (const char* path : {"", "a", "./a", "\\a", "\\\\"})
        EXPECT_FALSE(isAbsolutePath(path)) << path;
}
