#include <gtest/gtest.h>

#include <fcntl.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <map>
#include <string>

#include "lib/file/file-op.h"
#include "log/log.h"
#include "tests/support/test-support.h"

using testsupport::ReadFile;
using testsupport::RunAsUnprivileged;
using testsupport::WriteFile;

namespace {

// Every test gets a fresh folder and a log file that takes every level of the layer.
class FileOpTest : public ::testing::Test {
protected:
    void SetUp() override {
        umask(022);
        ASSERT_TRUE(WriteFile(dir / "levels", "file_op_debug = 7\n"));
        ASSERT_EQ(0, Logger::Initialize(Logger::TYPE_FILE, dir / "op.log", dir / "levels", 50,
                                        Logger::SCOPE_THREAD));
    }
    void TearDown() override { Logger::Destroy(); }

    std::string Log() const { return ReadFile(dir / "op.log"); }
    bool Logged(const std::string& text) const { return Log().find(text) != std::string::npos; }
    static mode_t Mode(const std::string& path) {
        struct stat st;
        return stat(path.c_str(), &st) == 0 ? (st.st_mode & 07777) : 0xFFFF;
    }
    // The folder must be enterable for a child that runs as nobody.
    void OpenForChildren() { chmod(dir.path().c_str(), 0755); }

    testsupport::TempDir dir;
};

std::string Pattern(size_t size) {
    std::string text(size, '\0');
    for (size_t i = 0; i < size; ++i)
        text[i] = static_cast<char>((i * 131 + i / 7) & 0xFF);
    return text;
}

TEST_F(FileOpTest, InformationGivesTypeCodesAndKeepsLinksUnfollowed) {
    WriteFile(dir / "f", "12345");
    symlink(dir.path().c_str(), (dir / "link").c_str());
    mkfifo((dir / "fifo").c_str(), 0600);
    int sock = socket(AF_UNIX, SOCK_STREAM, 0);
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    snprintf(addr.sun_path, sizeof(addr.sun_path), "%s", (dir / "sock").c_str());
    ASSERT_EQ(0, bind(sock, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)));

    struct Case {
        std::string path;
        int type;
    } cases[] = {{dir / "f", 1},   {dir.path(), 2},   {dir / "link", 3},
                 {"/dev/null", 5}, {dir / "fifo", 6}, {dir / "sock", 7}};
    for (const Case& c : cases) {
        _FILE_INFO_tag info;
        EXPECT_EQ(0, GetFileInfo(c.path, info)) << c.path;
        EXPECT_EQ(c.type, info.type) << c.path;
        EXPECT_TRUE(info.exists);
        EXPECT_EQ(c.path, info.path);
        EXPECT_EQ(FSBaseName(c.path), info.name);
    }
    close(sock);
    _FILE_INFO_tag link;
    GetFileInfo(dir / "link", link);
    EXPECT_EQ(static_cast<int64_t>(dir.path().size()), link.size);

    _FILE_INFO_tag missing;
    missing.size = 99;
    EXPECT_EQ(0, GetFileInfo(dir / "none", missing));
    EXPECT_FALSE(missing.exists);
    EXPECT_EQ(0, missing.type);
    EXPECT_EQ(0, missing.size);
    EXPECT_EQ("none", missing.name);
    EXPECT_EQ(0, FSStat(dir / "none", missing, true));
    EXPECT_EQ(-1, FSStat("", missing, true));
    EXPECT_FALSE(IsFileExist(dir / "none", false));
    EXPECT_FALSE(IsFileExist("", false));
    EXPECT_TRUE(hasFilePermission(dir / "none", 4));

    // Beyond 2038 only the low 32 bits are kept (2039 reads as a negative number).
    const long later = 2200000000L;
    ASSERT_EQ(0, FSUTime(dir / "f", later, later));
    _FILE_INFO_tag a, b;
    GetFileInfo(dir / "f", a);
    EXPECT_EQ(static_cast<int32_t>(later - 4294967296L), a.mtime);
    b = a;
    b.uid += 1;
    b.gid += 1;
    b.mode ^= 0777;
    b.dev += 1;
    EXPECT_TRUE(a == b);
    b.size += 1;
    EXPECT_TRUE(a != b);
    EXPECT_EQ(-1, FSUTime(dir / "none", 0, 0));
    EXPECT_EQ("", Log());  // the plain information calls never log
}

TEST_F(FileOpTest, InformationUnderAnUnsearchableFolderFailsAndLeavesTheRecord) {
    OpenForChildren();
    WriteFile(dir / "locked/f", "x");
    chmod((dir / "locked").c_str(), 0600);
    const std::string path = dir / "locked/f";
    EXPECT_EQ(0, RunAsUnprivileged([&] {
                  _FILE_INFO_tag info;
                  info.name = "kept";
                  if (GetFileInfo(path, info) != -1 || info.name != "kept")
                      return 1;
                  if (FSStat(path, info, false) != -2 || IsFileExist(path, true))
                      return 2;
                  if (!isFileLocked(path, 4) || hasFilePermission(path, 4))
                      return 3;
                  return 0;
              }));
}

TEST_F(FileOpTest, PathSplittersParentTestAndRealPath) {
    for (const char* path : {"", "a", "/a", "/"})
        EXPECT_EQ("/", FSParentPath(path)) << path;
    EXPECT_EQ("/a/b", FSParentPath("/a/b/"));
    EXPECT_EQ("a", FSParentPath("a/b"));
    EXPECT_EQ("", FSBaseName("/a/b/"));
    EXPECT_EQ("", FSBaseName("/"));
    EXPECT_EQ("abc", FSBaseName("abc"));
    EXPECT_EQ("b", FSBaseName("/a/b"));

    EXPECT_TRUE(FSIsParentFolder("/a", "/a"));
    EXPECT_TRUE(FSIsParentFolder("/a", "/a/b"));
    EXPECT_FALSE(FSIsParentFolder("/a", "/ab"));
    EXPECT_FALSE(FSIsParentFolder("/", "/a"));
    EXPECT_FALSE(FSIsParentFolder("/a/", "/a/b"));
    EXPECT_FALSE(FSIsParentFolder("/a/b", "/a"));

    testsupport::MakeDirs(dir / "real/sub");
    symlink((dir / "real").c_str(), (dir / "alias").c_str());
    std::string path = dir / "alias/sub/..";
    EXPECT_EQ(0, FSGetRealPath(path));
    EXPECT_EQ(dir / "real", path);
    EXPECT_TRUE(Logged("):  org path [" + dir / "alias/sub/..]\n"));
    EXPECT_TRUE(Logged("):  get full path [" + dir / "real]\n"));
    std::string missing = dir / "none/..";
    EXPECT_EQ(-1, FSGetRealPath(missing));
    EXPECT_EQ(dir / "none/..", missing);

    EXPECT_FALSE(isMountPoint(dir.path()));
    EXPECT_FALSE(IsMSDOS(dir.path()));
    EXPECT_FALSE(isMountPoint(dir / "none"));
    EXPECT_FALSE(IsMSDOS(dir / "none"));
    EXPECT_TRUE(Logged("isMountPoint: Failed to get file system info '" + dir / "none" +
                       "'. No such file or directory\n"));
    EXPECT_TRUE(Logged("IsSupportLargeFile: Failed to get file system info '" + dir / "none"));
}

TEST_F(FileOpTest, MakeFolderOneLevelChainAndTheirFailures) {
    EXPECT_EQ(-2, FSMKDir(dir / "a/b/c", false));
    EXPECT_TRUE(Logged("[ERROR] file-op.cpp(583): path = " + dir / "a/b/c" +
                       " errno : No such file or directory\n"));
    EXPECT_EQ(0, FSMKDir(dir / "a/b/c", true));
    EXPECT_TRUE(IsFileExist(dir / "a/b/c", false));
    EXPECT_EQ(0, FSMKDir(dir / "a/b/c", false));
    EXPECT_EQ(0, FSMKDir(dir / "a/b/c", true));
    EXPECT_EQ(0, FSMKDir(dir / "t/u/", true));
    EXPECT_EQ(2, [&] {
        _FILE_INFO_tag info;
        GetFileInfo(dir / "t/u", info);
        return info.type;
    }());
    EXPECT_EQ(-1, FSMKDir("", true));

    WriteFile(dir / "file", "x");
    symlink((dir / "a").c_str(), (dir / "tofolder").c_str());
    EXPECT_EQ(-1, FSMKDir(dir / "file", true));
    EXPECT_TRUE(Logged("FSMKDir: Create a folder but local file system is not directory '" +
                       dir / "file" + "' (1)\n"));
    EXPECT_EQ(-1, FSMKDir(dir / "tofolder", false));
    EXPECT_TRUE(Logged("not directory '" + dir / "tofolder" + "' (3)\n"));
    EXPECT_EQ(-1, FSMKDir(dir / "file/y", true));
    EXPECT_TRUE(Logged("FSMKDir: Failed to to file info '" + dir / "file/y" + "'\n"));

    symlink((dir / "gone").c_str(), (dir / "dangling").c_str());
    EXPECT_EQ(-2, FSMKDir(dir / "dangling/x/y", true));
    EXPECT_TRUE(Logged("path = " + dir / "dangling/x/y" + " errno : File exists\n"));
    EXPECT_FALSE(IsFileExist(dir / "gone", false));
}

TEST_F(FileOpTest, MakeFolderFromRootChecksTheRoot) {
    const std::string root = dir / "r";
    testsupport::MakeDirs(root);
    EXPECT_EQ(0, FSMKDirFromRoot(root + "/a/b", root));
    EXPECT_TRUE(IsFileExist(root + "/a/b", false));
    EXPECT_TRUE(Logged("[DEBUG] file-op.cpp(618): FSMKDirFromRoot: create /a\n"));
    EXPECT_TRUE(Logged("FSMKDirFromRoot: create /a/b\n"));
    EXPECT_EQ(0, FSMKDirFromRoot(root, root));

    EXPECT_EQ(-1, FSMKDirFromRoot(root + "/a/b", root + "/"));
    EXPECT_TRUE(
        Logged("root '" + root + "/' is not a parent folder of target '" + root + "/a/b'\n"));
    EXPECT_EQ(-1, FSMKDirFromRoot(root + "/a/b", root + "/a/b/c"));
    EXPECT_TRUE(Logged("Giving a root '" + root + "/a/b/c' whose length is larger then target's '" +
                       root + "/a/b'.\n"));
    WriteFile(root + "/file", "x");
    EXPECT_EQ(-1, FSMKDirFromRoot(root + "/file/z", root));
}

TEST_F(FileOpTest, RemoveTreesWithoutFollowingLinks) {
    WriteFile(dir / "outside/keep", "kept");
    WriteFile(dir / "tree/sub/f", "x");
    symlink((dir / "outside").c_str(), (dir / "tree/sub/link").c_str());
    symlink((dir / "outside").c_str(), (dir / "tree/link").c_str());
    mkfifo((dir / "tree/fifo").c_str(), 0600);
    const size_t before = Log().size();
    EXPECT_EQ(0, FSRemove(dir / "tree", false));
    EXPECT_FALSE(IsFileExist(dir / "tree", false));
    EXPECT_EQ("kept", ReadFile(dir / "outside/keep"));
    EXPECT_EQ(0, FSRemove(dir / "tree", true));
    EXPECT_EQ(-1, FSRemove("", false));
    EXPECT_EQ(before, Log().size());  // removal is silent

    OpenForChildren();
    WriteFile(dir / "closed/f", "x");
    chmod((dir / "closed").c_str(), 0);
    const std::string closed = dir / "closed";
    EXPECT_EQ(0, RunAsUnprivileged([&] { return FSRemove(closed, false) == 0 ? 0 : 1; }));
    chmod(closed.c_str(), 0755);
    EXPECT_EQ("x", ReadFile(dir / "closed/f"));
    // Entries the caller may not remove stop the removal with -3.
    WriteFile(dir / "ro/f", "x");
    chmod((dir / "ro").c_str(), 0555);
    const std::string ro = dir / "ro";
    EXPECT_EQ(0, RunAsUnprivileged([&] { return FSRemove(ro, false) == -3 ? 0 : 1; }));
}

TEST_F(FileOpTest, ListingWithAndWithoutInformation) {
    WriteFile(dir / "l/one", "1");
    WriteFile(dir / "l/two", "22");
    testsupport::MakeDirs(dir / "l/sub");
    for (int flags : {0, 1}) {
        DIR_HANDLE handle;
        ASSERT_EQ(0, FSOpenDir(dir / "l", flags, handle));
        EXPECT_EQ(dir / "l", handle.path);
        std::map<std::string, DIR_ENTRY> seen;
        DIR_ENTRY entry;
        while (FSReadDir(handle, entry) == 1)
            seen[entry.name] = entry;
        ASSERT_EQ(5u, seen.size());  // ".", ".." and the three of ours
        EXPECT_EQ(2, seen["."].type);
        EXPECT_EQ(2, seen["sub"].type);
        EXPECT_EQ(1, seen["two"].type);
        EXPECT_EQ(flags ? 2 : 0, seen["two"].size);
        EXPECT_EQ(flags ? 1 : 0, seen["one"].size);
        EXPECT_EQ(flags != 0, seen["one"].mtime != 0);
        FSCloseDir(handle);
        EXPECT_EQ(nullptr, handle.dir);
        EXPECT_EQ("", handle.path);
        EXPECT_EQ(flags, handle.flags);
    }
    DIR_HANDLE handle;
    handle.path = "untouched";
    EXPECT_EQ(-1, FSOpenDir(dir / "none", 0, handle));
    EXPECT_EQ("untouched", handle.path);
    EXPECT_TRUE(Logged("[ERROR] file-op.cpp(752): FSOpenDir: Failed to open directory '" +
                       dir / "none" + "'. No such file or directory\n"));

    // An entry that vanishes after the listing was read is a missing path, which is no failure
    // of the information call: it comes back with zero size and time.
    ASSERT_EQ(0, FSOpenDir(dir / "l", 1, handle));
    DIR_ENTRY entry;
    ASSERT_EQ(1, FSReadDir(handle, entry));
    FSRemove(dir / "l/one", false);
    FSRemove(dir / "l/two", false);
    int vanished = 0;
    while (FSReadDir(handle, entry) == 1) {
        if (entry.name == "one" || entry.name == "two") {
            ++vanished;
            EXPECT_EQ(0, entry.size);
            EXPECT_EQ(0, entry.mtime);
        }
    }
    FSCloseDir(handle);
    EXPECT_GE(vanished, 1);

    // Information that cannot be read: the folder is readable but not searchable.
    OpenForChildren();
    WriteFile(dir / "noexec/f", "x");
    chmod((dir / "noexec").c_str(), 0744);
    const std::string noexec = dir / "noexec";
    EXPECT_EQ(0, RunAsUnprivileged([&] {
                  DIR_HANDLE h;
                  if (FSOpenDir(noexec, 1, h) != 0)
                      return 1;
                  DIR_ENTRY e;
                  e.name = "kept";
                  int result = FSReadDir(h, e);
                  FSCloseDir(h);
                  return result == -1 && e.name == "kept" ? 0 : 2;
              }));
    EXPECT_TRUE(
        Logged("[ERROR] file-op.cpp(780): FSOpenDir: Failed to get info for '" + noexec + "/"));
}

TEST_F(FileOpTest, CopyKeepsBytesAndChoosesTheMode) {
    const std::string big = Pattern(3 * 1024 * 1024 + 17);
    WriteFile(dir / "src", big);
    chmod((dir / "src").c_str(), 0750);
    WriteFile(dir / "empty", "");
    EXPECT_EQ(0, FSCopy(dir / "src", dir / "kept", false, true));
    EXPECT_EQ(0, FSCopy(dir / "src", dir / "plain", false, false));
    EXPECT_EQ(0, FSCopy(dir / "empty", dir / "empty2", false, false));
    EXPECT_EQ(big, ReadFile(dir / "kept"));
    EXPECT_EQ(big, ReadFile(dir / "plain"));
    EXPECT_EQ("", ReadFile(dir / "empty2"));
    EXPECT_EQ(0750u, Mode(dir / "kept"));
    EXPECT_EQ(0644u, Mode(dir / "plain"));

    // A link gives its target's bytes and, with keep_mode, its own 0777 bits (less umask).
    symlink((dir / "src").c_str(), (dir / "link").c_str());
    EXPECT_EQ(0, FSCopy(dir / "link", dir / "fromlink", false, true));
    EXPECT_EQ(big, ReadFile(dir / "fromlink"));
    EXPECT_EQ(0755u, Mode(dir / "fromlink"));

    WriteFile(dir / "long", "a longer text that gets overwritten");
    EXPECT_EQ(0, FSCopy(dir / "empty", dir / "long", true, false));
    EXPECT_EQ("", ReadFile(dir / "long"));
    EXPECT_FALSE(IsFileExist(dir / "empty", false));
    EXPECT_EQ("", Log());

    EXPECT_EQ(-1, FSCopy(dir / "none", dir / "x", false, false));
    EXPECT_TRUE(Logged("CopyFile: open(" + dir / "none" + "): No such file or directory (2)\n"));
    EXPECT_EQ(-1, FSCopy(dir / "src", dir / "no/x", false, false));
    EXPECT_TRUE(Logged("CopyFile: open(" + dir / "no/x" + "): No such file or directory (2)\n"));
}

TEST_F(FileOpTest, CopyFailuresLeaveThePartialDestination) {
    WriteFile(dir / "src", Pattern(100000));
    EXPECT_EQ(-2, FSCopy(dir / "src", "/dev/full", false, false));
    EXPECT_EQ(ENOSPC, errno);
    EXPECT_TRUE(Logged("CopyFile: write: No space left on device (28)\n"));

    // A read failure after the destination was opened: it stays, truncated.
    WriteFile(dir / "dest", "old contents");
    EXPECT_EQ(-1, FSCopy(dir.path(), dir / "dest", false, false));
    EXPECT_TRUE(Logged("CopyFile: read: Is a directory (21)\n"));
    EXPECT_EQ("", ReadFile(dir / "dest"));

    // The source goes only after a complete copy; a read-only folder keeps it: -1.
    OpenForChildren();
    WriteFile(dir / "ro/f", Pattern(50000));
    chmod((dir / "ro").c_str(), 0555);
    testsupport::MakeDirs(dir / "out");
    chmod((dir / "out").c_str(), 0777);
    const std::string from = dir / "ro/f", to = dir / "out/f";
    EXPECT_EQ(0, RunAsUnprivileged([&] { return FSCopy(from, to, true, false) == -1 ? 0 : 1; }));
    EXPECT_EQ(Pattern(50000), ReadFile(to));
    EXPECT_TRUE(IsFileExist(from, false));
}

TEST_F(FileOpTest, CopyIntoAFullFileSystemTruncates) {
    // A small private file system; the mount lives only in the child's own namespace.
    const std::string mnt = dir / "mnt";
    testsupport::MakeDirs(mnt);
    WriteFile(dir / "src", Pattern(1024 * 1024));
    const std::string src = dir / "src";
    const int status = testsupport::RunInChild([&] {
        if (unshare(CLONE_NEWNS) != 0 ||
            mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
            mount("tmpfs", mnt.c_str(), "tmpfs", 0, "size=256k") != 0)
            return 77;
        if (FSCopy(src, mnt + "/dest", false, false) != -2)
            return 1;
        struct stat st;
        if (stat((mnt + "/dest").c_str(), &st) != 0)
            return 2;
        return st.st_size > 0 && st.st_size < 1024 * 1024 ? 0 : 3;
    });
    if (status == 77)
        GTEST_SKIP() << "no private mounts here";
    EXPECT_EQ(0, status);
}

TEST_F(FileOpTest, RenameOnOneDeviceAndAcrossDevices) {
    WriteFile(dir / "a", "A");
    EXPECT_EQ(-1, FSRename("", dir / "b", false));
    EXPECT_EQ(-1, FSRename(dir / "a", "", false));
    EXPECT_EQ(-2, FSRename(dir / "none", dir / "b", false));
    EXPECT_EQ(-100, FSRename(dir / "a", dir / std::string(300, 'n'), false));
    EXPECT_EQ(-3, FSRename(dir / "a", dir / "no/b", false));
    EXPECT_EQ(0, FSRename(dir / "a", dir / "b", false));
    EXPECT_EQ("A", ReadFile(dir / "b"));
    EXPECT_EQ("", Log());

    testsupport::TempDir shm("/dev/shm");
    chmod((dir / "b").c_str(), 0755);
    EXPECT_EQ(0, FSRename(dir / "b", shm / "b", true));
    EXPECT_EQ("A", ReadFile(shm / "b"));
    EXPECT_EQ(0644u, Mode(shm / "b"));
    EXPECT_FALSE(IsFileExist(dir / "b", false));
    EXPECT_TRUE(Logged("[DEBUG] file-op.cpp(") &&
                Logged("): rename failed: " + dir / "b" + " -> " + shm / "b" +
                       ", Invalid cross-device link (18)\n"));

    WriteFile(dir / "tree/top", "1");
    WriteFile(dir / "tree/x/y/deep", Pattern(70000));
    testsupport::MakeDirs(dir / "tree/x/empty");
    EXPECT_EQ(0, FSRename(dir / "tree", shm / "tree", false));
    EXPECT_EQ("1", ReadFile(shm / "tree/top"));
    EXPECT_EQ(Pattern(70000), ReadFile(shm / "tree/x/y/deep"));
    EXPECT_TRUE(IsFileExist(shm / "tree/x/empty", false));
    EXPECT_FALSE(IsFileExist(dir / "tree", false));

    symlink("anything", (dir / "link").c_str());
    EXPECT_EQ(-3, FSRename(dir / "link", shm / "link", false));
    EXPECT_TRUE(IsFileExist(dir / "link", false));
    // A tree holding a link is moved up to the link and then stops, split in two.
    WriteFile(dir / "mixed/f", "f");
    symlink("anything", (dir / "mixed/link").c_str());
    EXPECT_EQ(-3, FSRename(dir / "mixed", shm / "mixed", false));
    EXPECT_TRUE(IsFileExist(dir / "mixed/link", false));
}

TEST_F(FileOpTest, TemporaryFilesSyncLinksAndOwners) {
    std::string made;
    ASSERT_EQ(0, FSMktemp(dir.path(), made));
    EXPECT_EQ(dir.path(), FSParentPath(made));
    EXPECT_EQ(6u, FSBaseName(made).size());
    EXPECT_EQ(0644u, Mode(made));
    EXPECT_EQ("", ReadFile(made));
    EXPECT_EQ(-1, FSMktemp(dir / "none", made));
    EXPECT_TRUE(Logged("mkstemp(" + dir / "none/XXXXXX): No such file or directory\n"));

    std::string name;
    EXPECT_EQ(0, FSCreateTempPath(dir.path(), name));
    EXPECT_EQ(dir.path() + "/", name.substr(0, dir.path().size() + 1));
    EXPECT_EQ(8u, FSBaseName(name).size());
    EXPECT_FALSE(IsFileExist(name, false));

    const size_t before = Log().size();
    EXPECT_EQ(1, FSFsync(dir / "none"));
    EXPECT_EQ(before, Log().size());
    EXPECT_EQ(0, FSFsync(made));
    EXPECT_EQ(-1, FSFsync(made + "/x"));
    EXPECT_TRUE(Logged("FSFsync: open(" + made + "/x): Not a directory (20)\n"));

    const std::string longest(4095, 'x'), too_long(4096, 'x');
    std::string target;
    ASSERT_EQ(0, FSCreateSymbolicLink(longest, dir / "l4095"));
    EXPECT_EQ(0, FSReadSymbolicLink(dir / "l4095", target));
    EXPECT_EQ(longest, target);
    EXPECT_EQ(-1, FSCreateSymbolicLink(too_long, dir / "l4096"));
    EXPECT_TRUE(Logged("FSCreateSymbolicLink: Failed to create symbolic link '" + too_long +
                       "' -> '" + dir / "l4096" + "' (code: 36, msg: File name too long)\n"));
    target = "kept";
    EXPECT_EQ(-1, FSReadSymbolicLink(made, target));
    EXPECT_EQ("kept", target);
    EXPECT_TRUE(Logged("FSReadSymbolicLink: Failed to read symbolic link '" + made +
                       "' (code: 22, msg: Invalid argument)\n"));

    // Owner of the link itself, not of its target.
    ASSERT_EQ(0, FSChown(dir / "l4095", 65534, 65534));
    _FILE_INFO_tag info;
    GetFileInfo(dir / "l4095", info);
    EXPECT_EQ(65534u, info.uid);
    GetFileInfo(made, info);
    EXPECT_EQ(0u, info.uid);
    EXPECT_EQ(-1, FSChown(dir / "none", 0, 0));
    EXPECT_TRUE(Logged("FSChown: Failed to chown '" + dir / "none" +
                       "' (code: 2, msg: No such file or directory)\n"));
    EXPECT_EQ(0, FSChmod(made, 0600));
    EXPECT_EQ(0600u, Mode(made));
    EXPECT_EQ(-1, FSChmod(dir / "none", 0600));
    EXPECT_TRUE(Logged("FSChmod: Failed to chmod '" + dir / "none" +
                       "' (code: 2, msg: No such file or directory)\n"));
}

}  // namespace
