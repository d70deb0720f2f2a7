#pragma once

#include <dirent.h>

#include <cstdint>
#include <functional>
#include <string>

// Type codes of _FILE_INFO_tag::type and DIR_ENTRY::type (4 is not used).
enum FSType : int32_t {
    FS_TYPE_MISSING = 0,
    FS_TYPE_FILE = 1,
    FS_TYPE_FOLDER = 2,
    FS_TYPE_LINK = 3,
    FS_TYPE_DEVICE = 5,
    FS_TYPE_FIFO = 6,
    FS_TYPE_SOCKET = 7,
};

// Results of the layer's operations: 0 for success, a negative code for a failure. Which failure
// a code names depends on the operation, as said beside each.
enum FSResult : int {
    FS_OK = 0,
    FS_FAILED = -1,           // an empty path, an information, open, read or write failure
    FS_NO_INFO = -2,          // FSStat: the information cannot be read
    FS_NOT_CREATED = -2,      // FSMKDir: a creation failed
    FS_NO_SPACE = -2,         // FSCopy: the disk is full or the quota exhausted
    FS_NO_SOURCE = -2,        // FSRename: the source is missing or its information unreadable
    FS_NOT_DONE = -3,         // FSRemove: a removal failed; FSRename: any other failure
    FS_NAME_TOO_LONG = -100,  // FSRename
};

// File information record; its type is one of the FSType codes.
struct _FILE_INFO_tag {
    std::string path;
    std::string name;
    int32_t type;
    int32_t mtime;
    int64_t size;
    bool exists;
    uint32_t uid;
    uint32_t gid;
    uint32_t mode;
    uint64_t dev;
    _FILE_INFO_tag();
};
bool operator==(const _FILE_INFO_tag& a, const _FILE_INFO_tag& b);
bool operator!=(const _FILE_INFO_tag& a, const _FILE_INFO_tag& b);

std::string FSParentPath(const std::string& path);
std::string FSBaseName(const std::string& path);
int GetFileInfo(const std::string& path, _FILE_INFO_tag& info);
int FSStat(const std::string& path, _FILE_INFO_tag& info, bool follow);
bool IsFileExist(const std::string& path, bool follow);
// Whether path, links followed, is a regular file: the only kind a small file is read from,
// as a FIFO in its place would keep the reader waiting for good and a device holds no such
// file. mtime_ns, when given, gets its last modification in nanoseconds since the epoch.
bool FSIsRegularFile(const std::string& path, int64_t* mtime_ns = nullptr);
int FSUTime(const std::string& path, long atime, long mtime);
bool FSTimeEqual(long a, long b);
bool isFileLocked(const std::string& path, int mode);
bool hasFilePermission(const std::string& path, int mode);
bool isMountPoint(const std::string& path);
bool IsMSDOS(const std::string& path);
int FSGetRealPath(std::string& path);
bool FSIsParentFolder(const std::string& parent, const std::string& child);

// An open folder listing; it closes itself when it goes, so it is never copied.
struct DIR_HANDLE {
    std::string path;
    int32_t flags;
    DIR* dir;
    DIR_HANDLE();
    ~DIR_HANDLE();
    DIR_HANDLE(const DIR_HANDLE&) = delete;
    DIR_HANDLE& operator=(const DIR_HANDLE&) = delete;
};
struct DIR_ENTRY {
    std::string name;
    int32_t type;
    int32_t mtime;
    int64_t size;
    DIR_ENTRY();
    void Clear();
};

int FSMKDir(const std::string& path, bool recursive);
int FSMKDirFromRoot(const std::string& target, const std::string& root);
int FSRemove(const std::string& path, bool flag);
int FSOpenDir(const std::string& path, int flags, DIR_HANDLE& handle);
int FSReadDir(DIR_HANDLE& handle, DIR_ENTRY& entry);
void FSCloseDir(DIR_HANDLE& handle);

// Results of FSWalkFolder.
enum FSWalk : int {
    FS_WALK_NOT_OPENED = -1,  // the folder could not be opened: nothing visited
    FS_WALK_DONE = 0,         // the listing ended (a read error of the listing ends it too)
    FS_WALK_STOPPED = 1,      // a visit asked to stop
};
// Visits the entries of one folder but "." and "..", in the order the system lists them, with
// the entry's path (folder + "/" + name), until visit returns false. A folder that cannot be
// opened is logged as FSOpenDir logs it, unless quiet. Not recursive: a visit recurses itself.
int FSWalkFolder(const std::string& folder, bool quiet,
                 const std::function<bool(const std::string& path, const DIR_ENTRY& entry)>& visit);
// A listed entry's type code; where the file system does not report one (0), the entry's own
// information decides, so that a folder is never taken for a file.
int FSEntryType(const std::string& path, const DIR_ENTRY& entry);
// The files (every entry but folders, also below subfolders) a copy of the folder writes; 0 for
// a folder that cannot be opened. Lists only: no file data is read.
int FSCountFiles(const std::string& folder);
int FSCopy(const std::string& source, const std::string& dest, bool remove_source, bool keep_mode);
int FSRename(const std::string& source, const std::string& dest, bool follow);
int FSMktemp(const std::string& dir, std::string& out_path);
int FSCreateTempPath(const std::string& dir, std::string& out_path);
int FSFsync(const std::string& path);
// Writes everything of the file system that holds path to the disk: 0, or -1 (logged).
int FSSyncFs(const std::string& path);
int FSCreateSymbolicLink(const std::string& target, const std::string& link_path);
int FSReadSymbolicLink(const std::string& link_path, std::string& out_target);
int FSChown(const std::string& path, uint32_t uid, uint32_t gid);
int FSChmod(const std::string& path, uint32_t mode);
