/* SPDX-License-Identifier: BSD-3-Clause */
/* A user's program: builds against the installed headers and library only. */
#include <stdio.h>
#include <string.h>
#include <tov/codec.h>
#include <tov/kor_alloc.h>
#include <tov/strings.h>
#include <tov/version.h>

int main(void) {
    DataTree node;
    uint8_t wire[16];
    memset(&node, 0, sizeof node);
    node.name = "eth0";
    tov_bit_set(node.present, TOV_DATATREE_BIT_NAME);
    uint32_t n = kesh_tov_datatree_encode_ext(&node, wire, sizeof wire, NULL, NULL, 0);
    DataTree back;
    if (n != 6 || kesh_tov_datatree_decode_ext(&back, wire, n, NULL, 0, 0) != TOV_CODEC_NO_MEMORY) {
        fprintf(stderr, "unexpected codec result\n");
        return 1;
    }
    /* The library's strings come from the platform's named allocator and go back to it. */
    char *version = tov_strdup(tov_version(), "consumer");
    if (!version || strcmp(version, TOV_VERSION_STRING) != 0) {
        fprintf(stderr, "library %s, headers %s\n", version ? version : "?", TOV_VERSION_STRING);
        return 1;
    }
    kor_named_free(version);
    puts("consumer ok");
    return 0;
}
