#pragma once

#include <dirent.h>

#include <cstdint>
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

struct DIR_HANDLE {
    std::string path;
    int32_t flags;
    DIR* dir;
    DIR_HANDLE();
    ~DIR_HANDLE();
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
