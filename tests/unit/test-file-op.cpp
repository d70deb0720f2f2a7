#include <gtest/gtest.h>

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
    // Makes `sub` with one file in it, closed with `mode`, inside a folder a child running
    // as nobody can enter.
    std::string Locked(const std::string& sub, mode_t mode, const std::string& text = "x") {
        chmod(dir.path().c_str(), 0755);
        WriteFile(dir / sub + "/f", text);
        chmod((dir / sub).c_str(), mode);
        return dir / sub;
    }

    testsupport::TempDir dir;
};

std::string Pattern(size_t size) {
    std::string text;
    for (size_t i = 0; i < size; ++i)
        text += static_cast<char>(i * 131 + i / 7);
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
    const std::map<std::string, int> types = {{dir / "f", 1},    {dir.path(), 2},
                                              {dir / "link", 3}, {"/dev/null", 5},
                                              {dir / "fifo", 6}, {dir / "sock", 7}};
    for (const auto& [path, type] : types) {
        _FILE_INFO_tag info;
        EXPECT_EQ(0, GetFileInfo(path, info)) << path;
        EXPECT_EQ(type, info.type) << path;
        EXPECT_TRUE(info.exists) << path;
    }
    close(sock);

    _FILE_INFO_tag missing;
    EXPECT_EQ(0, GetFileInfo(dir / "none", missing));
    EXPECT_FALSE(missing.exists);
    EXPECT_EQ("none", missing.name);

    // Beyond 2038 only the low 32 bits are kept; owner and mode do not make records differ.
    const long later = 2200000000L;
    ASSERT_EQ(0, FSUTime(dir / "f", later, later));
    _FILE_INFO_tag a, b;
    GetFileInfo(dir / "f", a);
    EXPECT_EQ(static_cast<int32_t>(later - 4294967296L), a.mtime);
    b = a;
    b.uid += 1;
    b.gid += 1;
    b.mode ^= 0777;
    EXPECT_TRUE(a == b);
    b.size += 1;
    EXPECT_TRUE(a != b);
    EXPECT_EQ("", Log());  // the plain information calls never log

    // Under an unsearchable folder: -1 and the record untouched.
    const std::string path = Locked("locked", 0600) + "/f";
    EXPECT_EQ(0, RunAsUnprivileged([&] {
                  _FILE_INFO_tag info;
                  info.name = "kept";
                  return GetFileInfo(path, info) == -1 && info.name == "kept" ? 0 : 1;
              }));
}

TEST_F(FileOpTest, PathSplittersParentTestAndRealPath) {
    const std::pair<const char*, const char*> parents[] = {
        {"", "/"}, {"a", "/"}, {"/", "/"}, {"/a/b/", "/a/b"}, {"a/b", "a"}};
    for (const auto& [path, parent] : parents)
        EXPECT_EQ(parent, FSParentPath(path)) << path;
    const std::pair<const char*, const char*> bases[] = {
        {"/a/b/", ""}, {"/", ""}, {"abc", "abc"}, {"/a/b", "b"}};
    for (const auto& [path, base] : bases)
        EXPECT_EQ(base, FSBaseName(path)) << path;
    EXPECT_TRUE(FSIsParentFolder("/a", "/a"));
    EXPECT_TRUE(FSIsParentFolder("/a", "/a/b"));
    EXPECT_FALSE(FSIsParentFolder("/a", "/ab"));
    EXPECT_FALSE(FSIsParentFolder("/", "/a"));
    EXPECT_FALSE(FSIsParentFolder("/a/", "/a/b"));

    testsupport::MakeDirs(dir / "real/sub");
    symlink((dir / "real").c_str(), (dir / "alias").c_str());
    std::string path = dir / "alias/sub/..", missing = dir / "none/..";
    EXPECT_EQ(0, FSGetRealPath(path));
    EXPECT_EQ(dir / "real", path);
    EXPECT_EQ(-1, FSGetRealPath(missing));
    EXPECT_EQ(dir / "none/..", missing);
}

TEST_F(FileOpTest, MakeFolderOneLevelChainFromRootAndTheirFailures) {
    EXPECT_EQ(-2, FSMKDir(dir / "a/b/c", false));
    EXPECT_TRUE(Logged("[ERROR] file-op.cpp(583): path = " + dir / "a/b/c" +
                       " errno : No such file or directory\n"));
    EXPECT_EQ(0, FSMKDir(dir / "a/b/c", true));
    EXPECT_EQ(0, FSMKDir(dir / "a/b/c", false));
    EXPECT_EQ(0, FSMKDir(dir / "t/u/", true));
    EXPECT_EQ(0755u, Mode(dir / "t/u"));

    WriteFile(dir / "file", "x");
    EXPECT_EQ(-1, FSMKDir(dir / "file/y", true));
    EXPECT_TRUE(Logged("FSMKDir: Failed to to file info '" + dir / "file/y" + "'\n"));
    symlink((dir / "gone").c_str(), (dir / "dangling").c_str());
    EXPECT_EQ(-2, FSMKDir(dir / "dangling/x/y", true));
    EXPECT_TRUE(Logged("path = " + dir / "dangling/x/y" + " errno : File exists\n"));
    EXPECT_FALSE(IsFileExist(dir / "gone", false));

    const std::string root = dir / "r";
    testsupport::MakeDirs(root);
    EXPECT_EQ(0, FSMKDirFromRoot(root + "/a/b", root));
    EXPECT_TRUE(IsFileExist(root + "/a/b", false));
    EXPECT_EQ(-1, FSMKDirFromRoot(root + "/a/b", root + "/"));
    EXPECT_TRUE(
        Logged("root '" + root + "/' is not a parent folder of target '" + root + "/a/b'\n"));
    EXPECT_EQ(-1, FSMKDirFromRoot(root + "/a/b", root + "/a/b/c"));
    EXPECT_TRUE(Logged("Giving a root '" + root + "/a/b/c' whose length is larger then target's '" +
                       root + "/a/b'.\n"));
}

TEST_F(FileOpTest, RemoveTreesWithoutFollowingLinks) {
    WriteFile(dir / "outside/keep", "kept");
    WriteFile(dir / "tree/sub/f", "x");
    symlink((dir / "outside").c_str(), (dir / "tree/sub/link").c_str());
    symlink((dir / "outside").c_str(), (dir / "tree/link").c_str());
    EXPECT_EQ(0, FSRemove(dir / "tree", false));
    EXPECT_FALSE(IsFileExist(dir / "tree", false));
    EXPECT_EQ("kept", ReadFile(dir / "outside/keep"));

    const std::string closed = Locked("closed", 0);
    EXPECT_EQ(0, RunAsUnprivileged([&] { return FSRemove(closed, false) == 0 ? 0 : 1; }));
    chmod(closed.c_str(), 0755);
    EXPECT_EQ("x", ReadFile(closed + "/f"));
}

TEST_F(FileOpTest, ListingWithAndWithoutInformation) {
    WriteFile(dir / "l/one", "1");
    WriteFile(dir / "l/two", "22");
    testsupport::MakeDirs(dir / "l/sub");
    DIR_HANDLE handle;
    DIR_ENTRY entry;
    for (int flags : {0, 1}) {
        ASSERT_EQ(0, FSOpenDir(dir / "l", flags, handle));
        std::map<std::string, DIR_ENTRY> seen;
        while (FSReadDir(handle, entry) == 1)
            seen[entry.name] = entry;
        FSCloseDir(handle);
        ASSERT_EQ(5u, seen.size());  // ".", ".." and the three of ours
        EXPECT_EQ(2, seen["sub"].type);
        EXPECT_EQ(1, seen["two"].type);
        EXPECT_EQ(flags ? 2 : 0, seen["two"].size);
        EXPECT_EQ(flags != 0, seen["one"].mtime != 0);
    }

    // An entry that vanishes after the listing was read is no failure: zero size and time.
    ASSERT_EQ(0, FSOpenDir(dir / "l", 1, handle));
    ASSERT_EQ(1, FSReadDir(handle, entry));
    unlink((dir / "l/one").c_str());
    unlink((dir / "l/two").c_str());
    int vanished = 0;
    while (FSReadDir(handle, entry) == 1) {
        if (entry.name == "one" || entry.name == "two")
            vanished += entry.size == 0 && entry.mtime == 0 ? 1 : 100;
    }
    FSCloseDir(handle);
    EXPECT_TRUE(vanished == 1 || vanished == 2) << vanished;
}

TEST_F(FileOpTest, CopyKeepsBytesAndChoosesTheMode) {
    const std::string big = Pattern(3 * 1024 * 1024 + 17);
    WriteFile(dir / "src", big);
    chmod((dir / "src").c_str(), 0750);
    EXPECT_EQ(0, FSCopy(dir / "src", dir / "kept", false, true));
    EXPECT_EQ(0, FSCopy(dir / "src", dir / "plain", false, false));
    EXPECT_EQ(big, ReadFile(dir / "kept"));
    EXPECT_EQ(big, ReadFile(dir / "plain"));
    EXPECT_EQ(0750u, Mode(dir / "kept"));
    EXPECT_EQ(0644u, Mode(dir / "plain"));

    // A link gives its target's bytes and, with keep_mode, its own 0777 bits (less umask).
    symlink((dir / "src").c_str(), (dir / "link").c_str());
    EXPECT_EQ(0, FSCopy(dir / "link", dir / "fromlink", false, true));
    EXPECT_EQ(big, ReadFile(dir / "fromlink"));
    EXPECT_EQ(0755u, Mode(dir / "fromlink"));

    EXPECT_EQ(0, FSCopy(dir / "plain", dir / "moved", true, false));
    EXPECT_EQ(big, ReadFile(dir / "moved"));
    EXPECT_FALSE(IsFileExist(dir / "plain", false));
}

TEST_F(FileOpTest, CopyFailuresLeaveThePartialDestination) {
    WriteFile(dir / "src", Pattern(1024 * 1024));
    EXPECT_EQ(-2, FSCopy(dir / "src", "/dev/full", false, false));
    EXPECT_EQ(ENOSPC, errno);
    EXPECT_TRUE(Logged("CopyFile: write: No space left on device (28)\n"));

    // A full small file system keeps what fitted; the mount lives only in the child.
    const std::string mnt = dir / "mnt", src = dir / "src";
    testsupport::MakeDirs(mnt);
    const int status = testsupport::RunInChild([&] {
        if (unshare(CLONE_NEWNS) != 0 ||
            mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
            mount("tmpfs", mnt.c_str(), "tmpfs", 0, "size=256k") != 0)
            return 77;
        if (FSCopy(src, mnt + "/dest", false, false) != -2)
            return 1;
        struct stat st;
        return stat((mnt + "/dest").c_str(), &st) == 0 && st.st_size > 0 && st.st_size < 1024 * 1024
                   ? 0
                   : 2;
    });
    EXPECT_TRUE(status == 0 || status == 77) << status;

    // The source goes only after a complete copy; a read-only folder keeps it: -1.
    const std::string from = Locked("ro", 0555, Pattern(50000)) + "/f", to = dir / "out/f";
    testsupport::MakeDirs(dir / "out");
    chmod((dir / "out").c_str(), 0777);
    EXPECT_EQ(0, RunAsUnprivileged([&] { return FSCopy(from, to, true, false) == -1 ? 0 : 1; }));
    EXPECT_EQ(Pattern(50000), ReadFile(to));
    EXPECT_TRUE(IsFileExist(from, false));
}

TEST_F(FileOpTest, RenameOnOneDeviceAndAcrossDevices) {
    WriteFile(dir / "a", "A");
    EXPECT_EQ(-1, FSRename("", dir / "b", false));
    EXPECT_EQ(-2, FSRename(dir / "none", dir / "b", false));
    EXPECT_EQ(-100, FSRename(dir / "a", dir / std::string(300, 'n'), false));
    EXPECT_EQ(0, FSRename(dir / "a", dir / "b", false));
    EXPECT_EQ("A", ReadFile(dir / "b"));

    testsupport::TempDir shm("/dev/shm");
    chmod((dir / "b").c_str(), 0755);
    EXPECT_EQ(0, FSRename(dir / "b", shm / "b", true));
    EXPECT_EQ("A", ReadFile(shm / "b"));
    EXPECT_EQ(0644u, Mode(shm / "b"));
    EXPECT_FALSE(IsFileExist(dir / "b", false));

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
}

TEST_F(FileOpTest, TemporaryFilesSyncLinksAndOwners) {
    std::string made;
    ASSERT_EQ(0, FSMktemp(dir.path(), made));
    EXPECT_EQ(dir.path(), FSParentPath(made));
    EXPECT_EQ(0644u, Mode(made));
    std::string name;
    EXPECT_EQ(0, FSCreateTempPath(dir.path(), name));
    EXPECT_EQ(dir.path(), FSParentPath(name));
    EXPECT_EQ(8u, FSBaseName(name).size());
    EXPECT_FALSE(IsFileExist(name, false));

    const size_t before = Log().size();
    EXPECT_EQ(1, FSFsync(dir / "none"));
    EXPECT_EQ(before, Log().size());
    EXPECT_EQ(0, FSFsync(made));

    const std::string longest(4095, 'x'), too_long(4096, 'x');
    ASSERT_EQ(0, FSCreateSymbolicLink(longest, dir / "l4095"));
    std::string target;
    EXPECT_EQ(0, FSReadSymbolicLink(dir / "l4095", target));
    EXPECT_EQ(longest, target);
    EXPECT_EQ(-1, FSCreateSymbolicLink(too_long, dir / "l4096"));
    EXPECT_TRUE(Logged("FSCreateSymbolicLink: Failed to create symbolic link '" + too_long +
                       "' -> '" + dir / "l4096" + "' (code: 36, msg: File name too long)\n"));

    // Owner of the link itself, not of its target.
    ASSERT_EQ(0, FSChown(dir / "l4095", 65534, 65534));
    _FILE_INFO_tag info;
    GetFileInfo(dir / "l4095", info);
    EXPECT_EQ(65534u, info.uid);
    EXPECT_EQ(-1, FSChown(dir / "none", 0, 0));
    EXPECT_EQ(0, FSChmod(made, 0600));
    EXPECT_EQ(0600u, Mode(made));
    EXPECT_EQ(-1, FSChmod(dir / "none", 0600));
    EXPECT_TRUE(Logged("FSChmod: Failed to chmod '" + dir / "none" +
                       "' (code: 2, msg: No such file or directory)\n"));
}

}  // namespace
