// Host trace-buffer service: rings in memory-mapped files (format in trace_ring.hpp).
//
// Handles index a fixed table and carry a generation, so a closed or invented handle is refused
// with EBADF. Each table entry counts the writes in progress on it; close waits for them before it
// unmaps, while a write only ever does one compare-and-swap to enter, so writers never wait.
#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <mutex>
#include <sched.h>
#include <string>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include "platform/trace_ring.hpp"
#include "tov/kor_alloc.h"
#include "tov/trace_buffer.h"

namespace tov::detail {
namespace {

using namespace ring;

struct Ring {
    unsigned char *base;
    size_t size;
    uint32_t slot_count;
    uint32_t slot_size;
};

// Entry state: bits 0..31 writes in progress, bit 32 in use, bit 33 closing, bits 40..61 the
// generation that the entry's current handle carries.
constexpr uint64_t kInUse = uint64_t{1} << 32;
constexpr uint64_t kClosing = uint64_t{1} << 33;
constexpr int kGenShift = 40;
constexpr uint32_t kGenMask = (1u << 22) - 1;
constexpr uint32_t kIndexBits = 10;
constexpr uint32_t kEntries = 1u << kIndexBits;

struct Entry {
    std::atomic<uint64_t> state{0};
    Ring *ring = nullptr;
    uint32_t generation = 0; // of the last handle issued; guarded by the open/close mutex
};

struct Table {
    std::mutex mutex; // serialises open and close; writers never take it
    Entry entries[kEntries];
};

Table &table() {
    static Table *t = new Table; // never destroyed: a late write must still find it
    return *t;
}

uint32_t generation_of(uint64_t state) { return static_cast<uint32_t>(state >> kGenShift) & kGenMask; }

uint64_t now_ns() {
    timespec ts;
    clock_gettime(CLOCK_REALTIME, &ts);
    return static_cast<uint64_t>(ts.tv_sec) * 1000000000u + static_cast<uint64_t>(ts.tv_nsec);
}

uint32_t thread_id() {
    thread_local uint32_t tid = static_cast<uint32_t>(gettid());
    return tid;
}

int make_parents(const std::string &dir, const std::string &path) {
    // Folders named in the ring name, below the runtime directory.
    for (size_t at = dir.size() + 1; (at = path.find('/', at)) != std::string::npos; ++at) {
        std::string folder = path.substr(0, at);
        if (mkdir(folder.c_str(), 0700) != 0 && errno != EEXIST) return errno;
    }
    return 0;
}

// Maps an existing ring file if it has the wanted geometry. Returns the mapping or nullptr.
unsigned char *map_existing(const std::string &path, uint32_t slot_count, uint32_t slot_size, size_t size) {
    int fd = open(path.c_str(), O_RDWR | O_CLOEXEC | O_NOFOLLOW);
    if (fd < 0) return nullptr;
    struct stat st;
    unsigned char *base = nullptr;
    if (fstat(fd, &st) == 0 && S_ISREG(st.st_mode) && static_cast<uint64_t>(st.st_size) == size) {
        void *p = mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
        if (p != MAP_FAILED) {
            base = static_cast<unsigned char *>(p);
            auto *h = reinterpret_cast<FileHeader *>(base);
            if (!header_valid(*h, size) || h->slot_count != slot_count || h->slot_size != slot_size) {
                munmap(p, size);
                base = nullptr;
            }
        }
    }
    close(fd);
    return base;
}

// Creates an empty ring under a temporary name and renames it into place, so a reader never sees
// a half-made header. Returns 0 or an errno value.
int create_ring(const std::string &path, const char *name, uint32_t slot_count, uint32_t slot_size,
                size_t size, unsigned char **out) {
    std::string temp = path + ".XXXXXX";
    int fd = mkostemp(temp.data(), O_CLOEXEC);
    if (fd < 0) return errno;
    int e = 0;
    void *p = MAP_FAILED;
    if (ftruncate(fd, static_cast<off_t>(size)) != 0) e = errno;
    if (e == 0) {
        p = mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
        if (p == MAP_FAILED) e = errno;
    }
    close(fd);
    if (e == 0) {
        auto *h = static_cast<FileHeader *>(p);
        std::memcpy(h->magic, kMagic, sizeof kMagic);
        h->version = kVersion;
        h->header_size = kHeaderSize;
        h->slot_count = slot_count;
        h->slot_size = slot_size;
        h->created_ns = now_ns();
        std::snprintf(h->name, sizeof h->name, "%s", name);
        if (rename(temp.c_str(), path.c_str()) != 0) e = errno;
    }
    if (e != 0) {
        if (p != MAP_FAILED) munmap(p, size);
        unlink(temp.c_str());
        return e;
    }
    *out = static_cast<unsigned char *>(p);
    return 0;
}

int open_ring(const char *name, uint32_t slot_count, uint32_t total_bytes, Ring **out) {
    if (slot_count < 2 || total_bytes / slot_count < kMinSlotSize) return EINVAL;
    uint32_t slot_size = (total_bytes / slot_count) & ~7u; // keeps every slot's stamp aligned
    if (slot_size > kMaxSlotSize || uint64_t{slot_count} * slot_size > kMaxTotalBytes) return EINVAL;
    size_t size = kHeaderSize + size_t{slot_count} * slot_size;

    std::string dir, path;
    if (int e = runtime_dir(&dir)) return e;
    if (int e = ring_path(dir, name, &path)) return e;
    if (int e = make_parents(dir, path)) return e;

    unsigned char *base = map_existing(path, slot_count, slot_size, size);
    if (!base) {
        if (int e = create_ring(path, name, slot_count, slot_size, size, &base)) return e;
    }
    reinterpret_cast<FileHeader *>(base)->writer_pid = static_cast<uint32_t>(getpid());
    auto *ring = static_cast<Ring *>(kor_named_malloc(sizeof(Ring), "trace buffer handle", 0));
    if (!ring) {
        munmap(base, size);
        return ENOMEM;
    }
    *ring = Ring{base, size, slot_count, slot_size};
    *out = ring;
    return 0;
}

void write_record(Ring &r, uint32_t flags, uint32_t type, const char *text, uint32_t length, uint32_t parts) {
    auto *h = reinterpret_cast<FileHeader *>(r.base);
    const uint32_t payload = r.slot_size - sizeof(SlotHeader);
    const uint32_t checksum = record_checksum(text, length, flags, type);
    const uint64_t time = now_ns();
    const uint32_t tid = thread_id();
    uint64_t first = std::atomic_ref<uint64_t>(h->next_seq).fetch_add(parts, std::memory_order_acq_rel);
    for (uint32_t part = 0; part < parts; ++part) {
        uint64_t seq = first + part;
        unsigned char *slot = r.base + kHeaderSize + (seq % r.slot_count) * uint64_t{r.slot_size};
        auto *sh = reinterpret_cast<SlotHeader *>(slot);
        std::atomic_ref<uint64_t> stamp(sh->stamp);
        // Claim the slot unless a writer a whole ring ahead already has it; then this part is
        // older than what the slot holds and is dropped, as overwriting would drop it anyway.
        uint64_t current = stamp.load(std::memory_order_relaxed);
        bool claimed = false;
        while (current < stamp_busy(seq)) {
            if (stamp.compare_exchange_weak(current, stamp_busy(seq), std::memory_order_acquire,
                                            std::memory_order_relaxed)) {
                claimed = true;
                break;
            }
        }
        if (!claimed) continue;
        std::atomic_thread_fence(std::memory_order_release);
        sh->time_ns = time;
        sh->length = length;
        sh->checksum = checksum;
        sh->flags = flags;
        sh->type = type;
        sh->part = static_cast<uint16_t>(part);
        sh->parts = static_cast<uint16_t>(parts);
        sh->tid = tid;
        uint32_t offset = part * payload;
        uint32_t take = length - offset < payload ? length - offset : payload;
        if (length > offset) std::memcpy(slot + sizeof(SlotHeader), text + offset, take);
        uint64_t busy = stamp_busy(seq);
        stamp.compare_exchange_strong(busy, stamp_done(seq), std::memory_order_release,
                                      std::memory_order_relaxed);
    }
}

} // namespace
} // namespace tov::detail

using namespace tov::detail;

extern "C" {

TOV_API int trace_buffer_open(const char *name, uint32_t reserved1, uint32_t reserved2, uint32_t slot_count,
                              uint32_t total_bytes, uint32_t options, trace_buffer_t *out) {
    if (!out) return EINVAL;
    *out = 0;
    if (reserved1 != 0 || reserved2 != 0 || options != 0) return EINVAL;
    Table &t = table();
    std::lock_guard lock(t.mutex);
    uint32_t index = 0;
    while (index < kEntries && (t.entries[index].state.load(std::memory_order_relaxed) & kInUse)) ++index;
    if (index == kEntries) return EMFILE;
    Ring *ring = nullptr;
    int e;
    try {
        e = open_ring(name, slot_count, total_bytes, &ring);
    } catch (...) {
        e = ENOMEM; // a path string could not be made
    }
    if (e != 0) return e;
    Entry &entry = t.entries[index];
    uint32_t generation = (entry.generation + 1) & kGenMask;
    if (generation == 0) generation = 1;
    entry.generation = generation;
    entry.ring = ring;
    entry.state.store((uint64_t{generation} << kGenShift) | kInUse, std::memory_order_release);
    *out = (generation << kIndexBits) | index;
    return 0;
}

TOV_API int trace_buffer_write(trace_buffer_t handle, uint32_t flags, uint32_t type, const char *text) {
    if (!text) return EINVAL;
    Entry &entry = table().entries[handle & (kEntries - 1)];
    const uint32_t generation = handle >> kIndexBits;
    uint64_t state = entry.state.load(std::memory_order_acquire);
    do {
        if (generation == 0 || !(state & kInUse) || (state & kClosing) || generation_of(state) != generation)
            return EBADF;
    } while (!entry.state.compare_exchange_weak(state, state + 1, std::memory_order_acquire,
                                                std::memory_order_acquire));
    Ring &r = *entry.ring;
    const uint32_t payload = r.slot_size - sizeof(SlotHeader);
    // Longest record the ring can hold: all its slots, and no more parts than a slot can number.
    const uint64_t max_parts = r.slot_count < 65535u ? r.slot_count : 65535u;
    const uint64_t max_length = max_parts * payload;
    size_t length = strnlen(text, max_length + 1);
    int result = EMSGSIZE;
    if (length <= max_length) {
        uint32_t parts = length == 0 ? 1 : static_cast<uint32_t>((length + payload - 1) / payload);
        write_record(r, flags, type, text, static_cast<uint32_t>(length), parts);
        result = 0;
    }
    entry.state.fetch_sub(1, std::memory_order_release);
    return result;
}

TOV_API int trace_buffer_close(trace_buffer_t handle) {
    Table &t = table();
    std::lock_guard lock(t.mutex);
    Entry &entry = t.entries[handle & (kEntries - 1)];
    const uint32_t generation = handle >> kIndexBits;
    uint64_t state = entry.state.load(std::memory_order_acquire);
    do {
        if (generation == 0 || !(state & kInUse) || generation_of(state) != generation) return EBADF;
    } while (!entry.state.compare_exchange_weak(state, state | kClosing, std::memory_order_acq_rel,
                                                std::memory_order_acquire));
    // New writes are refused from here on; wait for those already inside.
    while ((entry.state.load(std::memory_order_acquire) & 0xffffffffu) != 0) sched_yield();
    munmap(entry.ring->base, entry.ring->size);
    kor_named_free(entry.ring);
    entry.ring = nullptr;
    entry.state.store(uint64_t{generation} << kGenShift, std::memory_order_release);
    return 0;
}

TOV_API int trace_buffer_delete(const char *name) {
    try {
        std::string dir, path;
        if (int e = ring::runtime_dir(&dir)) return e;
        if (int e = ring::ring_path(dir, name, &path)) return e;
        if (unlink(path.c_str()) != 0) return errno;
        return 0;
    } catch (...) {
        return ENOMEM;
    }
}

TOV_API int trace_buffer_runtime_dir(char *out, size_t capacity) {
    try {
        std::string dir;
        if (int e = ring::runtime_dir(&dir)) return e;
        if (!out || dir.size() >= capacity) return ENAMETOOLONG;
        std::memcpy(out, dir.c_str(), dir.size() + 1);
        return 0;
    } catch (...) {
        return ENOMEM;
    }
}

} // extern "C"
