#include <set>

#include "lib/file/file-op.h"
#include "tests/support/test-support.h"

using namespace testsupport;

static mode_t Mode(const std::string& path) {
    struct stat st;
    return stat(path.c_str(), &st) == 0 ? (st.st_mode & 07777) : 0;
}

// A fresh folder that a child running as nobody may enter.
class FileOpTest : public ::testing::Test {
protected:
    void SetUp() override {
        umask(022);
        chmod(dir.path().c_str(), 0755);
    }
    TempDir dir;
};

// The source goes only after a complete copy; what a failed copy wrote stays for the caller.
TEST_F(FileOpTest, Copy) {
    std::string bytes(1024 * 1024 + 17, 'x');
    for (size_t i = 0; i < bytes.size(); ++i)
        bytes[i] = static_cast<char>(i * 131 + i / 7);
    const std::string src = dir / "src", ro = dir / "ro/src", none = dir / "none";
    WriteFile(src, bytes);
    WriteFile(ro, bytes);
    chmod(src.c_str(), 0750);
    chmod((dir / "ro").c_str(), 0555);
    ASSERT_EQ(0, symlink(src.c_str(), (dir / "link").c_str()));
    mkfifo((dir / "fifo").c_str(), 0600);  // must fail at once, not wait for a writer
    // from, to, remove the source, keep its mode, run as nobody; result, mode of the copy
    const std::tuple<std::string, std::string, bool, bool, bool, int, mode_t> cases[] = {
        {src, dir / "plain", false, false, false, 0, 0644},
        {src, dir / "kept", false, true, false, 0, 0750},
        {dir / "link", dir / "fromlink", false, true, false, 0, 0755},  // the link's 0777
        {dir / "plain", dir / "moved", true, false, false, 0, 0644},
        {none, dir / "x", false, false, false, -1, 0},
        {src, none + "/x", false, false, false, -1, 0},
        {dir / "fifo", dir / "fromfifo", false, false, false, -1, 0},
        {src, "/dev/full", false, false, false, -2, 0666},
        {ro, dir / "ro-copy", true, false, true, -1, 0644}};
    chmod(dir.path().c_str(), 0777);
    for (const auto& [from, to, remove, keep, nobody, want, mode] : cases) {
        const bool existed = IsFileExist(from, false);
        errno = 0;
        const int rc =
            nobody
                ? static_cast<int8_t>(RunAsUnprivileged(std::bind(FSCopy, from, to, remove, keep)))
                : FSCopy(from, to, remove, keep);
        EXPECT_EQ(want, rc) << to;
        EXPECT_EQ(want == -2 ? ENOSPC : errno, errno) << to;
        EXPECT_EQ(mode, Mode(to)) << to;
        EXPECT_EQ(existed && (rc != 0 || !remove), IsFileExist(from, false)) << to;
        if (to != "/dev/full") {  // which reads as endless zeros
            EXPECT_EQ(mode ? bytes : "", ReadFile(to)) << to;
        }
    }
}

TEST_F(FileOpTest, Rename) {
    TempDir shm("/dev/shm");
    WriteFile(dir / "a", "A");
    chmod((dir / "a").c_str(), 0755);
    WriteFile(dir / "tree/x/y/deep", std::string(70000, 'd'));
    MakeDirs(dir / "tree/x/empty");
    ASSERT_EQ(0, symlink("anything", (dir / "link").c_str()));
    // from, to, a file inside that must arrive unchanged, result
    const std::tuple<std::string, std::string, std::string, int> cases[] = {
        {"", dir / "b", "", -1},
        {dir / "none", dir / "b", "", -2},
        {dir / "a", dir / std::string(300, 'n'), "", -100},
        {dir / "a", dir / "b", "", 0},
        {dir / "b", shm / "b", "", 0},  // across devices: copied as 0644
        {dir / "tree", shm / "tree", "/x/y/deep", 0},
        {dir / "link", shm / "link", "", -3}};  // links never move across
    for (const auto& [from, to, part, rc] : cases) {
        const std::string bytes = ReadFile(from + part);
        EXPECT_EQ(rc, FSRename(from, to, false)) << to;
        EXPECT_EQ(rc == 0 ? bytes : "", ReadFile(to + part)) << to;
        EXPECT_EQ(rc == -100 || rc == -3, IsFileExist(from, false)) << to;
    }
    EXPECT_EQ(0644u, Mode(shm / "b"));
    EXPECT_TRUE(IsFileExist(shm / "tree/x/empty", false));
}

TEST_F(FileOpTest, Folders) {
    WriteFile(dir / "file", "x");
    ASSERT_EQ(0, symlink((dir / "gone").c_str(), (dir / "dangling").c_str()));
    // A path, whether the whole chain is made, the result.
    const std::tuple<std::string, bool, int> made[] = {{"a/b", false, -2},
                                                       {"a/b/c/", true, 0},
                                                       {"file/y", true, -1},
                                                       {"file", true, -1},
                                                       {"dangling/x", true, -2}};
    for (const auto& [path, chain, rc] : made)
        EXPECT_EQ(rc, FSMKDir(dir / path, chain)) << path;
    EXPECT_EQ(0, FSMKDir(dir / "a/b/c", false));
    EXPECT_EQ(0755u, Mode(dir / "a/b/c"));
    EXPECT_FALSE(IsFileExist(dir / "gone", false));

    // Asked for, each entry carries its size and time; the type is the listing's own.
    WriteFile(dir / "a/two", "22");
    DIR_HANDLE handle;
    DIR_ENTRY e;
    std::set<std::string> seen;
    ASSERT_EQ(0, FSOpenDir(dir / "a", 1, handle));
    while (FSReadDir(handle, e) == 1)
        seen.insert(e.name + std::to_string(e.type) +
                    std::to_string(e.type == FS_TYPE_FOLDER ? e.size > 0 : e.size) +
                    (e.mtime ? "t" : ""));
    FSCloseDir(handle);
    EXPECT_EQ(0, FSReadDir(handle, e));
    EXPECT_EQ(std::set<std::string>({".21t", "..21t", "b21t", "two12t"}), seen);

    // Removal never follows a link; a folder nobody may read is left alone, and that is no failure.
    WriteFile(dir / "outside/keep", "kept");
    ASSERT_EQ(0, symlink((dir / "outside").c_str(), (dir / "a/b/link").c_str()));
    EXPECT_EQ(0, FSRemove(dir / "a", false));
    EXPECT_FALSE(IsFileExist(dir / "a", false));
    EXPECT_EQ("kept", ReadFile(dir / "outside/keep"));
    chmod((dir / "outside").c_str(), 0);
    EXPECT_EQ(0, RunAsUnprivileged([&] { return -FSRemove(dir / "outside", false); }));
}

// A subfolder that cannot be opened midway: the walks go past it, the removal keeps it.
TEST_F(FileOpTest, WalkPastASubfolderThatCannotBeOpened) {
    WriteFile(dir / "w/closed/file", "x");
    WriteFile(dir / "w/open", "x");
    chmod((dir / "w").c_str(), 0777);
    chmod((dir / "w/closed").c_str(), 0);
    EXPECT_EQ(1, RunAsUnprivileged([&] { return FSCountFiles(dir / "w"); }));
    EXPECT_EQ(3, RunAsUnprivileged([&] { return -FSRemove(dir / "w", false); }));
    EXPECT_FALSE(IsFileExist(dir / "w/open", false));
    EXPECT_TRUE(IsFileExist(dir / "w/closed/file", false));
}

// A missing file needs no sync, but a missing file system cannot be synced.
TEST_F(FileOpTest, SyncOfAMissingPath) {
    EXPECT_EQ(1, FSFsync(dir / "none"));
    EXPECT_EQ(-1, FSSyncFs(dir / "none"));
}

// Owner and mode do not tell two records of a file apart; its name does.
TEST(FileInfo, EqualityLeavesOutOwnerAndMode) {
    _FILE_INFO_tag a, b;
    a.path = b.path = "/p";
    b.uid = 1;
    b.mode = 0600;
    EXPECT_TRUE(a == b);
    b.name = "other";
    EXPECT_TRUE(a != b);
}
