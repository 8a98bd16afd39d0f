// SPDX-License-Identifier: BSD-3-Clause
// Host trace-buffer service: rings in memory-mapped files (format in trace_ring.hpp).
//
// Handles index a fixed table and carry a generation, so a closed or invented handle is refused
// with EBADF. Each table entry counts the writes in progress on it; close waits for them before it
// unmaps, while a write only ever does one compare-and-swap to enter, so writers never wait.
//
// A ring file is made complete (space reserved, header written) under a temporary name and linked
// into place, which fails if the name exists: of several processes creating one ring at the same
// moment exactly one file wins and every process ends up writing to it.
#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <mutex>
#include <sched.h>
#include <algorithm>
#include <string>
#include <sys/file.h>
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
    int guard; // see guard_mapping: set when the file was cut short under us
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

// Closes a descriptor when it goes out of scope.
struct Fd {
    int fd = -1;
    ~Fd() {
        if (fd >= 0) close(fd);
    }
};

// Reserves the file's blocks, so that no later write into the mapping can find the file system
// full (which would be SIGBUS). File systems without fallocate cannot reserve for an existing
// file; the process that made it reserved with posix_fallocate's fallback already.
int reserve(int fd, size_t size, bool fresh) {
    if (fresh) return posix_fallocate(fd, 0, static_cast<off_t>(size));
    if (fallocate(fd, 0, 0, static_cast<off_t>(size)) == 0) return 0;
    return errno == EOPNOTSUPP || errno == ENOSYS ? 0 : errno;
}

// Makes a complete empty ring under a temporary name in `dir`. Returns 0 or an errno value.
int make_ring_file(int dir, const char *name, uint32_t slot_count, uint32_t slot_size, size_t size, Fd *out,
                   char (&temp)[64]) {
    static std::atomic<uint32_t> counter{0};
    // A name left by a crashed process of the same pid is skipped.
    for (int tries = 0; out->fd < 0 && tries < 100; ++tries) {
        std::snprintf(temp, sizeof temp, ".tov-ring-%d-%u", static_cast<int>(getpid()), counter.fetch_add(1));
        out->fd = openat(dir, temp, O_RDWR | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600);
        if (out->fd < 0 && errno != EEXIST) return errno;
    }
    if (out->fd < 0) return EEXIST;
    FileHeader h{};
    std::memcpy(h.magic, kMagic, sizeof kMagic);
    h.version = kVersion;
    h.header_size = kHeaderSize;
    h.slot_count = slot_count;
    h.slot_size = slot_size;
    h.created_ns = now_ns();
    std::snprintf(h.name, sizeof h.name, "%s", name);
    int e = reserve(out->fd, size, true);
    if (e == 0 && pwrite(out->fd, &h, sizeof h, 0) != static_cast<ssize_t>(sizeof h)) e = errno ? errno : EIO;
    if (e != 0) unlinkat(dir, temp, 0);
    return e;
}

// Maps an open ring file, guarded, if it has the wanted geometry; nullptr otherwise.
unsigned char *map_ring(int fd, uint32_t slot_count, uint32_t slot_size, size_t size, int *guard) {
    struct stat st;
    if (fstat(fd, &st) != 0 || static_cast<uint64_t>(st.st_size) != size) return nullptr;
    void *p = mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    if (p == MAP_FAILED) return nullptr;
    *guard = guard_mapping(p, size);
    FileHeader h;
    std::memcpy(&h, p, offsetof(FileHeader, writer_pid));
    if (*guard < 0 || mapping_lost(*guard) || !header_valid(h, size) || h.slot_count != slot_count ||
        h.slot_size != slot_size) {
        unguard_mapping(*guard);
        munmap(p, size);
        return nullptr;
    }
    return static_cast<unsigned char *>(p);
}

// Whether `leaf` in `dir` still names the file open as `fd`.
bool still_named(int dir, const char *leaf, int fd) {
    struct stat named, mine;
    return fstatat(dir, leaf, &named, AT_SYMLINK_NOFOLLOW) == 0 && fstat(fd, &mine) == 0 &&
           named.st_dev == mine.st_dev && named.st_ino == mine.st_ino;
}

// Opens the ring `leaf` in `dir`, creating it if missing and replacing a file of another geometry
// (or one that is no ring); refuses a file another user owns or can write. Returns 0 or an errno
// value, with the guarded mapping in `*base`.
int open_or_create(int dir, const char *name, const char *leaf, uint32_t slot_count, uint32_t slot_size,
                   size_t size, unsigned char **base, int *guard) {
    // Openers in this folder take turns, so two of them cannot both replace a wrong file and
    // each keep its own; where the file system has no locks, the rounds below still converge for
    // new rings, which link cannot place twice.
    const bool locked = flock(dir, LOCK_EX) == 0;
    struct Unlock {
        int dir;
        bool locked;
        ~Unlock() {
            if (locked) flock(dir, LOCK_UN);
        }
    } unlock{dir, locked};
    // Each round ends on a file or is lost to a process that changed the name meanwhile.
    for (int round = 0; round < 64; ++round) {
        Fd existing;
        existing.fd = openat(dir, leaf, O_RDWR | O_NOFOLLOW | O_CLOEXEC | O_NONBLOCK | O_NOCTTY);
        if (existing.fd < 0 && errno != ENOENT) return errno;
        if (existing.fd >= 0) {
            if (int e = check_ring_file(existing.fd)) return e;
            if ((*base = map_ring(existing.fd, slot_count, slot_size, size, guard))) {
                if (int e = reserve(existing.fd, size, false)) {
                    unguard_mapping(*guard);
                    munmap(*base, size);
                    return e;
                }
                return 0;
            }
        }
        Fd fresh;
        char temp[64];
        if (int e = make_ring_file(dir, name, slot_count, slot_size, size, &fresh, temp)) return e;
        // A new name is linked (exactly one of several processes succeeds); a wrong file is
        // replaced, and whoever replaced it last wins, which still_named tells.
        const int placed = existing.fd < 0 ? linkat(dir, temp, dir, leaf, 0) : renameat(dir, temp, dir, leaf);
        const int e = placed == 0 ? 0 : errno;
        unlinkat(dir, temp, 0);
        if (e != 0 && e != EEXIST) return e;
        if (e == 0 && still_named(dir, leaf, fresh.fd) &&
            (*base = map_ring(fresh.fd, slot_count, slot_size, size, guard)))
            return 0;
    }
    return EAGAIN;
}

int open_ring(const char *name, uint32_t slot_count, uint32_t total_bytes, Ring **out) {
    if (slot_count < 2 || total_bytes / slot_count < kMinSlotSize) return EINVAL;
    uint32_t slot_size = (total_bytes / slot_count) & ~7u; // keeps every slot's stamp aligned
    if (slot_size > kMaxSlotSize || uint64_t{slot_count} * slot_size > kMaxTotalBytes) return EINVAL;
    size_t size = kHeaderSize + size_t{slot_count} * slot_size;

    std::string dir_path;
    Fd top, folder;
    const char *leaf = nullptr;
    if (int e = runtime_dir(&dir_path, &top.fd)) return e;
    if (int e = open_ring_folder(top.fd, name, true, &folder.fd, &leaf)) return e;
    unsigned char *base = nullptr;
    int guard = -1;
    if (int e = open_or_create(folder.fd, name, leaf, slot_count, slot_size, size, &base, &guard)) return e;
    store_relaxed(reinterpret_cast<FileHeader *>(base)->writer_pid, static_cast<uint32_t>(getpid()));
    auto *ring = static_cast<Ring *>(kor_named_malloc(sizeof(Ring), "trace buffer handle", 0));
    if (!ring) {
        unguard_mapping(guard);
        munmap(base, size);
        return ENOMEM;
    }
    *ring = Ring{base, size, slot_count, slot_size, guard};
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
        // A writer overtaken after its claim keeps writing words the newer one also writes; the
        // checksum makes the reader drop the mix, and the stamp below is then not completed.
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
        store_relaxed(sh->time_ns, time);
        store_relaxed(sh->length, length);
        store_relaxed(sh->checksum, checksum);
        store_relaxed(sh->flags, flags);
        store_relaxed(sh->type, type);
        store_relaxed(sh->part, static_cast<uint16_t>(part));
        store_relaxed(sh->parts, static_cast<uint16_t>(parts));
        store_relaxed(sh->tid, tid);
        uint32_t offset = part * payload;
        if (length > offset) store_text(slot + sizeof(SlotHeader), text + offset, std::min(length - offset, payload));
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
    if (mapping_lost(r.guard)) {
        result = EIO;
    } else if (length <= max_length) {
        uint32_t parts = length == 0 ? 1 : static_cast<uint32_t>((length + payload - 1) / payload);
        write_record(r, flags, type, text, static_cast<uint32_t>(length), parts);
        result = mapping_lost(r.guard) ? EIO : 0;
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
    unguard_mapping(entry.ring->guard);
    munmap(entry.ring->base, entry.ring->size);
    kor_named_free(entry.ring);
    entry.ring = nullptr;
    entry.state.store(uint64_t{generation} << kGenShift, std::memory_order_release);
    return 0;
}

TOV_API int trace_buffer_delete(const char *name) {
    try {
        std::string dir;
        Fd top, folder;
        const char *leaf = nullptr;
        if (int e = ring::runtime_dir(&dir, &top.fd)) return e;
        if (int e = ring::open_ring_folder(top.fd, name, false, &folder.fd, &leaf)) return e;
        return unlinkat(folder.fd, leaf, 0) == 0 ? 0 : errno;
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
