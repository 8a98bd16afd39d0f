// Trace-ring files: checksum, validation, the runtime directory and the reader.
#include "platform/trace_ring.hpp"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
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

bool header_valid(const FileHeader &h, uint64_t file_size) {
    if (std::memcmp(h.magic, kMagic, sizeof kMagic) != 0 || h.version != kVersion) return false;
    if (h.header_size != kHeaderSize || h.slot_count < 2) return false;
    if (h.slot_size < kMinSlotSize || h.slot_size > kMaxSlotSize || h.slot_size % 8 != 0) return false;
    uint64_t total = uint64_t{h.slot_count} * h.slot_size;
    return total <= kMaxTotalBytes && file_size == kHeaderSize + total;
}

RingReader::~RingReader() { close(); }

void RingReader::close() {
    if (base_) munmap(base_, size_);
    base_ = nullptr;
    size_ = 0;
}

int RingReader::open(const std::string &path) {
    close();
    int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
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
    void *p = mmap(nullptr, static_cast<size_t>(st.st_size), PROT_READ, MAP_SHARED, fd, 0);
    int e = errno;
    ::close(fd);
    if (p == MAP_FAILED) return e;
    base_ = static_cast<unsigned char *>(p);
    size_ = static_cast<size_t>(st.st_size);
    device_ = st.st_dev;
    inode_ = st.st_ino;
    if (!header_valid(header(), size_)) {
        close();
        return EPROTO;
    }
    return 0;
}

uint64_t RingReader::next_seq() const {
    auto &h = const_cast<FileHeader &>(header());
    return std::atomic_ref<uint64_t>(h.next_seq).load(std::memory_order_acquire);
}

uint64_t RingReader::oldest_seq() const {
    uint64_t next = next_seq();
    uint64_t count = header().slot_count;
    return next > count ? next - count : 0;
}

bool RingReader::read_slot(uint64_t seq, SlotHeader *out, std::string *text, bool append) const {
    const FileHeader &h = header();
    unsigned char *slot = base_ + h.header_size + (seq % h.slot_count) * uint64_t{h.slot_size};
    auto *sh = reinterpret_cast<SlotHeader *>(slot);
    std::atomic_ref<uint64_t> stamp(sh->stamp);
    uint64_t before = stamp.load(std::memory_order_acquire);
    if (before != stamp_done(seq)) {
        out->stamp = before;
        return false;
    }
    std::memcpy(out, sh, sizeof *out);
    uint32_t payload = h.slot_size - sizeof(SlotHeader);
    uint64_t offset = uint64_t{out->part} * payload;
    uint32_t take = 0;
    if (out->length > offset) take = static_cast<uint32_t>(std::min<uint64_t>(payload, out->length - offset));
    size_t at = append ? text->size() : 0;
    text->resize(at + take);
    std::memcpy(text->data() + at, slot + sizeof(SlotHeader), take);
    // The copy is kept only if no writer touched the slot meanwhile.
    std::atomic_thread_fence(std::memory_order_acquire);
    uint64_t after = stamp.load(std::memory_order_relaxed);
    out->stamp = before;
    return after == before;
}

RingReader::Step RingReader::read(uint64_t *cursor, Record *out) const {
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
    if (sh.part != 0 || sh.parts == 0) {
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

int ensure_private_dir(const std::string &dir) {
    if (mkdir(dir.c_str(), 0700) != 0 && errno != EEXIST) return errno;
    struct stat st;
    if (lstat(dir.c_str(), &st) != 0) return errno;
    if (!S_ISDIR(st.st_mode)) return ENOTDIR;
    // In a shared place such as /dev/shm, a directory someone else made could be used to read or
    // plant our rings.
    if (st.st_uid != geteuid()) return EPERM;
    return 0;
}

} // namespace

int runtime_dir(std::string *out) {
    try {
        if (const char *dir = std::getenv("TOV_TRACE_DIR"); dir && *dir) {
            *out = dir;
            if (mkdir(dir, 0700) != 0 && errno != EEXIST) return errno;
            struct stat st;
            if (stat(dir, &st) != 0) return errno;
            return S_ISDIR(st.st_mode) ? 0 : ENOTDIR;
        }
        if (const char *xdg = std::getenv("XDG_RUNTIME_DIR"); xdg && *xdg) {
            struct stat st;
            if (stat(xdg, &st) == 0 && S_ISDIR(st.st_mode)) {
                *out = std::string(xdg) + "/tov-trace";
                return ensure_private_dir(*out);
            }
        }
        struct stat st;
        const char *base = stat("/dev/shm", &st) == 0 && S_ISDIR(st.st_mode) ? "/dev/shm" : "/tmp";
        *out = std::string(base) + "/tov-trace-" + std::to_string(geteuid());
        return ensure_private_dir(*out);
    } catch (...) {
        return ENOMEM;
    }
}

int ring_path(const std::string &dir, const char *name, std::string *out) {
    if (!name) return EINVAL;
    size_t length = strnlen(name, 256);
    if (length == 0 || length > 255 || name[0] == '/') return EINVAL;
    // Every '/'-separated part must be a plain name.
    for (const char *part = name;;) {
        const char *end = std::strchr(part, '/');
        size_t n = end ? static_cast<size_t>(end - part) : std::strlen(part);
        if (n == 0 || (n == 1 && part[0] == '.') || (n == 2 && part[0] == '.' && part[1] == '.'))
            return EINVAL;
        if (!end) break;
        part = end + 1;
    }
    try {
        *out = dir + "/" + name;
    } catch (...) {
        return ENOMEM;
    }
    return 0;
}

} // namespace tov::detail::ring
