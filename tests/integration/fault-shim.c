// Preloaded into an upgrade: counts the file-system calls on paths under FAULT_ROOT and on what
// was opened there, and fails call k with errno e, once or from k on, or sends SIGKILL there
// (FAULT="k e mode", mode 0, 1 or 2; k 0: none). There the kernel copy is refused, so that the
// copy's read/write loop runs. At exit the count goes to the file FAULT_COUNT.
#define _GNU_SOURCE
#include <dirent.h>
#include <dlfcn.h>
#include <errno.h>
#include <signal.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>

static long k, calls, mode;
static int err;
static char watched[65536];
static const char* root;

__attribute__((constructor)) static void Init(void) {
    sscanf(getenv("FAULT") ? getenv("FAULT") : "", "%ld %d %ld", &k, &err, &mode);
    root = getenv("FAULT_ROOT");
}
__attribute__((destructor)) static void Report(void) {
    FILE* out = fopen(getenv("FAULT_COUNT") ? getenv("FAULT_COUNT") : "/dev/null", "w");
    if (out) {
        fprintf(out, "%ld\n", calls);
        fclose(out);
    }
}

static int Under(const char* p) {  // a function: the wrapped calls' paths are declared nonnull
    return p && root && !strncmp(p, root, strlen(root));
}
#define WATCHED(fd) ((fd) >= 0 && (fd) < 65536 && watched[fd])
static int Watch(int fd, int on) {
    if (fd >= 0 && fd < 65536)
        watched[fd] = on;
    return fd;
}
// Counts a watched call; true (errno set) when this one fails, or no return when it is killed.
static int Fail(int on) {
    if (!on || (++calls != k && !(mode == 1 && k && calls > k)))
        return 0;
    if (mode == 2)
        raise(SIGKILL);
    errno = err;
    return 1;
}

#define REAL(name) ((__typeof__(&name))dlsym(RTLD_NEXT, #name))
#define WRAP(ret, name, on, params, args)            \
    ret name params {                                \
        return Fail(on) ? (ret)-1 : REAL(name) args; \
    }
WRAP(int, stat, Under(p), (const char* p, struct stat* s), (p, s))
WRAP(int, lstat, Under(p), (const char* p, struct stat* s), (p, s))
WRAP(int, access, Under(p), (const char* p, int m), (p, m))
WRAP(int, mkdir, Under(p), (const char* p, mode_t m), (p, m))
WRAP(int, unlink, Under(p), (const char* p), (p))
WRAP(int, rmdir, Under(p), (const char* p), (p))
WRAP(int, rename, Under(a) || Under(b), (const char* a, const char* b), (a, b))
WRAP(ssize_t, read, WATCHED(fd), (int fd, void* b, size_t n), (fd, b, n))
WRAP(ssize_t, write, WATCHED(fd), (int fd, const void* b, size_t n), (fd, b, n))
WRAP(int, fstat, WATCHED(fd), (int fd, struct stat* s), (fd, s))
WRAP(int, syncfs, WATCHED(fd), (int fd), (fd))

int open(const char* p, int flags, ...) {
    va_list a;
    va_start(a, flags);
    const mode_t m = va_arg(a, mode_t);
    va_end(a);
    return Fail(Under(p)) ? -1 : Watch(REAL(open)(p, flags, m), Under(p));
}
int close(int fd) {
    return REAL(close)(Watch(fd, 0));
}
DIR* opendir(const char* p) {
    DIR* d = Fail(Under(p)) ? NULL : REAL(opendir)(p);
    if (d)
        Watch(dirfd(d), Under(p));
    return d;
}
struct dirent* readdir(DIR* d) {
    return Fail(WATCHED(dirfd(d))) ? NULL : REAL(readdir)(d);
}
int closedir(DIR* d) {
    Watch(dirfd(d), 0);
    return REAL(closedir)(d);
}
ssize_t copy_file_range(int in, loff_t* a, int out, loff_t* b, size_t n, unsigned f) {
    if (WATCHED(in) || WATCHED(out)) {
        errno = EXDEV;
        return -1;
    }
    return REAL(copy_file_range)(in, a, out, b, n, f);
}
