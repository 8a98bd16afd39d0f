// SPDX-License-Identifier: BSD-3-Clause
// The trace-ring file format, shared by the writer (trace_buffer.cc), the reader tool and tests.
//
// A ring file is a 4096-byte header followed by `slot_count` slots of `slot_size` bytes. Records are
// numbered by a 64-bit sequence; record part `seq` lives in slot `seq % slot_count`. A writer
// reserves as many consecutive sequence numbers as its record needs with one fetch_add on the
// header's `next_seq`, so reserving never waits, and old records are overwritten simply by reusing
// their slots. Each slot carries a stamp: 0 for never written, 2(seq+1) once part `seq` is complete,
// 2(seq+1)+1 while a writer is filling it. Readers copy a slot between two loads of its stamp and
// keep it only when the stamp was complete and unchanged; a checksum over the record catches the
// rare writer that was lapped mid-copy by one a whole ring ahead. All fields have fixed sizes and
// offsets, so i386 and x86-64 processes read each other's rings.
//
// Everything two parties may touch at once (stamps, slot headers, text) is read and written with
// relaxed atomic word operations, so a writer overtaken by another costs a record, never a data
// race. Mappings are guarded: a ring file cut short under a process (another process truncating
// it) marks the ring lost instead of killing the process with SIGBUS.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace tov::detail::ring {

inline constexpr char kMagic[8] = {'T', 'O', 'V', 'R', 'I', 'N', 'G', '1'};
inline constexpr uint32_t kVersion = 1;
inline constexpr uint32_t kHeaderSize = 4096;
inline constexpr uint32_t kMinSlotSize = 64;
inline constexpr uint32_t kMaxSlotSize = 65536;
inline constexpr uint64_t kMaxTotalBytes = uint64_t{1} << 30;

struct FileHeader {
    char magic[8];
    uint32_t version;
    uint32_t header_size;
    uint32_t slot_count;
    uint32_t slot_size;
    uint64_t created_ns;    // CLOCK_REALTIME when the ring was made
    uint32_t writer_pid;    // the process that opened the ring last
    uint32_t reserved0;
    alignas(8) uint64_t next_seq; // next sequence number to reserve; accessed atomically only
    char name[256];               // the ring's name, NUL-terminated
};
static_assert(offsetof(FileHeader, next_seq) == 40 && sizeof(FileHeader) == 304);

struct SlotHeader {
    alignas(8) uint64_t stamp; // accessed atomically only
    uint64_t time_ns;          // CLOCK_REALTIME when the record was written
    uint32_t length;           // the whole record's text bytes
    uint32_t checksum;         // of the whole record
    uint32_t flags;            // as given to trace_buffer_write
    uint32_t type;             // as given to trace_buffer_write
    uint16_t part;             // this slot's part of the record, from 0
    uint16_t parts;            // slots the record spans
    uint32_t tid;              // writing thread
};
static_assert(sizeof(SlotHeader) == 40 && offsetof(SlotHeader, part) == 32);

static_assert(std::atomic_ref<uint64_t>::is_always_lock_free,
              "rings are shared between processes, which needs lock-free 64-bit atomics");

constexpr uint64_t stamp_done(uint64_t seq) { return (seq + 1) << 1; }
constexpr uint64_t stamp_busy(uint64_t seq) { return ((seq + 1) << 1) | 1; }

// Copies between a slot's text area and private memory in relaxed atomic words. `slot_text` is
// 8-byte aligned and its area extends to a multiple of 8 bytes past `length` (slot payloads are
// multiples of 8); the tail of the last word is zero-filled on store.
void store_text(unsigned char *slot_text, const char *text, uint32_t length);
void load_text(const unsigned char *slot_text, char *out, uint32_t length);

template <class T> T load_relaxed(const T &field) {
    return std::atomic_ref<T>(const_cast<T &>(field)).load(std::memory_order_relaxed);
}
template <class T> void store_relaxed(T &field, T value) {
    std::atomic_ref<T>(field).store(value, std::memory_order_relaxed);
}

// Registers a shared mapping of a ring file so that a SIGBUS inside it (its file was truncated)
// replaces the mapping with private zero pages and marks it lost, instead of ending the process.
// The handler is installed with the first registration and passes every other SIGBUS on to the
// handler that was in place. Returns a guard id, or -1 when the guard table is full.
int guard_mapping(void *base, size_t size);
// Forgets a mapping; call before unmapping it. Negative ids are ignored.
void unguard_mapping(int id);
// Whether a SIGBUS has replaced the mapping since it was registered.
bool mapping_lost(int id);

// Checks an open directory for holding rings: a directory owned by this user that nobody else can
// write to. Returns 0, ENOTDIR or EPERM.
int check_private_dir(int fd);
// Checks an open ring file: a regular file owned by this user that nobody else can write to.
// Returns 0 or EPERM.
int check_ring_file(int fd);

// Appends `text` to `out` with bytes that could steer a terminal shown as \xNN: C0 controls
// except newline and tab, DEL, and every byte that is not part of valid UTF-8 or encodes a C1
// control.
void escape_text(std::string_view text, std::string *out);

// Checksum of a record: its text, length, flags and type. Cheap enough per record, and unlike a
// plain sum it notices bytes of two different writers mixed in one slot.
uint32_t record_checksum(const char *text, uint32_t length, uint32_t flags, uint32_t type);

// Whether a header describes a usable ring of `file_size` bytes.
bool header_valid(const FileHeader &h, uint64_t file_size);

// One record as a reader sees it.
struct Record {
    uint64_t seq = 0; // sequence number of its first part
    uint64_t time_ns = 0;
    uint32_t flags = 0;
    uint32_t type = 0;
    uint32_t tid = 0;
    std::string text;
};

// A read-only view of a ring file, for readers in any process.
class RingReader {
  public:
    RingReader() = default;
    RingReader(const RingReader &) = delete;
    RingReader &operator=(const RingReader &) = delete;
    ~RingReader();

    // Maps the ring file at `path`. Returns 0, an errno value, or EPROTO for a file that is not a
    // ring (checked without blocking, so a FIFO or device is refused too).
    int open(const std::string &path);
    void close();
    bool is_open() const { return base_ != nullptr; }

    // Geometry as checked at open; later changes to the file's header are ignored.
    uint32_t slot_count() const { return slot_count_; }
    uint32_t slot_size() const { return slot_size_; }
    uint32_t writer_pid() const;
    // The file was cut short since it was opened; what was mapped reads as empty.
    bool lost() const { return mapping_lost(guard_); }
    uint64_t next_seq() const;
    // The oldest sequence number still possibly held.
    uint64_t oldest_seq() const;
    // Device and inode of the mapped file, to notice a ring that was deleted and re-created.
    uint64_t device() const { return device_; }
    uint64_t inode() const { return inode_; }

    // Outcome of reading at one sequence number.
    enum class Step { Record, Skip, Busy, End };
    // Reads the record starting at `*cursor`. Record: `out` is filled and `*cursor` moves past it.
    // Skip: the slot is overwritten, torn or the middle of a record; `*cursor` moves on by one.
    // Busy: a writer is filling it (or died doing so); `*cursor` stays. End: nothing more yet.
    Step read(uint64_t *cursor, Record *out) const;
    // All complete records from the oldest, in order.
    std::vector<Record> read_all() const;

  private:
    bool read_slot(uint64_t seq, SlotHeader *header, std::string *text, bool append) const;

    unsigned char *base_ = nullptr;
    size_t size_ = 0;
    uint32_t slot_count_ = 0, slot_size_ = 0;
    int guard_ = -1;
    uint64_t device_ = 0, inode_ = 0;
};

// The runtime directory rings live in, made if missing and checked like check_private_dir (a
// symlink in its place is refused with ELOOP). Returns 0 or an errno value; with `fd`, an open
// descriptor of the checked directory is handed back.
int runtime_dir(std::string *out, int *fd = nullptr);

// Opens the folder of a ring below the runtime directory `dir_fd`, walking (and with `create`
// making) the folders its name holds, each checked like the runtime directory. Names that could
// leave the directory (absolute, ".", "..", empty parts) are EINVAL. `*leaf` points at the file
// name within `name`. Returns 0 or an errno value; `*out` is then an open descriptor.
int open_ring_folder(int dir_fd, const char *name, bool create, int *out, const char **leaf);

} // namespace tov::detail::ring
