// SPDX-License-Identifier: BSD-3-Clause
// Trace-ring files: checksum, validation, the runtime directory and the reader.
#include "platform/trace_ring.hpp"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <mutex>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <type_traits>
#include <unistd.h>

namespace tov::detail::ring {

uint32_t record_checksum(const char *text, uint32_t length, uint32_t flags, uint32_t type) {
    // Four bytes per multiply-and-rotate step, then the tail byte by byte; seeded with the record's
    // fixed words. Order-sensitive, so bytes of two writers mixed in one slot change it.
    uint32_t h = 0x9e3779b9u ^ length;
    auto mix = [&h](uint32_t word) {
        h ^= word * 0xcc9e2d51u;
        h = ((h << 13) | (h >> 19)) * 5u + 0xe6546b64u;
    };
    mix(flags);
    mix(type);
    uint32_t i = 0;
    for (; i + 4 <= length; i += 4) {
        uint32_t word;
        std::memcpy(&word, text + i, 4);
        mix(word);
    }
    for (; i < length; ++i) mix(static_cast<unsigned char>(text[i]));
    h ^= h >> 16;
    h *= 0x85ebca6bu;
    return h ^ (h >> 13);
}

// Text moves in machine words: 8 bytes where they are native, 4 on i386.
using Word = std::conditional_t<sizeof(void *) == 8, uint64_t, uint32_t>;
static_assert(8 % sizeof(Word) == 0 && std::atomic_ref<Word>::is_always_lock_free);

void store_text(unsigned char *slot_text, const char *text, uint32_t length) {
    auto *words = reinterpret_cast<Word *>(slot_text);
    for (uint32_t i = 0; i < length; i += sizeof(Word)) {
        Word w = 0;
        std::memcpy(&w, text + i, std::min<uint32_t>(sizeof(Word), length - i));
        std::atomic_ref<Word>(words[i / sizeof(Word)]).store(w, std::memory_order_relaxed);
    }
}

void load_text(const unsigned char *slot_text, char *out, uint32_t length) {
    auto *words = reinterpret_cast<Word *>(const_cast<unsigned char *>(slot_text));
    for (uint32_t i = 0; i < length; i += sizeof(Word)) {
        Word w = std::atomic_ref<Word>(words[i / sizeof(Word)]).load(std::memory_order_relaxed);
        std::memcpy(out + i, &w, std::min<uint32_t>(sizeof(Word), length - i));
    }
}

namespace {

// Guarded mappings. Registration takes the mutex and publishes an entry by its begin address.
// The handler may interrupt anything, even a sanitizer's bookkeeping of an atomic access, so it
// waits for nothing: it reads the table with volatile loads of aligned words (read whole, as the
// kernel's READ_ONCE relies on), is not instrumented, and maps with a raw system call.
struct Guard {
    uintptr_t begin = 0;
    size_t size = 0;
    uint32_t lost = 0;
};
constexpr int kGuards = 4096;
Guard g_guards[kGuards];
std::mutex g_guard_mutex;
struct sigaction g_previous_bus;
bool g_handler_installed = false;

template <class T> T read_once(const T &field) { return *static_cast<const volatile T *>(&field); }

__attribute__((no_sanitize("thread"))) bool rescue(uintptr_t address) {
    for (Guard &g : g_guards) {
        const uintptr_t begin = read_once(g.begin);
        const size_t size = read_once(g.size);
        if (begin == 0 || address < begin || address - begin >= size) continue;
        // Private zero pages in place of the file's: the faulting access repeats on them, and
        // whatever is written there is dropped with the mapping.
#ifdef SYS_mmap2
        const long p = syscall(SYS_mmap2, begin, size, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_FIXED, -1, 0);
#else
        const long p = syscall(SYS_mmap, begin, size, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_FIXED, -1, 0);
#endif
        if (p != static_cast<long>(begin)) return false;
        *static_cast<volatile uint32_t *>(&g.lost) = 1;
        return true;
    }
    return false;
}

__attribute__((no_sanitize("thread"))) void on_sigbus(int sig, siginfo_t *info, void *context) {
    const int saved_errno = errno;
    const bool rescued = info && info->si_code == BUS_ADRERR && rescue(reinterpret_cast<uintptr_t>(info->si_addr));
    errno = saved_errno;
    if (rescued) return;
    const struct sigaction &prev = g_previous_bus;
    if ((prev.sa_flags & SA_SIGINFO) && prev.sa_sigaction) {
        prev.sa_sigaction(sig, info, context);
    } else if (!(prev.sa_flags & SA_SIGINFO) && prev.sa_handler != SIG_DFL && prev.sa_handler != SIG_IGN) {
        prev.sa_handler(sig);
    } else {
        // The default action: a fault repeats when this returns and then ends the process as it
        // would have; a signal sent by someone is raised again.
        signal(sig, SIG_DFL);
        if (!info || info->si_code <= 0) raise(sig);
    }
}

} // namespace

int guard_mapping(void *base, size_t size) {
    std::lock_guard lock(g_guard_mutex);
    if (!g_handler_installed) {
        struct sigaction sa {};
        sa.sa_sigaction = on_sigbus;
        sa.sa_flags = SA_SIGINFO | SA_ONSTACK | SA_RESTART;
        sigemptyset(&sa.sa_mask);
        if (sigaction(SIGBUS, &sa, &g_previous_bus) != 0) return -1;
        g_handler_installed = true;
    }
    for (int i = 0; i < kGuards; ++i) {
        Guard &g = g_guards[i];
        if (g.begin != 0) continue;
        store_relaxed(g.size, size);
        store_relaxed(g.lost, uint32_t{0});
        std::atomic_ref<uintptr_t>(g.begin).store(reinterpret_cast<uintptr_t>(base), std::memory_order_release);
        return i;
    }
    return -1;
}

void unguard_mapping(int id) {
    if (id < 0 || id >= kGuards) return;
    std::lock_guard lock(g_guard_mutex);
    std::atomic_ref<uintptr_t>(g_guards[id].begin).store(0, std::memory_order_release);
}

bool mapping_lost(int id) {
    return id >= 0 && id < kGuards && std::atomic_ref<uint32_t>(g_guards[id].lost).load(std::memory_order_acquire);
}

namespace {

// Owned by this user and writable by nobody else: neither another user nor a group can plant or
// read rings through it.
bool private_to_us(const struct stat &st) { return st.st_uid == geteuid() && (st.st_mode & (S_IWGRP | S_IWOTH)) == 0; }

} // namespace

int check_private_dir(int fd) {
    struct stat st;
    if (fstat(fd, &st) != 0) return errno;
    if (!S_ISDIR(st.st_mode)) return ENOTDIR;
    return private_to_us(st) ? 0 : EPERM;
}

int check_ring_file(int fd) {
    struct stat st;
    if (fstat(fd, &st) != 0) return errno;
    return S_ISREG(st.st_mode) && private_to_us(st) ? 0 : EPERM;
}

void escape_text(std::string_view text, std::string *out) {
    static constexpr char kHex[] = "0123456789abcdef";
    const auto *p = reinterpret_cast<const unsigned char *>(text.data());
    const size_t n = text.size();
    for (size_t i = 0; i < n;) {
        const unsigned char c = p[i];
        size_t take = 0; // bytes passed through as they are
        if (c >= 0x20 && c < 0x7f) {
            take = 1;
        } else if (c == '\n' || c == '\t') {
            take = 1;
        } else if (c >= 0xc2 && c <= 0xf4) {
            // A UTF-8 sequence: shortest form, no surrogates, at most U+10FFFF, not a C1 control.
            const size_t len = c < 0xe0 ? 2 : c < 0xf0 ? 3 : 4;
            uint32_t cp = c & (0x7f >> len);
            bool ok = i + len <= n;
            for (size_t k = 1; ok && k < len; ++k) {
                ok = (p[i + k] & 0xc0) == 0x80;
                cp = (cp << 6) | (p[i + k] & 0x3f);
            }
            static constexpr uint32_t kMin[] = {0, 0, 0x80, 0x800, 0x10000};
            if (ok && cp >= kMin[len] && cp <= 0x10ffff && !(cp >= 0xd800 && cp <= 0xdfff) && !(cp >= 0x80 && cp <= 0x9f))
                take = len;
        }
        if (take) {
            out->append(text.data() + i, take);
            i += take;
        } else {
            const char esc[4] = {'\\', 'x', kHex[c >> 4], kHex[c & 15]};
            out->append(esc, 4);
            ++i;
        }
    }
}

bool header_valid(const FileHeader &h, uint64_t file_size) {
    if (std::memcmp(h.magic, kMagic, sizeof kMagic) != 0 || h.version != kVersion) return false;
    if (h.header_size != kHeaderSize || h.slot_count < 2) return false;
    if (h.slot_size < kMinSlotSize || h.slot_size > kMaxSlotSize || h.slot_size % 8 != 0) return false;
    uint64_t total = uint64_t{h.slot_count} * h.slot_size;
    return total <= kMaxTotalBytes && file_size == kHeaderSize + total;
}

RingReader::~RingReader() { close(); }

void RingReader::close() {
    unguard_mapping(guard_);
    guard_ = -1;
    if (base_) munmap(base_, size_);
    base_ = nullptr;
    size_ = 0;
    slot_count_ = slot_size_ = 0;
}

int RingReader::open(const std::string &path) {
    close();
    // Non-blocking, so that a FIFO or a device is refused by the type check instead of waiting.
    int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY);
    if (fd < 0) return errno;
    struct stat st;
    if (fstat(fd, &st) != 0) {
        int e = errno;
        ::close(fd);
        return e;
    }
    if (!S_ISREG(st.st_mode) || static_cast<uint64_t>(st.st_size) < sizeof(FileHeader) ||
        static_cast<uint64_t>(st.st_size) > kHeaderSize + kMaxTotalBytes) {
        ::close(fd);
        return EPROTO;
    }
    const size_t size = static_cast<size_t>(st.st_size);
    void *p = mmap(nullptr, size, PROT_READ, MAP_SHARED, fd, 0);
    int e = errno;
    ::close(fd);
    if (p == MAP_FAILED) return e;
    base_ = static_cast<unsigned char *>(p);
    size_ = size;
    guard_ = guard_mapping(p, size);
    if (guard_ < 0) {
        close();
        return ENFILE;
    }
    device_ = st.st_dev;
    inode_ = st.st_ino;
    // The geometry is taken once, checked against the mapping, and never read from the file again.
    FileHeader h;
    std::memcpy(&h, base_, offsetof(FileHeader, writer_pid));
    if (lost() || !header_valid(h, size_)) {
        close();
        return EPROTO;
    }
    slot_count_ = h.slot_count;
    slot_size_ = h.slot_size;
    return 0;
}

uint32_t RingReader::writer_pid() const {
    return base_ ? load_relaxed(reinterpret_cast<const FileHeader *>(base_)->writer_pid) : 0;
}

uint64_t RingReader::next_seq() const {
    if (!base_) return 0;
    auto &h = *reinterpret_cast<FileHeader *>(base_);
    return std::atomic_ref<uint64_t>(h.next_seq).load(std::memory_order_acquire);
}

uint64_t RingReader::oldest_seq() const {
    uint64_t next = next_seq();
    return next > slot_count_ ? next - slot_count_ : 0;
}

bool RingReader::read_slot(uint64_t seq, SlotHeader *out, std::string *text, bool append) const {
    unsigned char *slot = base_ + kHeaderSize + (seq % slot_count_) * uint64_t{slot_size_};
    auto *sh = reinterpret_cast<SlotHeader *>(slot);
    std::atomic_ref<uint64_t> stamp(sh->stamp);
    uint64_t before = stamp.load(std::memory_order_acquire);
    out->stamp = before;
    if (before != stamp_done(seq)) return false;
    out->time_ns = load_relaxed(sh->time_ns);
    out->length = load_relaxed(sh->length);
    out->checksum = load_relaxed(sh->checksum);
    out->flags = load_relaxed(sh->flags);
    out->type = load_relaxed(sh->type);
    out->part = load_relaxed(sh->part);
    out->parts = load_relaxed(sh->parts);
    out->tid = load_relaxed(sh->tid);
    const uint32_t payload = slot_size_ - sizeof(SlotHeader);
    const uint64_t offset = uint64_t{out->part} * payload;
    uint32_t take = 0;
    if (out->length > offset) take = static_cast<uint32_t>(std::min<uint64_t>(payload, out->length - offset));
    size_t at = append ? text->size() : 0;
    text->resize(at + take);
    load_text(slot + sizeof(SlotHeader), text->data() + at, take);
    // The copy is kept only if no writer touched the slot meanwhile.
    std::atomic_thread_fence(std::memory_order_acquire);
    return stamp.load(std::memory_order_relaxed) == before;
}

RingReader::Step RingReader::read(uint64_t *cursor, Record *out) const {
    if (!base_) return Step::End;
    uint64_t next = next_seq();
    uint64_t oldest = oldest_seq();
    if (*cursor < oldest) *cursor = oldest;
    if (*cursor >= next) return Step::End;

    uint64_t seq = *cursor;
    SlotHeader sh;
    std::string text;
    if (!read_slot(seq, &sh, &text, false)) {
        // An older stamp, or this number's busy stamp, is a write still in progress (reserved, not
        // yet finished); a newer stamp means the slot was overwritten, or the copy was torn.
        if (sh.stamp <= stamp_busy(seq) && sh.stamp != stamp_done(seq)) return Step::Busy;
        ++*cursor;
        return Step::Skip;
    }
    const uint64_t payload = slot_size_ - sizeof(SlotHeader);
    if (sh.part != 0 || sh.parts == 0 || sh.parts > slot_count_ || sh.length > sh.parts * payload) {
        ++*cursor;
        return Step::Skip;
    }
    const uint16_t parts = sh.parts;
    const uint32_t length = sh.length;
    for (uint16_t i = 1; i < parts; ++i) {
        if (seq + i >= next) return Step::Busy; // cannot happen once reserved, but stay safe
        SlotHeader more;
        if (!read_slot(seq + i, &more, &text, true)) {
            if (more.stamp <= stamp_busy(seq + i) && more.stamp != stamp_done(seq + i)) return Step::Busy;
            ++*cursor;
            return Step::Skip;
        }
        if (more.part != i || more.parts != parts || more.length != length) {
            ++*cursor;
            return Step::Skip;
        }
    }
    if (text.size() != length || record_checksum(text.data(), length, sh.flags, sh.type) != sh.checksum) {
        ++*cursor;
        return Step::Skip;
    }
    out->seq = seq;
    out->time_ns = sh.time_ns;
    out->flags = sh.flags;
    out->type = sh.type;
    out->tid = sh.tid;
    out->text = std::move(text);
    *cursor = seq + parts;
    return Step::Record;
}

std::vector<Record> RingReader::read_all() const {
    std::vector<Record> records;
    if (!base_) return records;
    uint64_t cursor = oldest_seq();
    const uint64_t end = next_seq();
    Record r;
    while (cursor < end) {
        Step s = read(&cursor, &r);
        if (s == Step::Record) records.push_back(std::move(r));
        else if (s == Step::Busy) ++cursor; // a snapshot does not wait for writers
        else if (s == Step::End) break;
    }
    return records;
}

namespace {

// Makes `path` if missing, then opens and checks it without following a symlink in its place.
int open_private_dir(int at, const char *path, bool create, int *out) {
    if (create && mkdirat(at, path, 0700) != 0 && errno != EEXIST) return errno;
    int fd = openat(at, path, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
    if (fd < 0) {
        int e = errno;
        struct stat st;
        if (e == ENOTDIR && fstatat(at, path, &st, AT_SYMLINK_NOFOLLOW) == 0 && S_ISLNK(st.st_mode)) e = ELOOP;
        return e;
    }
    if (int e = check_private_dir(fd)) {
        ::close(fd);
        return e;
    }
    *out = fd;
    return 0;
}

} // namespace

int runtime_dir(std::string *out, int *fd_out) {
    try {
        std::string dir;
        if (const char *env = std::getenv("TOV_TRACE_DIR"); env && *env) {
            dir = env;
        } else if (const char *xdg = std::getenv("XDG_RUNTIME_DIR"); xdg && *xdg && [&] {
                       struct stat st;
                       return stat(xdg, &st) == 0 && S_ISDIR(st.st_mode);
                   }()) {
            dir = std::string(xdg) + "/tov-trace";
        } else {
            struct stat st;
            const char *base = stat("/dev/shm", &st) == 0 && S_ISDIR(st.st_mode) ? "/dev/shm" : "/tmp";
            dir = std::string(base) + "/tov-trace-" + std::to_string(geteuid());
        }
        *out = dir;
        // Every choice is checked alike: in a shared place such as /dev/shm, a folder someone else
        // made, could write to, or pointed elsewhere by a symlink would let them read or plant rings.
        int fd = -1;
        if (int e = open_private_dir(AT_FDCWD, dir.c_str(), true, &fd)) return e;
        if (fd_out) *fd_out = fd;
        else ::close(fd);
        return 0;
    } catch (...) {
        return ENOMEM;
    }
}

int open_ring_folder(int dir_fd, const char *name, bool create, int *out, const char **leaf) {
    if (!name) return EINVAL;
    const size_t length = strnlen(name, 256);
    if (length == 0 || length > 255 || name[0] == '/') return EINVAL;
    int fd = fcntl(dir_fd, F_DUPFD_CLOEXEC, 0);
    if (fd < 0) return errno;
    for (const char *part = name;;) {
        const char *end = std::strchr(part, '/');
        const size_t n = end ? static_cast<size_t>(end - part) : std::strlen(part);
        if (n == 0 || (n == 1 && part[0] == '.') || (n == 2 && part[0] == '.' && part[1] == '.')) {
            ::close(fd);
            return EINVAL;
        }
        if (!end) {
            *leaf = part;
            *out = fd;
            return 0;
        }
        char folder[256];
        std::memcpy(folder, part, n);
        folder[n] = '\0';
        int next = -1;
        int e = open_private_dir(fd, folder, create, &next);
        ::close(fd);
        if (e) return e;
        fd = next;
        part = end + 1;
    }
}

} // namespace tov::detail::ring
