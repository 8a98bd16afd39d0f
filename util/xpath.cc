// SPDX-License-Identifier: BSD-3-Clause
// The XPath builder: an error path grown at its front, one step per level of the tree being
// unwound, with one short alias per namespace, then copied with its namespace declarations into
// an error record.
#include <cerrno>
#include <cstdio>
#include <cstring>

#include "tov/kor_alloc.h"
#include "tov/xpath.h"
#include "util/safe_str.hpp"

namespace tov::detail {
namespace {

// Bytes of an alias: "ns", the widest 32-bit number and the terminator. Computed once; two
// threads racing here compute the same value.
size_t alias_size() {
    static size_t size = 0;
    if (size == 0)
        size = static_cast<size_t>(std::snprintf(nullptr, 0, "%d", 0x7fffffff)) + 3;
    return size;
}

// The alias of `ns`, registered as ns<n> on first use. 0, EINVAL or ENOMEM.
int alias_of(XPathContext *ctx, const char *ns, const char **alias) {
    if (!ctx || !ns)
        return EINVAL;
    const size_t size = alias_size();
    void *found = nullptr;
    int rc = kor_hashmap_get(ctx->aliases, ns, &found);
    if (rc == 0) {
        *alias = static_cast<const char *>(found);
        return found ? 0 : EINVAL;
    }
    if (rc != ENOENT)
        return rc;
    auto *name = static_cast<char *>(kor_named_calloc(1, size, "namespace alias", 0));
    if (!name)
        return ENOMEM;
    char *key = tov_strdup(ns, "copy of namespace for xpath attribute");
    if (!key) {
        kor_named_free(name);
        return ENOMEM;
    }
    std::snprintf(name, size, "ns%d", static_cast<int>(kor_hashmap_size(ctx->aliases) + 1));
    if (kor_hashmap_insert(ctx->aliases, key, name) != 0) {
        kor_named_free(key);
        kor_named_free(name);
        return ENOMEM;
    }
    *alias = name;
    return 0;
}

// Adds `n` to `total` unless the sum would reach the longest string the library handles.
bool add(size_t &total, size_t n) {
    if (n >= kStrMax - total)
        return false;
    total += n;
    return true;
}

int free_entry(kor_hashmap *map, kor_hashmap_tuple *tuple, void *) {
    kor_named_free(kor_hashmap_key(tuple));
    kor_named_free(kor_hashmap_value(tuple));
    kor_hashmap_remove_tuple(map, tuple);
    return 0;
}

void release_attributes(Attribute *attributes, uint32_t count) {
    for (uint32_t i = 0; i < count; ++i) {
        kor_named_free(attributes[i].name);
        kor_named_free(attributes[i].value);
    }
    kor_named_free(attributes);
}

} // namespace
} // namespace tov::detail

using namespace tov::detail;

extern "C" {

TOV_API int xpath_context_init(XPathContext *ctx) {
    if (!ctx)
        return 0;
    return kor_hashmap_create(&ctx->aliases, KOR_HASHMAP_DEFAULT_SIZE, tov_string_hash_calc,
                              tov_string_hash_cmp);
}

TOV_API void xpath_context_destroy(XPathContext *ctx) {
    if (!ctx)
        return;
    if (ctx->aliases) {
        kor_hashmap_iterate(ctx->aliases, free_entry, nullptr);
        kor_hashmap_free(ctx->aliases);
        ctx->aliases = nullptr;
    }
    kor_named_free(ctx->path);
    ctx->path = nullptr;
}

TOV_API int xpath_prepend(XPathContext *ctx, const char *name, const char *ns, const char *const *key_names,
                          const char *const *key_values, uint32_t key_count) {
    if (!ctx || !name || (key_count != 0 && (!key_names || !key_values)))
        return EINVAL;
    // Every text is measured before anything is allocated; one that reaches the limit is refused.
    auto step = bounded(name);
    if (!step)
        return EINVAL;
    size_t size = 0;
    if (!add(size, step->size()))
        return EINVAL;
    if (ctx->path) {
        auto old = bounded(ctx->path);
        if (!old || !add(size, old->size() + 2))
            return EINVAL; // "/" and the terminator
    } else {
        size += 1;
    }
    for (uint32_t i = 0; i < key_count; ++i) {
        auto k = bounded(key_names[i]), v = bounded(key_values[i]);
        // The first key brings "[", " = '", "'" and "]"; each further one " and ", " = '" and "'".
        if (!k || !v || !add(size, k->size() + v->size() + (i == 0 ? 7 : 10)))
            return EINVAL;
    }
    const char *alias = nullptr;
    if (ns) {
        if (int rc = alias_of(ctx, ns, &alias))
            return rc;
        if (!add(size, std::strlen(alias) + 1))
            return EINVAL; // ":"
    }
    auto *path = static_cast<char *>(kor_named_calloc(1, size, "xpath error string", 0));
    if (!path)
        return ENOMEM;
    char *end = path;
    if (alias)
        end = tov_stpcpy(tov_stpcpy(end, alias), ":");
    end = tov_stpcpy(end, name);
    for (uint32_t i = 0; i < key_count; ++i) {
        end = tov_stpcpy(end, i == 0 ? "[" : " and ");
        end = tov_stpcpy(tov_stpcpy(tov_stpcpy(tov_stpcpy(end, key_names[i]), " = '"), key_values[i]), "'");
    }
    if (key_count != 0)
        end = tov_stpcpy(end, "]");
    if (ctx->path)
        tov_stpcpy(tov_stpcpy(end, "/"), ctx->path);
    kor_named_free(ctx->path);
    ctx->path = path;
    return 0;
}

TOV_API int xpath_to_tov_error(XPathContext *ctx, Error *error) {
    if (!ctx || !error)
        return EINVAL;
    DataTree &target = error->error_path;
    if (tov_bit_is_set(target.present, TOV_DATATREE_BIT_VALUE) && target.value)
        return EINVAL;
    target.value = tov_strdup(ctx->path, "copy of xpath path");
    tov_bit_set(target.present, TOV_DATATREE_BIT_VALUE); // present even when empty
    if (target.attributes)
        return EINVAL;
    const uint32_t count = kor_hashmap_size(ctx->aliases);
    if (count == 0)
        return 0;
    auto *attributes = static_cast<Attribute *>(
        kor_named_calloc(count, sizeof(Attribute), "query transformer namespace attributes", 0));
    if (!attributes)
        return ENOMEM;
    uint32_t filled = 0;
    for (kor_hashmap_tuple *t = kor_hashmap_first(ctx->aliases); t && filled < count;
         t = kor_hashmap_next(ctx->aliases, t)) {
        Attribute &a = attributes[filled];
        a.value = tov_strdup(static_cast<const char *>(kor_hashmap_key(t)), "copy of xpath namespace tag");
        if (!a.value ||
            tov_strdup_concat("xmlns:", static_cast<const char *>(kor_hashmap_value(t)),
                              "prepended 'xmlns:' to xpath namespace value", &a.name) != 0 ||
            !a.name) {
            release_attributes(attributes, filled + 1);
            return ENOMEM;
        }
        tov_bit_set(a.present, TOV_ATTRIBUTE_BIT_NAME);
        tov_bit_set(a.present, TOV_ATTRIBUTE_BIT_VALUE);
        ++filled;
    }
    target.attributes = attributes;
    target.attributes_count = filled;
    tov_bit_set(target.present, TOV_DATATREE_BIT_ATTRIBUTES);
    return 0;
}

} // extern "C"
