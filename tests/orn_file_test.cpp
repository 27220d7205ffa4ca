#include "orn_file.h"

#include "support/temp_dir.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <filesystem>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include <fcntl.h>
#include <sys/fsuid.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

using namespace ORN_3_30;
using orn_test::TempDir;

namespace {

/// The descriptors of this process that are open on `path`.
std::vector<int> descriptorsOn(const std::string& path) {
    const std::filesystem::path wanted = std::filesystem::canonical(path);
    std::vector<int> found;
    for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
        std::error_code gone; // the descriptor of the walk itself
        if (std::filesystem::read_symlink(entry.path(), gone) == wanted)
            found.push_back(std::stoi(entry.path().filename().string()));
    }
    return found;
}

struct Closer {
    void operator()(IFile* file) const { file->close(); }
};
using LinuxFilePtr = std::unique_ptr<LinuxFile, Closer>;

LinuxFilePtr openFile(const std::string& path, int flags) {
    file_op_status_t status = fosError;
    LinuxFilePtr file(LinuxFile::open(path.c_str(), flags, status));
    EXPECT_EQ(status, fosOK);
    return file;
}

/// Takes the right to pass over permissions from this thread for as long as it lives, if it has it at all.
class WithoutPrivilege {
public:
    WithoutPrivilege() {
        if (::geteuid() == 0)
            setUser(nobody);
    }
    ~WithoutPrivilege() {
        if (::geteuid() == 0)
            setUser(0);
    }

    /// False where the user of no rights is not known to the system, so that nothing could be taken.
    static bool holds() { return setUser(static_cast<uid_t>(-1)) != 0; }

private:
    static constexpr uid_t nobody = 65534;

    static int setUser(uid_t user) { return ::setfsuid(user); }
};

class Pipe {
public:
    Pipe() { EXPECT_EQ(::pipe2(m_ends, O_NONBLOCK | O_CLOEXEC), 0); }
    ~Pipe() {
        ::close(m_ends[0]);
        ::close(m_ends[1]);
    }
    int takeReadEnd() { return std::exchange(m_ends[0], -1); }
    int writeEnd() const { return m_ends[1]; }

private:
    int m_ends[2] = {-1, -1};
};

} // namespace

// Status

TEST(FileStatus, NumbersAreFixed) {
    EXPECT_EQ(fosOK, 0u);
    EXPECT_EQ(fosError, 1u);
    EXPECT_EQ(fosAccessDenied, 2u);
    EXPECT_EQ(fosAlreadyExists, 4u);
    EXPECT_EQ(fosNotFound, 7u);
    EXPECT_EQ(fosOutOfMemory, 8u);
    EXPECT_EQ(fosNoSpace, 9u);
    EXPECT_EQ(fosBadHandle, 11u);
    EXPECT_EQ(fosShortTransfer, 14u);
    EXPECT_EQ(fosInvalidArgument, 16u);
    EXPECT_EQ(sizeof(file_op_status_t), 4u);
}

TEST(FileStatus, ErrnoHasOneFixedMapping) {
    const std::vector<std::pair<int, file_op_status_t>> cases = {
        {EACCES, fosAccessDenied},    {EEXIST, fosAlreadyExists}, {ENOENT, fosNotFound},
        {ENOMEM, fosOutOfMemory},     {ENOSPC, fosNoSpace},       {EBADF, fosBadHandle},
        {EINVAL, fosInvalidArgument}, {EPERM, fosError},          {EIO, fosError},
        {EISDIR, fosError},           {EINTR, fosError},          {0, fosError},
    };
    for (const auto& [error, status] : cases)
        EXPECT_EQ(fileStatusFromErrno(error), status) << std::strerror(error);
}

// File

TEST(File, MissingPathIsNotFound) {
    const TempDir dir;
    File file(dir.path("none").c_str());
    char byte = 'x';
    EXPECT_EQ(file.status(), fosNotFound);
    EXPECT_EQ(file.read(1, &byte), -1);
    EXPECT_EQ(file.size(), 0u);
    EXPECT_EQ(file.seek(0), -1);
    EXPECT_EQ(file.tell(), -1);
    EXPECT_EQ(file.status(), fosNotFound);
    EXPECT_EQ(byte, 'x');
}

TEST(File, NullOrEmptyPathIsAnInvalidArgument) {
    for (const char* path : {static_cast<const char*>(nullptr), ""}) {
        File file(path);
        EXPECT_EQ(file.status(), fosInvalidArgument);
        EXPECT_EQ(file.name(), "");
        EXPECT_EQ(file.size(), 0u);
        EXPECT_EQ(file.read(0, nullptr), -1);
    }
}

TEST(File, KeepsThePathAsGiven) {
    EXPECT_EQ(File("no/./such").name(), "no/./such");
}

TEST(File, ReadsFromTheStart) {
    const TempDir dir;
    File file(dir.write("f", "0123456789").c_str());
    EXPECT_EQ(file.status(), fosOK);
    EXPECT_EQ(file.size(), 10u);
    EXPECT_EQ(file.tell(), 0);
    char bytes[4];
    EXPECT_EQ(file.read(4, bytes), 4);
    EXPECT_EQ(file.status(), fosOK);
    EXPECT_EQ(std::string(bytes, 4), "0123");
    EXPECT_EQ(file.tell(), 4);
}

TEST(File, SeekReturnsTheEarlierPosition) {
    const TempDir dir;
    File file(dir.write("f", std::string(200, 'a')).c_str());
    EXPECT_EQ(file.seek(7), 0);
    EXPECT_EQ(file.seek(100), 7);
    EXPECT_EQ(file.status(), fosOK);
    EXPECT_EQ(file.tell(), 100);
}

TEST(File, SeekBehindTheEndIsAllowed) {
    const TempDir dir;
    File file(dir.write("f", "abc").c_str());
    EXPECT_EQ(file.seek(1000), 0);
    char byte;
    EXPECT_EQ(file.read(1, &byte), 0);
    EXPECT_EQ(file.status(), fosShortTransfer);
}

TEST(File, SeekToANegativeOffsetFailsAndStays) {
    const TempDir dir;
    File file(dir.write("f", "abc").c_str());
    EXPECT_EQ(file.seek(2), 0);
    EXPECT_EQ(file.seek(-1), -1);
    EXPECT_EQ(file.status(), fosInvalidArgument);
    EXPECT_EQ(file.tell(), 2);
    EXPECT_EQ(file.status(), fosOK);
}

TEST(File, ShortReadAtTheEndReturnsTheCount) {
    const TempDir dir;
    File file(dir.write("f", "0123456789").c_str());
    EXPECT_EQ(file.seek(6), 0);
    char bytes[10];
    EXPECT_EQ(file.read(10, bytes), 4);
    EXPECT_EQ(file.status(), fosShortTransfer);
    EXPECT_EQ(std::string(bytes, 4), "6789");
    EXPECT_EQ(file.read(10, bytes), 0);
    EXPECT_EQ(file.status(), fosShortTransfer);
}

TEST(File, ReadOfNothingSucceeds) {
    const TempDir dir;
    File file(dir.write("f", "abc").c_str());
    char bytes[10];
    EXPECT_EQ(file.read(10, bytes), 3);
    EXPECT_EQ(file.read(0, nullptr), 0);
    EXPECT_EQ(file.status(), fosOK);
}

TEST(File, EveryOperationSetsTheStatusAnew) {
    const TempDir dir;
    File file(dir.write("f", "abc").c_str());
    char bytes[10];
    const auto makeShort = [&] {
        ASSERT_EQ(file.seek(0) >= 0, true);
        ASSERT_EQ(file.read(10, bytes), 3);
        ASSERT_EQ(file.status(), fosShortTransfer);
    };
    makeShort();
    EXPECT_EQ(file.size(), 3u);
    EXPECT_EQ(file.status(), fosOK);
    makeShort();
    EXPECT_EQ(file.tell(), 3);
    EXPECT_EQ(file.status(), fosOK);
    makeShort();
    EXPECT_EQ(file.seek(1), 3);
    EXPECT_EQ(file.status(), fosOK);
}

TEST(File, SizeFollowsTheFile) {
    const TempDir dir;
    const std::string path = dir.write("f", "abc");
    File file(path.c_str());
    EXPECT_EQ(file.size(), 3u);
    std::filesystem::resize_file(path, 5);
    EXPECT_EQ(file.size(), 5u);
}

TEST(File, DirectoryOpensButCannotBeRead) {
    const TempDir dir;
    File file(dir.path().c_str());
    EXPECT_EQ(file.status(), fosOK);
    char byte;
    EXPECT_EQ(file.read(1, &byte), -1);
    EXPECT_EQ(file.status(), fosError);
}

TEST(File, ForbiddenPathIsDenied) {
    const TempDir dir;
    const std::string path = dir.write("f", "abc");
    std::filesystem::permissions(path, std::filesystem::perms::none);
    const WithoutPrivilege plain;
    if (!WithoutPrivilege::holds())
        GTEST_SKIP() << "cannot act as a user without rights";
    EXPECT_EQ(File(path.c_str()).status(), fosAccessDenied);
}

TEST(File, DescriptorLivesAsLongAsTheObjectAndIsNotInherited) {
    const TempDir dir;
    const std::string path = dir.write("f", "abc");
    {
        const File file(path.c_str());
        const std::vector<int> open = descriptorsOn(path);
        ASSERT_EQ(open.size(), 1u);
        EXPECT_EQ(::fcntl(open[0], F_GETFD) & FD_CLOEXEC, FD_CLOEXEC);
    }
    EXPECT_TRUE(descriptorsOn(path).empty());
}

// FileModifiable

TEST(FileModifiable, MissingPathIsNotFoundUnlessCreated) {
    const TempDir dir;
    const std::string path = dir.path("f");
    const auto missing = FileModifiable::open(path.c_str(), false);
    ASSERT_NE(missing, nullptr);
    EXPECT_EQ(missing->status(), fosNotFound);
    EXPECT_FALSE(std::filesystem::exists(path));

    const auto made = FileModifiable::open(path.c_str(), true);
    EXPECT_EQ(made->status(), fosOK);
    EXPECT_EQ(made->name(), path);
    EXPECT_TRUE(std::filesystem::exists(path));
}

TEST(FileModifiable, WithoutAFileEveryOperationFails) {
    const auto file = FileModifiable::open(nullptr, true);
    char byte = 'x';
    EXPECT_EQ(file->status(), fosInvalidArgument);
    EXPECT_FALSE(file->append(1, &byte));
    EXPECT_FALSE(file->writeAt(0, 1, &byte));
    EXPECT_EQ(file->read(1, &byte), -1);
    EXPECT_EQ(file->seek(0), -1);
    EXPECT_EQ(file->tell(), -1);
    EXPECT_EQ(file->size(), 0u);
    EXPECT_EQ(FileModifiable::open("", true)->status(), fosInvalidArgument);
}

TEST(FileModifiable, CreatedFileMayBeReadAndWrittenByAll) {
    const TempDir dir;
    const mode_t before = ::umask(0);
    const std::string path = dir.path("f");
    const auto file = FileModifiable::open(path.c_str(), true);
    ::umask(before);
    struct stat info;
    ASSERT_EQ(::stat(path.c_str(), &info), 0);
    EXPECT_EQ(info.st_mode & 07777, 0666u);
}

TEST(FileModifiable, CreateKeepsWhatIsThere) {
    const TempDir dir;
    const std::string path = dir.write("f", "abc");
    EXPECT_EQ(FileModifiable::open(path.c_str(), true)->size(), 3u);
}

TEST(FileModifiable, AppendWritesBehindTheEnd) {
    const TempDir dir;
    const std::string path = dir.write("f", "abc");
    const auto file = FileModifiable::open(path.c_str(), false);
    EXPECT_TRUE(file->append(2, "de"));
    EXPECT_EQ(file->status(), fosOK);
    EXPECT_EQ(file->seek(0), 5);
    EXPECT_TRUE(file->append(1, "f"));
    EXPECT_EQ(TempDir::contents(path), "abcdef");
}

TEST(FileModifiable, WriteAtWritesAtTheOffset) {
    const TempDir dir;
    const std::string path = dir.write("f", "abcdef");
    const auto file = FileModifiable::open(path.c_str(), false);
    EXPECT_TRUE(file->writeAt(2, 2, "XY"));
    EXPECT_EQ(file->status(), fosOK);
    EXPECT_EQ(file->tell(), 4);
    EXPECT_EQ(TempDir::contents(path), "abXYef");
    EXPECT_TRUE(file->writeAt(7, 1, "!"));
    EXPECT_EQ(TempDir::contents(path), std::string("abXYef\0!", 8));
}

TEST(FileModifiable, WriteAtANegativeOffsetFails) {
    const TempDir dir;
    const std::string path = dir.write("f", "abc");
    const auto file = FileModifiable::open(path.c_str(), false);
    EXPECT_FALSE(file->writeAt(-1, 1, "x"));
    EXPECT_EQ(file->status(), fosInvalidArgument);
    EXPECT_EQ(TempDir::contents(path), "abc");
}

TEST(FileModifiable, WritingClearsAnEarlierStatus) {
    const TempDir dir;
    const auto file = FileModifiable::open(dir.path("f").c_str(), true);
    char byte;
    EXPECT_EQ(file->read(1, &byte), 0);
    EXPECT_EQ(file->status(), fosShortTransfer);
    EXPECT_TRUE(file->append(1, "a"));
    EXPECT_EQ(file->status(), fosOK);
    EXPECT_EQ(file->read(1, &byte), 0);
    EXPECT_TRUE(file->writeAt(0, 1, "b"));
    EXPECT_EQ(file->status(), fosOK);
}

TEST(FileModifiable, FullDeviceIsNoSpace) {
    const auto file = FileModifiable::open("/dev/full", false);
    ASSERT_EQ(file->status(), fosOK);
    EXPECT_FALSE(file->writeAt(0, 1, "a"));
    EXPECT_EQ(file->status(), fosNoSpace);
    EXPECT_FALSE(file->append(1, "a"));
    EXPECT_EQ(file->status(), fosNoSpace);
}

TEST(FileModifiable, FailureToReachTheDiskIsAFailure) {
    // The null device takes any bytes, but has no disk to bring them to.
    const auto file = FileModifiable::open("/dev/null", false);
    ASSERT_EQ(file->status(), fosOK);
    EXPECT_FALSE(file->append(1, "a"));
    EXPECT_EQ(file->status(), fosInvalidArgument);
    EXPECT_FALSE(file->writeAt(0, 1, "a"));
    EXPECT_EQ(file->status(), fosInvalidArgument);
}

TEST(FileModifiable, DescriptorLivesAsLongAsTheObjectAndIsNotInherited) {
    const TempDir dir;
    const std::string path = dir.path("f");
    {
        const auto file = FileModifiable::open(path.c_str(), true);
        const std::vector<int> open = descriptorsOn(path);
        ASSERT_EQ(open.size(), 1u);
        EXPECT_EQ(::fcntl(open[0], F_GETFD) & FD_CLOEXEC, FD_CLOEXEC);
    }
    EXPECT_TRUE(descriptorsOn(path).empty());
}

// LinuxFile

TEST(LinuxFile, BadDescriptorFailsEveryOperation) {
    auto* file = new LinuxFile(-1);
    char byte;
    EXPECT_EQ(file->status(), fosOK);
    EXPECT_EQ(file->tell(), -1);
    EXPECT_EQ(file->status(), fosBadHandle);
    EXPECT_EQ(file->read(1, &byte), -1);
    EXPECT_EQ(file->status(), fosBadHandle);
    EXPECT_EQ(file->size(), 0u);
    EXPECT_EQ(file->status(), fosBadHandle);
    EXPECT_EQ(file->seek(0), -1);
    EXPECT_EQ(file->status(), fosBadHandle);
    EXPECT_FALSE(file->append(1, "a"));
    EXPECT_EQ(file->status(), fosBadHandle);
    EXPECT_FALSE(file->writeAt(0, 1, "a"));
    EXPECT_EQ(file->status(), fosBadHandle);
    EXPECT_TRUE(file->close());
}

TEST(LinuxFile, CloseTellsOfFailureOnly) {
    const TempDir dir;
    EXPECT_FALSE(openFile(dir.write("f", "abc"), O_RDONLY).release()->close());
}

TEST(LinuxFile, FileOpenForReadingCannotBeWritten) {
    const TempDir dir;
    const std::string path = dir.write("f", "abc");
    const LinuxFilePtr file = openFile(path, O_RDONLY);
    EXPECT_FALSE(file->append(1, "d"));
    EXPECT_EQ(file->status(), fosBadHandle);
    EXPECT_EQ(TempDir::contents(path), "abc");
}

TEST(LinuxFile, PlaceWithoutPositionsCannotSeek) {
    Pipe pipe;
    const LinuxFilePtr file(new LinuxFile(pipe.takeReadEnd()));
    EXPECT_EQ(file->seek(1), -1);
    EXPECT_EQ(file->status(), fosError);
    EXPECT_EQ(file->tell(), -1);
    EXPECT_EQ(file->status(), fosError);
}

TEST(LinuxFile, ShortCountIsNotAskedAgain) {
    // The pipe is empty behind its four bytes: a second attempt would fail instead of ending the file.
    Pipe pipe;
    ASSERT_EQ(::write(pipe.writeEnd(), "abcd", 4), 4);
    const LinuxFilePtr file(new LinuxFile(pipe.takeReadEnd()));
    char bytes[10];
    EXPECT_EQ(file->read(10, bytes), 4);
    EXPECT_EQ(file->status(), fosShortTransfer);
    EXPECT_EQ(file->read(10, bytes), -1);
    EXPECT_EQ(file->status(), fosError);
}

TEST(LinuxFile, ReadAboveTheLimitOfOneTransferIsCompleted) {
    // A buffer of a little over 2 GiB whose bulk is one piece of memory seen over and over. Its tail is
    // memory of its own, which only a second transfer can reach.
    constexpr std::size_t piece = std::size_t(16) << 20, pieces = 128, bulk = piece * pieces, tail = 4096;
    const int memory = ::memfd_create("piece", MFD_CLOEXEC);
    ASSERT_GE(memory, 0);
    ASSERT_EQ(::ftruncate(memory, piece), 0);
    auto* buffer = static_cast<char*>(::mmap(nullptr, bulk + tail, PROT_READ | PROT_WRITE,
                                             MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0));
    ASSERT_NE(buffer, MAP_FAILED);
    for (std::size_t i = 0; i < pieces; ++i)
        ASSERT_NE(
            ::mmap(buffer + i * piece, piece, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_FIXED, memory, 0),
            MAP_FAILED);
    std::memset(buffer + bulk, 'x', tail);

    constexpr std::size_t size = bulk + 100;
    const LinuxFilePtr file = openFile("/dev/zero", O_RDONLY);
    EXPECT_EQ(file->read(size, buffer), static_cast<std::int64_t>(size));
    EXPECT_EQ(file->status(), fosOK);
    EXPECT_EQ(std::count(buffer + bulk, buffer + bulk + tail, '\0'), 100);
    EXPECT_EQ(buffer[size - 1], '\0');
    EXPECT_EQ(buffer[size], 'x');

    ::munmap(buffer, bulk + tail);
    ::close(memory);
}

// Questions about paths

TEST(FileExists, TellsFilesFromDirectories) {
    const TempDir dir;
    EXPECT_TRUE(fileExists(dir.write("f", "").c_str()));
    EXPECT_FALSE(fileExists(dir.path().c_str()));
    EXPECT_FALSE(fileExists(dir.path("none").c_str()));
    EXPECT_FALSE(fileExists(""));
    EXPECT_FALSE(fileExists(nullptr));
}

TEST(FileExists, FollowsLinks) {
    const TempDir dir;
    std::filesystem::create_symlink(dir.write("f", "abc"), dir.path("link"));
    std::filesystem::create_symlink(dir.path("none"), dir.path("dangling"));
    std::filesystem::create_symlink(dir.path(), dir.path("up"));
    EXPECT_TRUE(fileExists(dir.path("link").c_str()));
    EXPECT_FALSE(fileExists(dir.path("dangling").c_str()));
    EXPECT_FALSE(fileExists(dir.path("up").c_str()));
}

TEST(FileSize, IsZeroOnFailure) {
    const TempDir dir;
    EXPECT_EQ(fileSize(dir.write("f", "abc").c_str()), 3u);
    EXPECT_EQ(fileSize(dir.path("none").c_str()), 0u);
    EXPECT_EQ(fileSize(""), 0u);
    EXPECT_EQ(fileSize(nullptr), 0u);
}

TEST(FileSize, GoesBeyondFourGigabytes) {
    const TempDir dir;
    const std::string path = dir.write("f", "");
    ASSERT_EQ(::truncate(path.c_str(), 0x100000005), 0);
    EXPECT_EQ(fileSize(path.c_str()), 0x100000005u);
    EXPECT_EQ(File(path.c_str()).size(), 0x100000005u);
}

TEST(IsDirectory, TellsDirectoriesFromTheRest) {
    const TempDir dir;
    EXPECT_TRUE(isDirectory(dir.path().c_str()));
    EXPECT_FALSE(isDirectory(dir.write("f", "").c_str()));
    EXPECT_FALSE(isDirectory(dir.path("none").c_str()));
    EXPECT_FALSE(isDirectory(""));
    EXPECT_FALSE(isDirectory(nullptr));
}

TEST(SamePath, ComparesCanonicalForms) {
    EXPECT_TRUE(samePath("/a/b", "/a/b"));
    EXPECT_TRUE(samePath("/a/./b", "/a/c/../b"));
    EXPECT_TRUE(samePath("C:/x/y.dll", "C:\\x\\y.dll"));
    EXPECT_TRUE(samePath("x/y", "./x//y"));
    EXPECT_FALSE(samePath("/a/b", "/a/c"));
    EXPECT_FALSE(samePath("/a/b", "/a/b/"));
}

TEST(SamePath, CaseAlwaysCounts) {
    EXPECT_FALSE(samePath("/a/b", "/a/B"));
    EXPECT_FALSE(samePath("C:\\x", "c:\\x"));
}

TEST(SamePath, NullIsTheSameAsNothing) {
    EXPECT_FALSE(samePath(nullptr, "/a"));
    EXPECT_FALSE(samePath("/a", nullptr));
    EXPECT_FALSE(samePath(nullptr, nullptr));
}

TEST(SamePath, PathsThatAreNoneCompareAsEmptyTexts) {
    EXPECT_TRUE(samePath("/../a", "/../b"));
    EXPECT_FALSE(samePath("/../a", "/a"));
}

TEST(TempDirectory, IsFixed) {
    const char* before = ::getenv("TMPDIR");
    const std::string kept = before ? before : "";
    ::setenv("TMPDIR", "/somewhere/else", 1);
    std::string out = "stale";
    tempDirectory(out);
    if (before)
        ::setenv("TMPDIR", kept.c_str(), 1);
    else
        ::unsetenv("TMPDIR");
    EXPECT_EQ(out, "/tmp/");
}

class CurrentDirectoryTest : public testing::Test {
protected:
    void TearDown() override { std::filesystem::current_path(m_before); }

    const std::filesystem::path m_before = std::filesystem::current_path();
    const TempDir m_dir;
};

TEST_F(CurrentDirectoryTest, IsThatOfTheProcess) {
    std::filesystem::current_path(m_dir.path());
    std::string out = "stale";
    EXPECT_TRUE(currentDirectory(out));
    EXPECT_EQ(out, std::filesystem::current_path().string());
}

TEST_F(CurrentDirectoryTest, MayBeLongerThanAPathThatTheSystemTakes) {
    const std::string name(250, 'd');
    std::filesystem::current_path(m_dir.path());
    std::string expected = std::filesystem::current_path().string();
    for (int i = 0; i < 20; ++i) {
        ASSERT_EQ(::mkdir(name.c_str(), 0777), 0);
        ASSERT_EQ(::chdir(name.c_str()), 0);
        expected += '/' + name;
    }
    std::string out;
    EXPECT_TRUE(currentDirectory(out));
    EXPECT_EQ(out, expected);
}

TEST_F(CurrentDirectoryTest, IsEmptyWhenItIsGone) {
    const std::string gone = m_dir.makeDirectory("gone");
    std::filesystem::current_path(gone);
    std::filesystem::remove(gone);
    std::string out = "stale";
    EXPECT_FALSE(currentDirectory(out));
    EXPECT_EQ(out, "");
}

TEST_F(CurrentDirectoryTest, PathsOfChangesAreRelativeToItWhateverTheyLookLike) {
    std::filesystem::current_path(m_dir.path());
    EXPECT_EQ(makeDirectory("x/../c:d"), fosOK);
    EXPECT_TRUE(isDirectory(m_dir.path("c:d").c_str()));
    m_dir.write("c:f", "");
    EXPECT_TRUE(removeFile("c:f"));
    EXPECT_FALSE(fileExists(m_dir.path("c:f").c_str()));
}

// Changes to the file system

TEST(RemoveFile, RemovesFilesOnly) {
    const TempDir dir;
    const std::string path = dir.write("f", "abc");
    EXPECT_TRUE(removeFile(path.c_str()));
    EXPECT_FALSE(std::filesystem::exists(path));
    EXPECT_FALSE(removeFile(path.c_str()));
    EXPECT_FALSE(removeFile(dir.makeDirectory("d").c_str()));
    EXPECT_TRUE(std::filesystem::exists(dir.path("d")));
}

TEST(RemoveFile, TakesTheCanonicalPath) {
    const TempDir dir;
    dir.write("f", "abc");
    EXPECT_TRUE(removeFile(dir.path("none/../f").c_str()));
    EXPECT_FALSE(std::filesystem::exists(dir.path("f")));
}

TEST(RemoveFile, NoPathIsAFailure) {
    EXPECT_FALSE(removeFile(nullptr));
    EXPECT_FALSE(removeFile(""));
    EXPECT_FALSE(removeFile("/../none"));
}

TEST(MakeDirectory, SecondTimeItAlreadyExists) {
    const TempDir dir;
    const std::string path = dir.path("d");
    EXPECT_EQ(makeDirectory(path.c_str()), fosOK);
    EXPECT_TRUE(isDirectory(path.c_str()));
    EXPECT_EQ(makeDirectory(path.c_str()), fosAlreadyExists);
    EXPECT_EQ(makeDirectory(dir.write("f", "").c_str()), fosAlreadyExists);
}

TEST(MakeDirectory, MissingParentIsNotFound) {
    const TempDir dir;
    EXPECT_EQ(makeDirectory(dir.path("none/d").c_str()), fosNotFound);
}

TEST(MakeDirectory, EveryOtherFailureIsAnError) {
    const TempDir dir;
    const std::string file = dir.write("f", "");
    EXPECT_EQ(makeDirectory((file + "/d").c_str()), fosError);
    EXPECT_EQ(makeDirectory(dir.path(std::string(300, 'd')).c_str()), fosError);
    EXPECT_EQ(makeDirectory(nullptr), fosError);
    EXPECT_EQ(makeDirectory(""), fosError);
    EXPECT_EQ(makeDirectory("/../d"), fosError);
}

TEST(MakeDirectory, ForbiddenPlaceIsAnErrorLikeAnyOther) {
    const TempDir dir;
    const std::string parent = dir.makeDirectory("p");
    std::filesystem::permissions(parent, std::filesystem::perms::owner_read);
    const WithoutPrivilege plain;
    if (!WithoutPrivilege::holds())
        GTEST_SKIP() << "cannot act as a user without rights";
    EXPECT_EQ(makeDirectory((parent + "/d").c_str()), fosError);
}

TEST(MakeDirectory, TakesTheCanonicalPath) {
    const TempDir dir;
    EXPECT_EQ(makeDirectory(dir.path("none/../d").c_str()), fosOK);
    EXPECT_TRUE(isDirectory(dir.path("d").c_str()));
}

TEST(MakeDirectory, IsOpenToAllButForTheMask) {
    const TempDir dir;
    const std::string path = dir.path("d");
    const mode_t before = ::umask(0);
    EXPECT_EQ(makeDirectory(path.c_str()), fosOK);
    ::umask(before);
    struct stat info;
    ASSERT_EQ(::stat(path.c_str(), &info), 0);
    EXPECT_EQ(info.st_mode & 07777, 0777u);
}

TEST(RemoveDirectory, WithoutRecursionMustBeEmpty) {
    const TempDir dir;
    const std::string path = dir.makeDirectory("d");
    dir.write("d/f", "");
    EXPECT_FALSE(removeDirectory(path.c_str(), false));
    EXPECT_TRUE(fileExists(dir.path("d/f").c_str()));
    std::filesystem::remove(dir.path("d/f"));
    EXPECT_TRUE(removeDirectory(path.c_str(), false));
    EXPECT_FALSE(std::filesystem::exists(path));
}

TEST(RemoveDirectory, WithRecursionTakesAllThatIsInIt) {
    const TempDir dir;
    dir.makeDirectory("d/a/b");
    dir.makeDirectory("d/c");
    dir.write("d/f", "");
    dir.write("d/.hidden", "");
    dir.write("d/..x", "");
    dir.write("d/a/b/f", "");
    std::filesystem::create_symlink("nowhere", dir.path("d/a/dangling"));
    EXPECT_TRUE(removeDirectory(dir.path("d").c_str(), true));
    EXPECT_FALSE(std::filesystem::exists(dir.path("d")));
    EXPECT_TRUE(isDirectory(dir.path().c_str()));
}

TEST(RemoveDirectory, RemovesLinksWithoutFollowingThem) {
    const TempDir dir;
    dir.makeDirectory("kept");
    dir.write("kept/f", "abc");
    const std::string path = dir.makeDirectory("d");
    std::filesystem::create_directory_symlink(dir.path("kept"), dir.path("d/link"));
    EXPECT_TRUE(removeDirectory(path.c_str(), true));
    EXPECT_FALSE(std::filesystem::exists(path));
    EXPECT_TRUE(fileExists(dir.path("kept/f").c_str()));
}

TEST(RemoveDirectory, LinkToADirectoryIsNone) {
    const TempDir dir;
    dir.makeDirectory("kept");
    dir.write("kept/f", "abc");
    std::filesystem::create_directory_symlink(dir.path("kept"), dir.path("link"));
    EXPECT_FALSE(removeDirectory(dir.path("link").c_str(), true));
    EXPECT_TRUE(fileExists(dir.path("kept/f").c_str()));
}

TEST(RemoveDirectory, OfNoDirectoryFails) {
    const TempDir dir;
    const std::string file = dir.write("f", "");
    for (const bool recursive : {false, true}) {
        EXPECT_FALSE(removeDirectory(nullptr, recursive));
        EXPECT_FALSE(removeDirectory("", recursive));
        EXPECT_FALSE(removeDirectory(file.c_str(), recursive));
        EXPECT_FALSE(removeDirectory(dir.path("none").c_str(), recursive));
    }
    EXPECT_TRUE(fileExists(file.c_str()));
}

TEST(CopyFile, CopiesTheContents) {
    const TempDir dir;
    std::string contents;
    for (int i = 0; i < 10000; ++i)
        contents += std::to_string(i);
    const std::string from = dir.write("from", contents);
    EXPECT_TRUE(copyFile(from.c_str(), dir.path("to").c_str()));
    EXPECT_EQ(TempDir::contents(dir.path("to")), contents);
    EXPECT_EQ(TempDir::contents(from), contents);
}

TEST(CopyFile, ReplacesALongerTarget) {
    const TempDir dir;
    const std::string from = dir.write("from", "abc");
    const std::string to = dir.write("to", std::string(10000, 'x'));
    EXPECT_TRUE(copyFile(from.c_str(), to.c_str()));
    EXPECT_EQ(TempDir::contents(to), "abc");
}

TEST(CopyFile, CopiesEmptyFiles) {
    const TempDir dir;
    const std::string from = dir.write("from", "");
    const std::string to = dir.write("to", "abc");
    EXPECT_TRUE(copyFile(from.c_str(), to.c_str()));
    EXPECT_EQ(TempDir::contents(to), "");
    EXPECT_TRUE(copyFile(from.c_str(), dir.path("new").c_str()));
    EXPECT_TRUE(fileExists(dir.path("new").c_str()));
}

TEST(CopyFile, NewTargetMayBeReadAndWrittenByAll) {
    const TempDir dir;
    const std::string from = dir.write("from", "abc");
    const mode_t before = ::umask(0);
    EXPECT_TRUE(copyFile(from.c_str(), dir.path("to").c_str()));
    ::umask(before);
    struct stat info;
    ASSERT_EQ(::stat(dir.path("to").c_str(), &info), 0);
    EXPECT_EQ(info.st_mode & 07777, 0666u);
}

TEST(CopyFile, FileCopiedOntoItselfKeepsItsContents) {
    const TempDir dir;
    const std::string from = dir.write("from", "abc");
    std::filesystem::create_hard_link(from, dir.path("other"));
    EXPECT_FALSE(copyFile(from.c_str(), from.c_str()));
    EXPECT_FALSE(copyFile(from.c_str(), dir.path("other").c_str()));
    EXPECT_EQ(TempDir::contents(from), "abc");
}

TEST(CopyFile, WithoutSourceOrTargetFails) {
    const TempDir dir;
    const std::string from = dir.write("from", "abc");
    EXPECT_FALSE(copyFile(dir.path("none").c_str(), dir.path("to").c_str()));
    EXPECT_FALSE(std::filesystem::exists(dir.path("to")));
    EXPECT_FALSE(copyFile(dir.path().c_str(), dir.path("to").c_str()));
    EXPECT_FALSE(copyFile(from.c_str(), dir.path("none/to").c_str()));
    EXPECT_FALSE(copyFile(from.c_str(), dir.path().c_str()));
    EXPECT_FALSE(copyFile(nullptr, from.c_str()));
    EXPECT_FALSE(copyFile(from.c_str(), nullptr));
    EXPECT_FALSE(copyFile("", from.c_str()));
    EXPECT_FALSE(copyFile(from.c_str(), ""));
    EXPECT_EQ(TempDir::contents(from), "abc");
}

TEST(CopyFile, SourceThatIsNoFileLeavesTheTargetAlone) {
    const TempDir dir;
    const std::string to = dir.write("to", "abc");
    EXPECT_FALSE(copyFile(dir.path().c_str(), to.c_str()));
    EXPECT_FALSE(copyFile("/dev/zero", to.c_str()));
    EXPECT_EQ(TempDir::contents(to), "abc");
}

TEST(CopyFile, LeavesNoDescriptorOpen) {
    const TempDir dir;
    const std::string from = dir.write("from", "abc");
    EXPECT_TRUE(copyFile(from.c_str(), dir.path("to").c_str()));
    EXPECT_TRUE(descriptorsOn(from).empty());
    EXPECT_TRUE(descriptorsOn(dir.path("to")).empty());
}
