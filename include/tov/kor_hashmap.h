/* SPDX-License-Identifier: BSD-3-Clause */
/* The platform's hash map, as the host supplies it: an unordered map from caller-owned keys to
 * caller-owned values, with the caller's hash and equality callbacks. The map never copies,
 * frees or looks inside a key or value except through the callbacks.
 *
 * Result codes are errno numbers: 0 success, EINVAL (22) bad argument, ENOMEM (12) out of memory,
 * ENOENT (2) no such key, EEXIST (17) the key is already present.
 *
 * Iteration order is the map's own and changes as the map grows. A tuple handle (one key/value
 * entry) stays valid until that tuple is removed or the map is freed. */
#ifndef TOV_KOR_HASHMAP_H
#define TOV_KOR_HASHMAP_H

#include <stddef.h>
#include <stdint.h>

#include "tov/export.h"

TOV_BEGIN_DECLS

typedef struct kor_hashmap kor_hashmap;             /* opaque */
typedef struct kor_hashmap_tuple kor_hashmap_tuple; /* opaque: one key/value entry */

/* Hash of a key. Equal keys must hash alike. */
typedef uint32_t (*kor_hashmap_hash_fn)(const void *key);
/* Non-zero when the two keys are equal. */
typedef int (*kor_hashmap_cmp_fn)(const void *a, const void *b);
/* Visitor of kor_hashmap_iterate: return 0 to go on, anything else to stop with that value. */
typedef int (*kor_hashmap_visit_fn)(kor_hashmap *map, kor_hashmap_tuple *tuple, void *ctx);

/* Lets the map choose its initial size. */
#define KOR_HASHMAP_DEFAULT_SIZE 0u

/* Creates an empty map sized for about `size` entries and stores it in *map (NULL on failure).
 * EINVAL for a null out pointer or callback, ENOMEM when memory runs out. */
TOV_API int kor_hashmap_create(kor_hashmap **map, uint32_t size, kor_hashmap_hash_fn hash,
                               kor_hashmap_cmp_fn cmp);
/* Releases the map itself; keys and values stay the caller's. NULL is ignored. */
TOV_API void kor_hashmap_free(kor_hashmap *map);

/* Adds (key, value). A null key is EINVAL; a key equal to one present is EEXIST and the map is
 * unchanged; ENOMEM leaves the map unchanged too. The value may be NULL. */
TOV_API int kor_hashmap_insert(kor_hashmap *map, void *key, void *value);
/* Looks `key` up: 0 and the value through *value (which may be NULL to test presence only), or
 * ENOENT; EINVAL for a null map or key. */
TOV_API int kor_hashmap_get(const kor_hashmap *map, const void *key, void **value);
/* Number of entries; 0 for NULL. */
TOV_API uint32_t kor_hashmap_size(const kor_hashmap *map);

/* Walks the entries: the first tuple, then the one after `tuple`; NULL at the end, for an empty
 * or null map, or for a null tuple. Neither calls the callbacks. */
TOV_API kor_hashmap_tuple *kor_hashmap_first(const kor_hashmap *map);
TOV_API kor_hashmap_tuple *kor_hashmap_next(const kor_hashmap *map, const kor_hashmap_tuple *tuple);
/* The key and value of a tuple; NULL for a null tuple. */
TOV_API void *kor_hashmap_key(const kor_hashmap_tuple *tuple);
TOV_API void *kor_hashmap_value(const kor_hashmap_tuple *tuple);

/* Calls `visit` once for every entry. The visitor may remove the tuple it is given (and free
 * its key and value first: removal never looks at the key), but must not otherwise change the
 * map. Returns 0 after the last entry, the visitor's non-zero value when it stops early, or
 * EINVAL for a null map or visitor. */
TOV_API int kor_hashmap_iterate(kor_hashmap *map, kor_hashmap_visit_fn visit, void *ctx);
/* Removes one entry by its tuple handle, without calling the callbacks. EINVAL for a null map or
 * tuple, ENOENT when the tuple is not in this map. */
TOV_API int kor_hashmap_remove_tuple(kor_hashmap *map, kor_hashmap_tuple *tuple);

/* 32-bit hash of `length` bytes (FNV-1a); 0 bytes hash to the FNV offset basis. `data` may be
 * NULL only when `length` is 0. */
TOV_API uint32_t kor_hash_calculate(const void *data, size_t length);

TOV_END_DECLS

#endif
