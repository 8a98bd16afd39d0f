/* SPDX-License-Identifier: BSD-3-Clause */
/* The platform's trace-buffer service, as the host supplies it.
 *
 * A trace ring is a named, fixed-size circle of records that overwrites its oldest records. It
 * lives in a memory-mapped file, so another process (the tov-trace reader) can print it while it is
 * written, and after its writer has crashed. Writing never blocks and never waits for a reader;
 * several threads (and processes) may write to one ring at once.
 *
 * Rings live under the runtime directory: $TOV_TRACE_DIR when set, else $XDG_RUNTIME_DIR/tov-trace,
 * else /dev/shm/tov-trace-<uid> (or /tmp/tov-trace-<uid> where /dev/shm is missing). A ring's name
 * is a relative path below it ("agent-tov/processor.trace"); its folders are made on demand. The
 * runtime directory and every folder below it must be owned by the calling user and writable by
 * nobody else, and must not be symlinks; ring files likewise (regular files, owned by the user,
 * writable by nobody else). Anything else is refused (EPERM; ELOOP for a symlink).
 *
 * A ring has its disk space when it is opened, or does not open (ENOSPC). If its file is cut
 * short while it is open (another process truncating it), the fault that follows is caught: the
 * ring then takes no more records (EIO) until it is opened again, and the process goes on. This
 * installs a SIGBUS handler with the first ring; it passes every other SIGBUS on to the handler
 * that was in place before, and a handler installed later must do the same to keep the
 * protection.
 *
 * Codes are errno values (0 for success); error_code_text turns them into text. */
#ifndef TOV_TRACE_BUFFER_H
#define TOV_TRACE_BUFFER_H

#include <stddef.h>
#include <stdint.h>

#include "tov/export.h"

/* An open ring; 0 is never a valid handle. */
typedef uint32_t trace_buffer_t;

/* Longest ring name, in bytes. */
#define TRACE_BUFFER_NAME_MAX 255

TOV_BEGIN_DECLS

/* Opens the ring `name` with `slot_count` slots (the first size) sharing `total_bytes` of record
 * space (the second size); each slot holds total_bytes / slot_count bytes including a 40-byte
 * header, and a record longer than one slot's payload spans several. An existing ring of the same
 * geometry is reopened with its records kept (so a restarted process does not wipe the record of
 * its crash); any other file of that name is replaced by an empty ring. Processes opening one new
 * ring at the same moment all end up on the same file.
 * `reserved1`, `reserved2` and `options` must be 0. Codes: EINVAL (bad name, sizes or reserved
 * words: at least 2 slots of 64 to 65536 bytes, at most 1 GiB in all), EMFILE (too many open rings),
 * ENOMEM, ENOSPC (no room for the ring), EPERM or ELOOP (see above), or the code of the failing
 * file-system call. */
TOV_API int trace_buffer_open(const char *name, uint32_t reserved1, uint32_t reserved2,
                              uint32_t slot_count, uint32_t total_bytes, uint32_t options,
                              trace_buffer_t *out);
/* Appends the NUL-terminated `text` as one record, overwriting the oldest records as needed.
 * `flags` and `type` are stored with the record. Writers never wait for each other; a writer
 * overtaken by another a whole ring ahead loses its record (readers drop it by its checksum).
 * Returns 0, EBADF (handle 0, closed or unknown), EINVAL (null text), EMSGSIZE (the record needs
 * more slots than the ring has) or EIO (the ring's file was cut short). */
TOV_API int trace_buffer_write(trace_buffer_t handle, uint32_t flags, uint32_t type, const char *text);
/* Unmaps the ring; the file and its records stay. Waits for writes in progress on this handle.
 * Returns 0 or EBADF. */
TOV_API int trace_buffer_close(trace_buffer_t handle);
/* Removes the ring's file; handles still open on it keep writing to the removed file. Returns 0,
 * EINVAL or the code of the failing file-system call (ENOENT when there is no such ring). */
TOV_API int trace_buffer_delete(const char *name);

/* Host-only: writes the runtime directory (made if missing, mode 0700) into `out`. Returns 0,
 * ENAMETOOLONG when it does not fit, or the code of the failing call (for instance EACCES or
 * ENOTDIR, EPERM when the directory belongs to another user or others can write to it, ELOOP
 * when it is a symlink). */
TOV_API int trace_buffer_runtime_dir(char *out, size_t capacity);

TOV_END_DECLS

#endif
