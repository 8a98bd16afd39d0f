/* SPDX-License-Identifier: BSD-3-Clause */
/* Datastores on disk: each file holds one encoded datatree. A file is replaced whole: the new bytes
 * go to a temporary file that is flushed before it is renamed over the old one, and the directory
 * is flushed after the rename, so a crash at any moment leaves either the old or the new file. */
#define _POSIX_C_SOURCE 200809L
#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include "agent.h"
#include "tov/gpb.h"

/* Larger files are refused rather than read: no datastore of this sample comes near it. */
#define STORE_MAX_FILE ((off_t)1 << 30)

int store_load(const char *dir, const char *name, DataTree *tree) {
    char path[PATH_MAX];
    memset(tree, 0, sizeof *tree);
    if (snprintf(path, sizeof path, "%s/%s", dir, name) >= (int)sizeof path) return -1;
    int fd = open(path, O_RDONLY | O_CLOEXEC);
    if (fd < 0) return errno == ENOENT ? 1 : -1;
    struct stat st;
    if (fstat(fd, &st) != 0 || st.st_size > STORE_MAX_FILE) {
        close(fd);
        return -1;
    }
    uint8_t *bytes = malloc(st.st_size ? (size_t)st.st_size : 1);
    size_t done = 0;
    while (bytes && done < (size_t)st.st_size) {
        ssize_t n = read(fd, bytes + done, (size_t)st.st_size - done);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) break;
        done += (size_t)n;
    }
    close(fd);
    int rc = -1;
    if (bytes && done == (size_t)st.st_size &&
        kesh_tov_datatree_decode_ext(tree, bytes, (uint32_t)done, tov_gpb_alloc, 0, 0) == 0)
        rc = 0;
    free(bytes);
    if (rc != 0) tree_clear(tree);
    return rc;
}

static int write_all(int fd, const uint8_t *p, size_t n) {
    while (n) {
        ssize_t w = write(fd, p, n);
        if (w < 0 && errno == EINTR) continue;
        if (w <= 0) return -1;
        p += w;
        n -= (size_t)w;
    }
    return 0;
}

int store_save(const char *dir, const char *name, const DataTree *tree) {
    char path[PATH_MAX], temp[PATH_MAX];
    if (snprintf(path, sizeof path, "%s/%s", dir, name) >= (int)sizeof path ||
        snprintf(temp, sizeof temp, "%s/.%s.tmp", dir, name) >= (int)sizeof temp)
        return ENAMETOOLONG;
    uint32_t size = kesh_tov_datatree_encode_ext(tree, NULL, 0, NULL, NULL, 0);
    uint8_t *bytes = malloc(size ? size : 1);
    if (!bytes) return ENOMEM;
    kesh_tov_datatree_encode_ext(tree, bytes, size, NULL, NULL, 0);
    int rc = 0;
    errno = 0;
    int fd = open(temp, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    if (fd < 0 || write_all(fd, bytes, size) != 0 || fsync(fd) != 0) rc = errno ? errno : EIO;
    if (fd >= 0 && close(fd) != 0 && !rc) rc = errno;
    free(bytes);
    if (!rc && rename(temp, path) != 0) rc = errno;
    if (rc) {
        unlink(temp);
        return rc;
    }
    int dfd = open(dir, O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (dfd < 0) return errno;
    if (fsync(dfd) != 0) rc = errno;
    close(dfd);
    return rc;
}
