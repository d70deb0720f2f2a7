#include "lib/file/file-op.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/statfs.h>
#include <sys/time.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>

#include "log/log.h"
#include "log/tmp-name-gen.h"

namespace {

const char kComponent[] = "file_op_debug";

// File-system magic numbers the probes recognise.
const uint32_t kNfsMagic = 0x6969;
const uint32_t kSmbMagic = 0xFF534D42;
const uint32_t kFuseMagic = 0x65735546;
const uint32_t kMsdosMagic = 0x4D44;

// Largest piece handed to the kernel's in-file-system copy in one call.
const size_t kKernelCopyChunk = 1u << 30;
// Buffer of the read/write loop, taken from the heap once per copy; the small stack buffer is
// the fallback when the heap has nothing to give.
const size_t kCopyBuffer = 256 * 1024;
const size_t kSmallCopyBuffer = 8192;

}  // namespace

// Logs a line of this layer. The level table is asked first (inside LOG_AT), so a suppressed
// line costs no formatting, and errno is given back afterwards: callers read the reason of a
// failure from it, whatever the logger's own calls did.
#define FS_LOG_AT(LEVEL, line, fmt, ...)                     \
    do {                                                     \
        const int fs_saved_errno = errno;                    \
        LOG_AT(LEVEL, kComponent, line, fmt, ##__VA_ARGS__); \
        errno = fs_saved_errno;                              \
    } while (0)
#define FS_LOG(LEVEL, fmt, ...) FS_LOG_AT(LEVEL, __LINE__, fmt, ##__VA_ARGS__)

namespace {

// Type code of a mode word, or -1 for type bits the layer does not know.
int TypeFromMode(uint32_t mode) {
    switch (mode & S_IFMT) {
        case S_IFREG:
            return FS_TYPE_FILE;
        case S_IFDIR:
            return FS_TYPE_FOLDER;
        case S_IFCHR:
        case S_IFBLK:
            return FS_TYPE_DEVICE;
        case S_IFLNK:
            return FS_TYPE_LINK;
        case S_IFIFO:
            return FS_TYPE_FIFO;
        case S_IFSOCK:
            return FS_TYPE_SOCKET;
        default:
            return -1;
    }
}

// True when the path, followed through links, is a folder.
bool IsFolderFollowed(const char* path) {
    struct stat st;
    return stat(path, &st) == 0 && S_ISDIR(st.st_mode);
}

// Closes a descriptor without disturbing the errno a failure left behind.
void CloseKeepErrno(int fd) {
    const int saved = errno;
    close(fd);
    errno = saved;
}

// Type of a file-system, or false when the system cannot tell (errno set).
bool FileSystemType(const std::string& path, uint32_t& type) {
    struct statfs sfs;
    if (statfs(path.c_str(), &sfs) != 0)
        return false;
    type = static_cast<uint32_t>(sfs.f_type);
    return true;
}

}  // namespace

// ---------------------------------------------------------------------------------------------
// File information and probes

_FILE_INFO_tag::_FILE_INFO_tag()
    : type(0), mtime(0), size(0), exists(false), uid(0), gid(0), mode(0), dev(0) {}

bool operator==(const _FILE_INFO_tag& a, const _FILE_INFO_tag& b) {
    // Owner, mode and device are left out on purpose: a copy made by another user is the
    // same file to us.
    return a.exists == b.exists && a.size == b.size && a.mtime == b.mtime && a.type == b.type &&
           a.path == b.path && a.name == b.name;
}

bool operator!=(const _FILE_INFO_tag& a, const _FILE_INFO_tag& b) {
    return !(a == b);
}

std::string FSParentPath(const std::string& path) {
    const size_t slash = path.rfind('/');
    if (slash == std::string::npos || slash == 0)
        return "/";
    return path.substr(0, slash);
}

std::string FSBaseName(const std::string& path) {
    const size_t slash = path.rfind('/');
    if (slash == std::string::npos)
        return path;
    return path.substr(slash + 1);
}

int GetFileInfo(const std::string& path, _FILE_INFO_tag& info) {
    struct stat st;
    if (lstat(path.c_str(), &st) != 0) {
        if (errno != ENOENT)
            return FS_FAILED;
        // A missing path is an answer, not a failure.
        info.exists = false;
        info.name = FSBaseName(path);
        info.path = path;
        info.type = FS_TYPE_MISSING;
        info.mtime = 0;
        info.size = 0;
        info.uid = 0;
        info.gid = 0;
        info.mode = 0;
        info.dev = 0;
        return 0;
    }
    info.exists = true;
    // Only the low 32 bits fit the record; later times wrap.
    info.mtime = static_cast<int32_t>(static_cast<uint32_t>(st.st_mtime));
    info.name = FSBaseName(path);
    info.path = path;
    info.size = st.st_size;
    info.uid = st.st_uid;
    info.gid = st.st_gid;
    info.mode = st.st_mode;
    info.dev = st.st_dev;
    const int type = TypeFromMode(st.st_mode);
    if (type < 0)
        return FS_FAILED;
    info.type = type;
    return 0;
}

int FSStat(const std::string& path, _FILE_INFO_tag& info, bool /*follow: links never followed*/) {
    if (path.empty())
        return FS_FAILED;
    return GetFileInfo(path, info) == 0 ? 0 : FS_NO_INFO;
}

bool IsFileExist(const std::string& path, bool /*follow: links never followed*/) {
    if (path.empty())
        return false;
    _FILE_INFO_tag info;
    if (GetFileInfo(path, info) < 0)
        return false;
    return info.exists;
}

bool FSIsRegularFile(const std::string& path, int64_t* mtime_ns) {
    struct stat st;
    if (stat(path.c_str(), &st) != 0 || !S_ISREG(st.st_mode))
        return false;
    if (mtime_ns)
        *mtime_ns = st.st_mtim.tv_sec * int64_t{1000000000} + st.st_mtim.tv_nsec;
    return true;
}

int FSUTime(const std::string& path, long atime, long mtime) {
    struct timeval times[2];
    times[0].tv_sec = atime;
    times[0].tv_usec = 0;
    times[1].tv_sec = mtime;
    times[1].tv_usec = 0;
    return lutimes(path.c_str(), times) == 0 ? 0 : FS_FAILED;
}

bool FSTimeEqual(long a, long b) {
    return a == b;
}

bool isFileLocked(const std::string& path, int mode) {
    if (access(path.c_str(), mode) == 0)
        return false;
    return errno == EPERM || errno == EACCES;
}

bool hasFilePermission(const std::string& path, int mode) {
    return !isFileLocked(path, mode);
}

bool isMountPoint(const std::string& path) {
    uint32_t type = 0;
    if (!FileSystemType(path, type)) {
        const int err = errno;
        FS_LOG_AT(ERROR, 880, "isMountPoint: Failed to get file system info '%s'. %s\n",
                  path.c_str(), strerror(err));
        return false;
    }
    return type == kNfsMagic || type == kSmbMagic || type == kFuseMagic;
}

bool IsMSDOS(const std::string& path) {
    uint32_t type = 0;
    if (!FileSystemType(path, type)) {
        const int err = errno;
        FS_LOG_AT(ERROR, 909, "IsSupportLargeFile: Failed to get file system info '%s'. %s\n",
                  path.c_str(), strerror(err));
        return false;
    }
    if (type != kMsdosMagic)
        return false;
    FS_LOG_AT(WARNING, 923, "Detect a MSDOS platform for path '%s'.\n", path.c_str());
    return true;
}

int FSGetRealPath(std::string& path) {
    FS_LOG_AT(DEBUG, 933, " org path [%s]\n", path.c_str());
    char resolved[8192];
    if (realpath(path.c_str(), resolved) == nullptr)
        return FS_FAILED;
    path = resolved;
    FS_LOG_AT(DEBUG, 960, " get full path [%s]\n", path.c_str());
    return 0;
}

bool FSIsParentFolder(const std::string& parent, const std::string& child) {
    // Text only: nothing is resolved, so "/a/" is no parent of "/a/b".
    if (parent.size() > child.size())
        return false;
    if (child.size() > parent.size() && child[parent.size()] != '/')
        return false;
    return child.compare(0, parent.size(), parent) == 0;
}

// ---------------------------------------------------------------------------------------------
// Directories

DIR_HANDLE::DIR_HANDLE() : flags(0), dir(nullptr) {}

DIR_HANDLE::~DIR_HANDLE() {
    FSCloseDir(*this);
}

DIR_ENTRY::DIR_ENTRY() {
    Clear();
}

void DIR_ENTRY::Clear() {
    name.clear();
    type = 0;
    mtime = 0;
    size = 0;
}

namespace {

// One level of a recursive creation. Returns false with errno set when the walk must stop.
bool MakeLevel(const char* prefix, bool last) {
    struct stat st;
    if (stat(prefix, &st) != 0) {
        // Missing (or not even readable: mkdir then says why).
        if (mkdir(prefix, 0777) == 0)
            return true;
        const int err = errno;
        // Someone else made it meanwhile: fine.
        if (err == EEXIST && IsFolderFollowed(prefix))
            return true;
        errno = err;
        return false;
    }
    if (S_ISDIR(st.st_mode))
        return true;
    if (!last) {
        // The wording predates this check; the creation of the next level reports the failure.
        FS_LOG_AT(INFO, 128, "FSMKDirP: path: %s is symbolic link pointed to folder\n", prefix);
        return true;
    }
    errno = EEXIST;
    FS_LOG_AT(INFO, 133, "FSMKDirP: path: %s is existing file or symbolic link pointed to file\n",
              prefix);
    return false;
}

// Creates every level of path from the left; 0 or -2.
int MakeFolderChain(const std::string& path) {
    std::string chain(path);
    const size_t length = chain.size();
    bool done = false;
    // A leading "/" is the root, not a separator; a trailing one ends the walk.
    for (size_t i = 1; i < length && !done; ++i) {
        if (chain[i] != '/')
            continue;
        const bool last = (i == length - 1);
        chain[i] = '\0';
        const bool ok = MakeLevel(chain.c_str(), last);
        chain[i] = '/';
        if (!ok) {
            const int err = errno;
            FS_LOG_AT(ERROR, 570, "path = %s errno : %s\n", path.c_str(), strerror(err));
            return FS_NOT_CREATED;
        }
        done = last;
    }
    if (!done && !MakeLevel(chain.c_str(), true)) {
        const int err = errno;
        FS_LOG_AT(ERROR, 570, "path = %s errno : %s\n", path.c_str(), strerror(err));
        return FS_NOT_CREATED;
    }
    return 0;
}

}  // namespace

int FSMKDir(const std::string& path, bool recursive) {
    if (path.empty())
        return FS_FAILED;
    _FILE_INFO_tag info;
    if (GetFileInfo(path, info) != 0) {
        FS_LOG_AT(ERROR, 553, "FSMKDir: Failed to to file info '%s'\n", path.c_str());
        return FS_FAILED;
    }
    if (info.exists) {
        if (info.type == FS_TYPE_FOLDER)
            return 0;
        // A link to a folder is refused too: the caller asked for a real folder.
        FS_LOG_AT(ERROR, 560,
                  "FSMKDir: Create a folder but local file system is not directory '%s' (%d)\n",
                  path.c_str(), info.type);
        return FS_FAILED;
    }
    if (recursive)
        return MakeFolderChain(path);

    if (mkdir(path.c_str(), 0777) == 0)
        return 0;
    const int err = errno;
    if (err == EEXIST && IsFolderFollowed(path.c_str()))
        return 0;
    FS_LOG_AT(ERROR, 583, "path = %s errno : %s\n", path.c_str(), strerror(err));
    errno = err;
    return FS_NOT_CREATED;
}

int FSMKDirFromRoot(const std::string& target, const std::string& root) {
    if (root.size() > target.size()) {
        FS_LOG_AT(ERROR, 604, "Giving a root '%s' whose length is larger then target's '%s'.\n",
                  root.c_str(), target.c_str());
        return FS_FAILED;
    }
    if (!FSIsParentFolder(root, target)) {
        FS_LOG_AT(ERROR, 609, "root '%s' is not a parent folder of target '%s'\n", root.c_str(),
                  target.c_str());
        return FS_FAILED;
    }
    const std::string rest = target.substr(root.size());
    std::string current;
    while (current != rest) {
        const size_t slash = rest.find('/', current.size() + 1);
        current = (slash == std::string::npos) ? rest : rest.substr(0, slash);
        FS_LOG_AT(DEBUG, 618, "FSMKDirFromRoot: create %s\n", current.c_str());
        if (FSMKDir(root + current, false) < 0)
            return FS_FAILED;
    }
    return 0;
}

int FSRemove(const std::string& path, bool /*flag: has no effect*/) {
    if (path.empty())
        return FS_FAILED;
    _FILE_INFO_tag info;
    if (GetFileInfo(path, info) != 0)
        return FS_FAILED;
    if (!info.exists)
        return 0;
    if (info.type != FS_TYPE_FOLDER)
        return unlink(path.c_str()) == 0 ? 0 : FS_NOT_DONE;

    // A link to a folder has type 3 and went above: its target is never entered.
    const int walked =
        FSWalkFolder(path, true, [](const std::string& entry_path, const DIR_ENTRY&) {
            return FSRemove(entry_path, false) == 0;
        });
    if (walked == FS_WALK_NOT_OPENED)
        return 0;  // unopenable folders are left alone on purpose
    if (walked == FS_WALK_STOPPED)
        return FS_NOT_DONE;
    return rmdir(path.c_str()) == 0 ? 0 : FS_NOT_DONE;
}

namespace {

// FSOpenDir, with its failure logged or not.
int OpenFolder(const std::string& path, int flags, DIR_HANDLE& handle, bool quiet) {
    DIR* dir = opendir(path.c_str());
    if (dir == nullptr) {
        const int err = errno;
        if (!quiet)
            FS_LOG_AT(ERROR, 752, "FSOpenDir: Failed to open directory '%s'. %s\n", path.c_str(),
                      strerror(err));
        return FS_FAILED;
    }
    handle.dir = dir;
    handle.path = path;
    handle.flags = flags;
    return 0;
}

}  // namespace

int FSOpenDir(const std::string& path, int flags, DIR_HANDLE& handle) {
    return OpenFolder(path, flags, handle, false);
}

int FSReadDir(DIR_HANDLE& handle, DIR_ENTRY& entry) {
    if (handle.dir == nullptr)
        return 0;  // a closed handle lists nothing
    const struct dirent* listed = readdir(handle.dir);
    if (listed == nullptr)
        return 0;  // end of the listing, or a read error: both end it

    int32_t mtime = 0;
    int64_t size = 0;
    if (handle.flags & 1) {
        const std::string full = handle.path + "/" + listed->d_name;
        _FILE_INFO_tag info;
        if (FSStat(full, info, true) != 0) {
            FS_LOG_AT(ERROR, 780, "FSOpenDir: Failed to get info for '%s'\n", full.c_str());
            return FS_FAILED;
        }
        mtime = info.mtime;
        size = info.size;
    }
    entry.mtime = mtime;
    entry.size = size;
    entry.name = listed->d_name;
    // The type the listing reports, never the information call's.
    switch (listed->d_type) {
        case DT_FIFO:
            entry.type = FS_TYPE_FIFO;
            break;
        case DT_CHR:
        case DT_BLK:
            entry.type = FS_TYPE_DEVICE;
            break;
        case DT_DIR:
            entry.type = FS_TYPE_FOLDER;
            break;
        case DT_REG:
            entry.type = FS_TYPE_FILE;
            break;
        case DT_LNK:
            entry.type = FS_TYPE_LINK;
            break;
        case DT_SOCK:
            entry.type = FS_TYPE_SOCKET;
            break;
        default:
            entry.type = FS_TYPE_MISSING;
            break;
    }
    return 1;
}

void FSCloseDir(DIR_HANDLE& handle) {
    if (handle.dir != nullptr)
        closedir(handle.dir);
    handle.dir = nullptr;
    handle.path.clear();
}

int FSWalkFolder(
    const std::string& folder, bool quiet,
    const std::function<bool(const std::string& path, const DIR_ENTRY& entry)>& visit) {
    DIR_HANDLE handle;
    if (OpenFolder(folder, 0, handle, quiet) != 0)
        return FS_WALK_NOT_OPENED;
    int result = FS_WALK_DONE;
    DIR_ENTRY entry;
    while (FSReadDir(handle, entry) > 0) {
        if (entry.name == "." || entry.name == "..")
            continue;
        if (!visit(folder + "/" + entry.name, entry)) {
            result = FS_WALK_STOPPED;
            break;
        }
    }
    // The reason of a visit's failure stays in errno for the caller.
    const int saved = errno;
    FSCloseDir(handle);
    errno = saved;
    return result;
}

int FSEntryType(const std::string& path, const DIR_ENTRY& entry) {
    _FILE_INFO_tag info;
    if (entry.type != FS_TYPE_MISSING || FSStat(path, info, false) < 0)
        return entry.type;
    return info.type;
}

int FSCountFiles(const std::string& folder) {
    int files = 0;
    FSWalkFolder(folder, false, [&files](const std::string& path, const DIR_ENTRY& entry) {
        files += FSEntryType(path, entry) == FS_TYPE_FOLDER ? FSCountFiles(path) : 1;
        return true;
    });
    return files;
}

// ---------------------------------------------------------------------------------------------
// Copy and rename

namespace {

// Writes the whole block, repeating on short counts. Returns false with errno set on a failure.
bool WriteAll(int fd, const char* data, size_t length) {
    while (length > 0) {
        const ssize_t written = write(fd, data, length);
        if (written < 0 && errno == EINTR)
            continue;
        if (written <= 0)
            return false;
        data += written;
        length -= static_cast<size_t>(written);
    }
    return true;
}

// Moves the bytes from in to out: 0, -1 after a read or write failure, -2 on a full disk
// or an exhausted quota. Failures are logged here.
int CopyContents(int in, int out) {
    // Let the kernel move the pages while it can: no copy through user space and no buffer.
    // Whatever stops it (end of file, a pair of file systems or a device it cannot serve, a
    // real failure) hands over to the read/write loop below at the current offsets, which
    // decides and reports exactly as a plain copy would. Some pseudo-files report an early
    // end here, so the end is always confirmed by read().
    const int saved = errno;
    while (copy_file_range(in, nullptr, out, nullptr, kKernelCopyChunk, 0) > 0) {
    }
    errno = saved;

    std::unique_ptr<char[]> heap(new (std::nothrow) char[kCopyBuffer]);
    char small[kSmallCopyBuffer];
    char* buffer = heap ? heap.get() : small;
    const size_t capacity = heap ? kCopyBuffer : kSmallCopyBuffer;
    for (;;) {
        const ssize_t got = read(in, buffer, capacity);
        if (got < 0) {
            const int err = errno;
            if (err == EINTR)
                continue;
            FS_LOG(ERROR, "CopyFile: read: %s (%d)\n", strerror(err), err);
            return FS_FAILED;
        }
        if (got == 0)
            return 0;
        if (!WriteAll(out, buffer, static_cast<size_t>(got))) {
            const int err = errno;
            FS_LOG(ERROR, "CopyFile: write: %s (%d)\n", strerror(err), err);
            return (err == ENOSPC || err == EDQUOT) ? FS_NO_SPACE : FS_FAILED;
        }
    }
}

// A FIFO, socket or device node. A folder is not one: its copy fails on the first read.
bool IsSpecialFile(mode_t mode) {
    return S_ISFIFO(mode) || S_ISSOCK(mode) || S_ISCHR(mode) || S_ISBLK(mode);
}

void LogOpenFailure(const std::string& path) {
    const int err = errno;
    FS_LOG(ERROR, "CopyFile: open(%s): %s (%d)\n", path.c_str(), strerror(err), err);
}

}  // namespace

int FSCopy(const std::string& source, const std::string& dest, bool remove_source, bool keep_mode) {
    // A link is followed: its target's bytes are copied. The open never waits (a FIFO
    // without a writer would block it for good), and a FIFO, socket or device is refused:
    // its bytes are no file's contents, and reading them may never end.
    const int in = open(source.c_str(), O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC);
    if (in < 0) {
        LogOpenFailure(source);
        return FS_FAILED;
    }
    struct stat opened;
    if (fstat(in, &opened) == 0 && IsSpecialFile(opened.st_mode)) {
        FS_LOG(ERROR, "CopyFile: '%s' is not a regular file, not copied\n", source.c_str());
        close(in);
        errno = EINVAL;
        return FS_FAILED;
    }
    mode_t mode = 0644;
    if (keep_mode) {
        // The information is the link's own, so a link source gives its 0777 bits.
        _FILE_INFO_tag info;
        if (FSStat(source, info, true) != 0) {
            FS_LOG(ERROR, "FSStat: check state (%s) failed\n", source.c_str());
            CloseKeepErrno(in);
            return FS_FAILED;
        }
        mode = static_cast<mode_t>(info.mode);
    }
    // Not waiting for a reader either, should the destination be a FIFO.
    const int out =
        open(dest.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_NONBLOCK | O_NOCTTY | O_CLOEXEC, mode);
    if (out < 0) {
        LogOpenFailure(dest);
        CloseKeepErrno(in);
        return FS_FAILED;
    }
    // A failed copy leaves the partial destination where it is: the caller decides.
    const int copied = CopyContents(in, out);
    if (copied != 0 || !remove_source) {
        CloseKeepErrno(in);
        CloseKeepErrno(out);
        return copied;
    }
    close(in);
    const int removed = remove(source.c_str());
    CloseKeepErrno(out);
    return removed == 0 ? 0 : FS_FAILED;
}

namespace {

// Moves a folder's contents one by one to another device, then the folder itself.
int MoveFolderAcross(const std::string& source, const std::string& dest, bool follow) {
    if (FSMKDir(dest, true) != 0)
        return FS_NOT_DONE;
    // No roll-back: what moved stays moved.
    const int walked = FSWalkFolder(
        source, true, [&dest, follow](const std::string& path, const DIR_ENTRY& entry) {
            return FSRename(path, dest + "/" + entry.name, follow) == 0;
        });
    if (walked != FS_WALK_DONE)
        return FS_NOT_DONE;
    return rmdir(source.c_str()) == 0 ? 0 : FS_NOT_DONE;
}

}  // namespace

int FSRename(const std::string& source, const std::string& dest, bool follow) {
    if (source.empty() || dest.empty())
        return FS_FAILED;
    _FILE_INFO_tag info;
    if (FSStat(source, info, follow) != 0 || !info.exists)
        return FS_NO_SOURCE;
    if (rename(source.c_str(), dest.c_str()) == 0)
        return 0;
    const int err = errno;
    if (err == ENAMETOOLONG)
        return FS_NAME_TOO_LONG;
    if (err != EXDEV)
        return FS_NOT_DONE;

    // The error text is passed in, so nothing the logger does can change it.
    FS_LOG(DEBUG, "rename failed: %s -> %s, %s (%d)\n", source.c_str(), dest.c_str(), strerror(err),
           err);
    switch (info.type) {
        case FS_TYPE_FILE:
            // Copied with 0644 whatever the source had: the execute bits do not survive.
            return FSCopy(source, dest, true, false) < 0 ? FS_NOT_DONE : 0;
        case FS_TYPE_FOLDER:
            return MoveFolderAcross(source, dest, follow);
        default:
            // Links, devices, FIFOs and sockets never move across devices.
            errno = err;
            return FS_NOT_DONE;
    }
}

// ---------------------------------------------------------------------------------------------
// Temporary files, sync, links, ownership

int FSMktemp(const std::string& dir, std::string& out_path) {
    char name[4096];
    snprintf(name, sizeof(name), "%s/XXXXXX", dir.c_str());
    const int fd = mkostemp(name, O_CLOEXEC);
    if (fd < 0) {
        const int err = errno;
        // The system may have left random letters in the buffer: report the template itself.
        snprintf(name, sizeof(name), "%s/XXXXXX", dir.c_str());
        FS_LOG(ERROR, "mkstemp(%s): %s\n", name, strerror(err));
        return FS_FAILED;
    }
    close(fd);
    out_path = name;
    chmod(name, 0644);
    return 0;
}

int FSCreateTempPath(const std::string& dir, std::string& out_path) {
    out_path = TmpNameGen::getInstance().getTmpPath(dir);
    return out_path.empty() ? FS_FAILED : 0;
}

namespace {

// Opens path read-only and hands it to sync (named so in the messages of operation who): 0,
// 1 when the path is missing and that is no failure for the caller, else -1.
int SyncPath(const std::string& path, int (*sync)(int), const char* who, const char* call,
             bool missing_ok) {
    const int fd = open(path.c_str(), O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC);
    if (fd < 0) {
        const int err = errno;
        if (err == ENOENT && missing_ok)
            return 1;
        FS_LOG(ERROR, "%s: open(%s): %s (%d)\n", who, path.c_str(), strerror(err), err);
        return FS_FAILED;
    }
    if (sync(fd) != 0) {
        const int err = errno;
        FS_LOG(ERROR, "%s: %s(%s): %s (%d)\n", who, call, path.c_str(), strerror(err), err);
        CloseKeepErrno(fd);
        return FS_FAILED;
    }
    close(fd);
    return 0;
}

}  // namespace

int FSFsync(const std::string& path) {
    return SyncPath(path, fsync, "FSFsync", "fsync", true);
}

int FSSyncFs(const std::string& path) {
    return SyncPath(path, syncfs, "FSSyncFs", "syncfs", false);
}

int FSCreateSymbolicLink(const std::string& target, const std::string& link_path) {
    if (symlink(target.c_str(), link_path.c_str()) == 0)
        return 0;
    const int err = errno;
    FS_LOG(ERROR,
           "FSCreateSymbolicLink: Failed to create symbolic link '%s' -> '%s' (code: %d, msg: "
           "%s)\n",
           target.c_str(), link_path.c_str(), err, strerror(err));
    return FS_FAILED;
}

int FSReadSymbolicLink(const std::string& link_path, std::string& out_target) {
    const int kLinkBuffer = 4096;
    char contents[kLinkBuffer] = {};
    const ssize_t length = readlink(link_path.c_str(), contents, sizeof(contents));
    if (length < 0) {
        const int err = errno;
        FS_LOG(ERROR, "FSReadSymbolicLink: Failed to read symbolic link '%s' (code: %d, msg: %s)\n",
               link_path.c_str(), err, strerror(err));
        return FS_FAILED;
    }
    if (length >= kLinkBuffer) {
        // The contents may have been cut.
        FS_LOG(ERROR, "FSReadSymbolicLink: path of '%s' is more than %d\n", link_path.c_str(),
               kLinkBuffer);
        return FS_FAILED;
    }
    out_target.assign(contents, static_cast<size_t>(length));
    return 0;
}

int FSChown(const std::string& path, uint32_t uid, uint32_t gid) {
    // Relative paths resolve against descriptor 0: callers pass absolute paths only.
    if (fchownat(0, path.c_str(), uid, gid, AT_SYMLINK_NOFOLLOW) == 0)
        return 0;
    const int err = errno;
    FS_LOG(ERROR, "FSChown: Failed to chown '%s' (code: %d, msg: %s)\n", path.c_str(), err,
           strerror(err));
    return FS_FAILED;
}

int FSChmod(const std::string& path, uint32_t mode) {
    if (chmod(path.c_str(), mode) == 0)
        return 0;
    const int err = errno;
    FS_LOG(ERROR, "FSChmod: Failed to chmod '%s' (code: %d, msg: %s)\n", path.c_str(), err,
           strerror(err));
    return FS_FAILED;
}
