/* Preloaded into keyloft: an fsync of a file in the folder named by KEYLOFT_TEST_HOLD_FSYNC_IN
 * writes "holding" to standard error and never returns, so that the command can be killed while
 * the file it writes there is being made. */
#define _GNU_SOURCE
#include <dlfcn.h>
#include <limits.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

int fsync(int fd) {
    const char* folder = getenv("KEYLOFT_TEST_HOLD_FSYNC_IN");
    char link[64], target[PATH_MAX];
    snprintf(link, sizeof link, "/proc/self/fd/%d", fd);
    ssize_t length = readlink(link, target, sizeof target - 1);
    if (folder != NULL && length > 0) {
        target[length] = '\0';
        if (strncmp(target, folder, strlen(folder)) == 0 && target[strlen(folder)] == '/') {
            fputs("holding\n", stderr);
            fflush(stderr);
            for (;;) pause();
        }
    }
    return ((int (*)(int))dlsym(RTLD_NEXT, "fsync"))(fd);
}
