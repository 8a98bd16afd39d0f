/* SPDX-License-Identifier: BSD-3-Clause */
/* Loads the library as the platform's module loader does, uses it, unloads it, and checks that
 * neither it nor the host library it brought stays mapped.
 * usage: unload_test LIBTOV LIBTOV_HOST */
#include <dlfcn.h>
#include <limits.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

static int mapped(const char *path) {
    char line[PATH_MAX + 128];
    int found = 0;
    FILE *maps = fopen("/proc/self/maps", "r");
    if (!maps) {
        perror("/proc/self/maps");
        exit(1);
    }
    while (fgets(line, sizeof line, maps)) {
        const char *name = strchr(line, '/');
        line[strcspn(line, "\n")] = '\0';
        if (name && strcmp(name, path) == 0) found = 1;
    }
    fclose(maps);
    return found;
}

int main(int argc, char **argv) {
    char paths[2][PATH_MAX];
    if (argc != 3 || !realpath(argv[1], paths[0]) || !realpath(argv[2], paths[1])) {
        fprintf(stderr, "usage: unload_test LIBTOV LIBTOV_HOST (existing files)\n");
        return 1;
    }
    void *lib = dlopen(paths[0], RTLD_NOW | RTLD_LOCAL);
    if (!lib) {
        fprintf(stderr, "dlopen: %s\n", dlerror());
        return 1;
    }
    const char *(*version)(void);
    char *(*copy)(const char *, const char *);
    unsigned (*release)(void *);
    uint32_t (*encode)(const void *, uint8_t *, uint32_t, void *, uint32_t *, uintptr_t);
    *(void **)&version = dlsym(lib, "tov_version");
    *(void **)&encode = dlsym(lib, "kesh_tov_datatree_encode_ext");
    *(void **)&copy = dlsym(lib, "tov_strdup");
    *(void **)&release = dlsym(lib, "kor_named_free");
    if (!version || !copy || !release || !encode) {
        fprintf(stderr, "dlsym: %s\n", dlerror());
        return 1;
    }
    int failed = 0;
    char *text = copy(version(), "unload test");
    printf("loaded %s\n", text ? text : "(no copy)");
    release(text);
    /* The encoder keeps its last measurement per thread, in the static TLS space. */
    static uint64_t empty_tree[64];
    if (encode(empty_tree, NULL, 0, NULL, NULL, 0) != 0) {
        fprintf(stderr, "an empty data tree does not measure 0\n");
        failed = 1;
    }
    for (int i = 0; i < 2; ++i)
        if (!mapped(paths[i])) {
            fprintf(stderr, "%s: not mapped after dlopen; the check would prove nothing\n", paths[i]);
            failed = 1;
        }
    dlclose(lib);
    for (int i = 0; i < 2; ++i)
        if (mapped(paths[i])) {
            fprintf(stderr, "%s: still mapped after dlclose\n", paths[i]);
            failed = 1;
        }
    return failed;
}
