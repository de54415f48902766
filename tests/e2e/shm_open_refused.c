/* Preloaded into a program that loads the PKCS#11 module: once a SQLite write-ahead log has been
 * synced (a change committed), the next open of a shared-memory index ("-shm") fails with ENOSPC,
 * as on a full disk, and the opens after it succeed. Writes "shm open refused" to standard error
 * when it refused one. */
#define _GNU_SOURCE
#include <dlfcn.h>
#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <stdarg.h>
#include <stdio.h>
#include <string.h>
#include <unistd.h>

static int committed;
static int refused;

static int endsWith(const char* text, const char* suffix) {
    size_t length = strlen(text), suffixLength = strlen(suffix);
    return length >= suffixLength && strcmp(text + length - suffixLength, suffix) == 0;
}

static int openAs(const char* name, const char* path, int flags, mode_t mode) {
    if (committed && !refused && endsWith(path, "-shm")) {
        refused = 1;
        fputs("shm open refused\n", stderr);
        errno = ENOSPC;
        return -1;
    }
    int (*next)(const char*, int, ...) = (int (*)(const char*, int, ...))dlsym(RTLD_NEXT, name);
    return next(path, flags, mode);
}

static mode_t modeOf(int flags, va_list arguments) {
    return (flags & (O_CREAT | O_TMPFILE)) != 0 ? (mode_t)va_arg(arguments, int) : 0;
}

int open(const char* path, int flags, ...) {
    va_list arguments;
    va_start(arguments, flags);
    mode_t mode = modeOf(flags, arguments);
    va_end(arguments);
    return openAs("open", path, flags, mode);
}

int open64(const char* path, int flags, ...) {
    va_list arguments;
    va_start(arguments, flags);
    mode_t mode = modeOf(flags, arguments);
    va_end(arguments);
    return openAs("open64", path, flags, mode);
}

static void syncing(int fd) {
    char link[64], target[PATH_MAX];
    snprintf(link, sizeof link, "/proc/self/fd/%d", fd);
    ssize_t length = readlink(link, target, sizeof target - 1);
    if (length <= 0) return;
    target[length] = '\0';
    if (endsWith(target, "-wal")) committed = 1;
}

int fsync(int fd) {
    syncing(fd);
    return ((int (*)(int))dlsym(RTLD_NEXT, "fsync"))(fd);
}

int fdatasync(int fd) {
    syncing(fd);
    return ((int (*)(int))dlsym(RTLD_NEXT, "fdatasync"))(fd);
}
