// Preloaded into an upgrade: counts the file-system calls on paths under the folders named in
// FAULT_ROOTS (two, colon-separated) and on what was opened there, and fails call k with errno
// e, once or from k on (FAULT="k e lasting"; k 0 fails none). There the kernel copy is refused,
// so that the copy's read/write loop runs. At exit the count goes to the file FAULT_COUNT.
#define _GNU_SOURCE
#include <dirent.h>
#include <dlfcn.h>
#include <errno.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>

static long k, calls, lasting;
static int err;
static char roots[2][4096], watched[65536];

__attribute__((constructor)) static void Init(void) {
    sscanf(getenv("FAULT") ? getenv("FAULT") : "", "%ld %d %ld", &k, &err, &lasting);
    sscanf(getenv("FAULT_ROOTS") ? getenv("FAULT_ROOTS") : "", "%4095[^:]:%4095s", roots[0],
           roots[1]);
}
__attribute__((destructor)) static void Report(void) {
    FILE* out = fopen(getenv("FAULT_COUNT") ? getenv("FAULT_COUNT") : "/dev/null", "w");
    out ? fprintf(out, "%ld\n", calls), fclose(out) : 0;
}

static int Under(const char* p) {
    return p && ((roots[0][0] && !strncmp(p, roots[0], strlen(roots[0]))) ||
                 (roots[1][0] && !strncmp(p, roots[1], strlen(roots[1]))));
}
static int Fd(int fd) {
    return fd >= 0 && fd < 65536 && watched[fd];
}
static int Watch(int fd, int on) {
    return fd >= 0 && fd < 65536 ? watched[fd] = on, fd : fd;
}
// Counts a watched call; true (errno set) when this one fails.
static int Fail(int on) {
    return on && (++calls == k || (lasting && k && calls > k)) ? errno = err, 1 : 0;
}

#define REAL(name, type) ((type)dlsym(RTLD_NEXT, #name))
#define WRAP(ret, name, on, params, types, args)                   \
    ret name params {                                              \
        return Fail(on) ? (ret)-1 : REAL(name, ret(*) types) args; \
    }
WRAP(int, stat, Under(p), (const char* p, struct stat* s), (const char*, struct stat*), (p, s))
WRAP(int, lstat, Under(p), (const char* p, struct stat* s), (const char*, struct stat*), (p, s))
WRAP(int, access, Under(p), (const char* p, int m), (const char*, int), (p, m))
WRAP(int, mkdir, Under(p), (const char* p, mode_t m), (const char*, mode_t), (p, m))
WRAP(int, unlink, Under(p), (const char* p), (const char*), (p))
WRAP(int, rmdir, Under(p), (const char* p), (const char*), (p))
WRAP(int, rename, Under(a) || Under(b), (const char* a, const char* b), (const char*, const char*),
     (a, b))
WRAP(ssize_t, read, Fd(fd), (int fd, void* b, size_t n), (int, void*, size_t), (fd, b, n))
WRAP(ssize_t, write, Fd(fd), (int fd, const void* b, size_t n), (int, const void*, size_t),
     (fd, b, n))
WRAP(int, fstat, Fd(fd), (int fd, struct stat* s), (int, struct stat*), (fd, s))
WRAP(int, syncfs, Fd(fd), (int fd), (int), (fd))

int open(const char* p, int flags, ...) {
    va_list a;
    va_start(a, flags);
    const mode_t mode = va_arg(a, mode_t);
    va_end(a);
    return Fail(Under(p))
               ? -1
               : Watch(REAL(open, int (*)(const char*, int, ...))(p, flags, mode), Under(p));
}
int close(int fd) {
    return REAL(close, int (*)(int))(Watch(fd, 0));
}
DIR* opendir(const char* p) {
    DIR* d = Fail(Under(p)) ? NULL : REAL(opendir, DIR * (*)(const char*))(p);
    return (void)(d && Watch(dirfd(d), Under(p))), d;
}
struct dirent* readdir(DIR* d) {
    return Fail(Fd(dirfd(d))) ? NULL : REAL(readdir, struct dirent * (*)(DIR*))(d);
}
int closedir(DIR* d) {
    return Watch(dirfd(d), 0), REAL(closedir, int (*)(DIR*))(d);
}
ssize_t copy_file_range(int in, loff_t* a, int out, loff_t* b, size_t n, unsigned f) {
    return Fd(in) || Fd(out) ? errno = EXDEV, -1
                             : REAL(copy_file_range, ssize_t(*)(int, loff_t*, int, loff_t*, size_t,
                                                                unsigned))(in, a, out, b, n, f);
}
