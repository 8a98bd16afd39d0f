// SPDX-License-Identifier: BSD-3-Clause
// Host implementation of the platform's hash map on std::unordered_map. Each stored key carries
// the caller's hash of it, so the container rehashes and compares without calling back, and
// tuple operations (next, remove) find their entry by pointer identity alone: a visitor may free
// a key before removing its tuple. All memory comes from the named allocator.
#include <cerrno>
#include <cstdint>
#include <exception>
#include <new>
#include <unordered_map>
#include <utility>

#include "tov/kor_alloc.h"
#include "tov/kor_hashmap.h"

namespace tov::detail {
namespace {

constexpr const char *kMapLabel = "kor hashmap (kor_hashmap_create)";
constexpr const char *kStorageLabel = "kor hashmap entries and buckets";
// A larger size hint only reserves buckets that may never be used; the map grows on demand.
constexpr uint32_t kMaxSizeHint = 1u << 20;

struct Key {
    void *ptr;
    uint32_t hash;
    bool identity_only; // set on probes that must match the very same key pointer
};

struct KeyHash {
    size_t operator()(const Key &k) const noexcept { return k.hash; }
};

struct KeyEqual {
    kor_hashmap_cmp_fn cmp;
    bool operator()(const Key &a, const Key &b) const {
        if (a.ptr == b.ptr) return true;
        if (a.identity_only || b.identity_only || a.hash != b.hash) return false;
        return cmp(a.ptr, b.ptr) != 0;
    }
};

template <class T> struct NamedAllocator {
    using value_type = T;
    NamedAllocator() noexcept = default;
    template <class U> NamedAllocator(const NamedAllocator<U> &) noexcept {}
    T *allocate(size_t n) {
        if (n > SIZE_MAX / sizeof(T)) throw std::bad_array_new_length();
        void *p = kor_named_malloc(n * sizeof(T), kStorageLabel, 0);
        if (p == nullptr) throw std::bad_alloc();
        return static_cast<T *>(p);
    }
    void deallocate(T *p, size_t) noexcept { kor_named_free(p); }
    template <class U> bool operator==(const NamedAllocator<U> &) const noexcept { return true; }
};

using Entry = std::pair<const Key, void *>;
using Entries = std::unordered_map<Key, void *, KeyHash, KeyEqual, NamedAllocator<Entry>>;

} // namespace
} // namespace tov::detail

struct kor_hashmap {
    kor_hashmap(kor_hashmap_hash_fn h, kor_hashmap_cmp_fn c)
        : hash(h), entries(0, tov::detail::KeyHash{}, tov::detail::KeyEqual{c}) {}
    kor_hashmap_hash_fn hash;
    tov::detail::Entries entries;
};

namespace tov::detail {
namespace {

kor_hashmap_tuple *tuple_of(Entry &e) { return reinterpret_cast<kor_hashmap_tuple *>(&e); }
const Entry *entry_of(const kor_hashmap_tuple *t) { return reinterpret_cast<const Entry *>(t); }

// The container position of a tuple handle, or end() when the handle is not one of this map's.
Entries::iterator locate(Entries &entries, const kor_hashmap_tuple *tuple) {
    const Entry *e = entry_of(tuple);
    auto it = entries.find(Key{e->first.ptr, e->first.hash, true});
    return it != entries.end() && &*it == e ? it : entries.end();
}

} // namespace
} // namespace tov::detail

using namespace tov::detail;

extern "C" {

TOV_API int kor_hashmap_create(kor_hashmap **map, uint32_t size, kor_hashmap_hash_fn hash,
                               kor_hashmap_cmp_fn cmp) {
    if (map == nullptr) return EINVAL;
    *map = nullptr;
    if (hash == nullptr || cmp == nullptr) return EINVAL;
    void *raw = kor_named_malloc(sizeof(kor_hashmap), kMapLabel, 0);
    if (raw == nullptr) return ENOMEM;
    auto *m = new (raw) kor_hashmap(hash, cmp); // the empty container allocates nothing
    if (size != KOR_HASHMAP_DEFAULT_SIZE) {
        try {
            m->entries.reserve(size < kMaxSizeHint ? size : kMaxSizeHint);
        } catch (const std::exception &) {
            m->~kor_hashmap();
            kor_named_free(raw);
            return ENOMEM;
        }
    }
    *map = m;
    return 0;
}

TOV_API void kor_hashmap_free(kor_hashmap *map) {
    if (map == nullptr) return;
    map->~kor_hashmap();
    kor_named_free(map);
}

TOV_API int kor_hashmap_insert(kor_hashmap *map, void *key, void *value) {
    if (map == nullptr || key == nullptr) return EINVAL;
    try {
        bool added = map->entries.try_emplace(Key{key, map->hash(key), false}, value).second;
        return added ? 0 : EEXIST;
    } catch (const std::exception &) { // node or bucket allocation; the map is unchanged
        return ENOMEM;
    }
}

TOV_API int kor_hashmap_get(const kor_hashmap *map, const void *key, void **value) {
    if (map == nullptr || key == nullptr) return EINVAL;
    void *k = const_cast<void *>(key); // probes only; never written through
    auto it = map->entries.find(Key{k, map->hash(key), false});
    if (it == map->entries.end()) return ENOENT;
    if (value != nullptr) *value = it->second;
    return 0;
}

TOV_API uint32_t kor_hashmap_size(const kor_hashmap *map) {
    return map == nullptr ? 0 : static_cast<uint32_t>(map->entries.size());
}

TOV_API kor_hashmap_tuple *kor_hashmap_first(const kor_hashmap *map) {
    if (map == nullptr || map->entries.empty()) return nullptr;
    auto &entries = const_cast<kor_hashmap *>(map)->entries;
    return tuple_of(*entries.begin());
}

TOV_API kor_hashmap_tuple *kor_hashmap_next(const kor_hashmap *map,
                                            const kor_hashmap_tuple *tuple) {
    if (map == nullptr || tuple == nullptr) return nullptr;
    auto &entries = const_cast<kor_hashmap *>(map)->entries;
    auto it = locate(entries, tuple);
    if (it == entries.end() || ++it == entries.end()) return nullptr;
    return tuple_of(*it);
}

TOV_API void *kor_hashmap_key(const kor_hashmap_tuple *tuple) {
    return tuple == nullptr ? nullptr : entry_of(tuple)->first.ptr;
}

TOV_API void *kor_hashmap_value(const kor_hashmap_tuple *tuple) {
    return tuple == nullptr ? nullptr : entry_of(tuple)->second;
}

TOV_API int kor_hashmap_iterate(kor_hashmap *map, kor_hashmap_visit_fn visit, void *ctx) {
    if (map == nullptr || visit == nullptr) return EINVAL;
    // Erasing one element leaves every other iterator valid, so step before visiting.
    for (auto it = map->entries.begin(); it != map->entries.end();) {
        Entry &e = *it++;
        if (int rc = visit(map, tuple_of(e), ctx)) return rc;
    }
    return 0;
}

TOV_API int kor_hashmap_remove_tuple(kor_hashmap *map, kor_hashmap_tuple *tuple) {
    if (map == nullptr || tuple == nullptr) return EINVAL;
    auto it = locate(map->entries, tuple);
    if (it == map->entries.end()) return ENOENT;
    map->entries.erase(it);
    return 0;
}

TOV_API uint32_t kor_hash_calculate(const void *data, size_t length) {
    uint32_t h = 2166136261u;
    const auto *p = static_cast<const unsigned char *>(data);
    for (size_t i = 0; i < length; ++i) h = (h ^ p[i]) * 16777619u;
    return h;
}

} // extern "C"
