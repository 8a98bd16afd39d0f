/* SPDX-License-Identifier: BSD-3-Clause */
/* tov-agent: a sample framework process built on the tov library.
 *
 * It starts up in the library's order (agent name, root debug component, sub-components, session
 * store), serves requests from many clients over a Unix stream socket with one poll loop, sends
 * every request down the library's road (decode, message-id check, session lookup, the engine,
 * the result check, the measured response), and shuts down in the reverse order on SIGTERM or
 * SIGINT. Frames are a 4-byte big-endian length, then that many bytes. */
#define _GNU_SOURCE
#include <arpa/inet.h>
#include <errno.h>
#include <fcntl.h>
#include <inttypes.h>
#include <limits.h>
#include <poll.h>
#include <signal.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include "agent.h"
#include "tov/gpb.h"
#include "tov/kor_debug_flags.h"
#include "tov/result.h"
#include "tov/trace_buffer.h"

static const char kUsage[] =
    "tov-agent - a sample tov framework process serving NETCONF-style requests\n"
    "\n"
    "Usage: tov-agent [--socket PATH] [--datastore DIR] [--max-frame BYTES] [--name NAME]\n"
    "                 [--log-level LEVEL]\n"
    "\n"
    "  --socket PATH      Unix socket to listen on; default $XDG_RUNTIME_DIR/tov-agent.sock,\n"
    "                     else /tmp/tov-agent-<uid>.sock.\n"
    "  --datastore DIR    Where running and startup are kept; default ./tov-data.\n"
    "  --max-frame BYTES  Largest request accepted; default 16777216.\n"
    "  --name NAME        Agent name, the prefix of the trace rings; default tov-agent.\n"
    "  --log-level LEVEL  none, error, warning, debug or trace for every component at start;\n"
    "                     default error. At debug, request and response trees go to the ME ring.\n"
    "  -h, --help         Show this help.\n"
    "\n"
    "Stops on SIGTERM or SIGINT. Exit status: 0 after a clean stop, 1 when it cannot start,\n"
    "2 on a usage error.\n";

/* Output waiting for a slow reader beyond this stops reading that client's requests. */
#define OUTPUT_HIGH_WATER (64u << 20)
#define READ_CHUNK 65536u

typedef struct Conn {
    int fd;
    uint32_t id;
    uint8_t *in;
    size_t in_len, in_cap;
    uint8_t *out;
    size_t out_len, out_off, out_cap;
    int closing; /* close once the output is written */
} Conn;

static volatile sig_atomic_t g_stop = 0;
static void on_signal(int sig) {
    (void)sig;
    g_stop = 1;
}

static FrameworkContext g_framework;
static DebugContext g_me;
static Engine g_engine;
static uint32_t g_max_frame = 16u << 20;

/* ---- logging ---- */

void agent_log(DebugContext *dctx, uint32_t msg_level, uint32_t op, int32_t *cell, const char *function, int line,
               const char *format, ...) {
    static const char *const tags[] = {"ERR:", "WRN:", "DBG:", "TRC:"};
    char message[TOV_DEBUG_TRACE_LINE_SIZE];
    va_list args;
    va_start(args, format);
    vsnprintf(message, sizeof message, format, args);
    va_end(args);
    if (msg_level > TOV_MSG_TRACE) msg_level = TOV_MSG_TRACE;
    const uint32_t admitted =
        op < TOV_DEBUG_OP_COUNT ? tov_debug_should_log_op(dctx, msg_level, op) : tov_debug_should_log(dctx, msg_level);
    if (admitted) {
        kor_dt_flag_t flag = msg_level <= TOV_MSG_WARNING ? dctx->error_flag
                             : msg_level == TOV_MSG_DEBUG ? dctx->debug_flag
                                                          : dctx->trace_flag;
        _kor_dt_log_filter_adv(flag, 0, 0, 0, 0, 0, cell, "%s TOV: ctx=%p,%s", tags[msg_level], (void *)dctx, message);
    }
    if (dctx->trace_open) {
        char record[TOV_DEBUG_TRACE_LINE_SIZE];
        snprintf(record, sizeof record, "%s %s:%d ctx=%p,%s", tags[msg_level], function, line, (void *)dctx, message);
        trace_buffer_write(dctx->trace_handle, 0, 0, record);
    }
}

/* ---- output ---- */

static int reserve_out(Conn *c, size_t more) {
    if (c->out_off && c->out_off == c->out_len) c->out_off = c->out_len = 0;
    if (c->out_len + more <= c->out_cap) return 0;
    if (c->out_off) { /* drop what was written already */
        memmove(c->out, c->out + c->out_off, c->out_len - c->out_off);
        c->out_len -= c->out_off;
        c->out_off = 0;
        if (c->out_len + more <= c->out_cap) return 0;
    }
    size_t cap = c->out_cap ? c->out_cap : 4096;
    while (cap < c->out_len + more) cap *= 2;
    uint8_t *grown = realloc(c->out, cap);
    if (!grown) return -1;
    c->out = grown;
    c->out_cap = cap;
    return 0;
}

/* Measures the response, then encodes it behind its length straight into the output. */
static int queue_response(Conn *c, const Response *response) {
    uint32_t size = kesh_tov_response_encode_ext(response, NULL, 0, NULL, NULL, 0);
    if (reserve_out(c, 4 + (size_t)size) != 0) return -1;
    uint32_t be = htonl(size);
    memcpy(c->out + c->out_len, &be, 4);
    kesh_tov_response_encode_ext(response, c->out + c->out_len + 4, size, NULL, NULL, 0);
    c->out_len += 4 + (size_t)size;
    return 0;
}

static void flush_out(Conn *c) {
    while (c->out_off < c->out_len) {
        ssize_t n = send(c->fd, c->out + c->out_off, c->out_len - c->out_off, MSG_NOSIGNAL);
        if (n < 0 && errno == EINTR) continue;
        if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) return;
        if (n <= 0) { /* the client went away: nothing more can reach it */
            c->out_off = c->out_len;
            c->closing = 1;
            return;
        }
        c->out_off += (size_t)n;
    }
}

/* The result's outcome and error move into the response; the response echoes the message id. */
static void fill_response(Response *response, RequestResult *result, const char *message_id) {
    response->success = result->success;
    tov_bit_set(response->present, TOV_RESPONSE_BIT_SUCCESS);
    if (message_id && (response->text = tree_strdup(message_id)) != NULL)
        tov_bit_set(response->present, TOV_RESPONSE_BIT_TEXT);
    response->error = result->error;
    if (tov_bit_is_set(result->present, TOV_REQUEST_RESULT_BIT_ERROR)) tov_bit_set(response->present, TOV_RESPONSE_BIT_ERROR);
    memset(&result->error, 0, sizeof result->error);
    kesh_tov_request_result_free_ext(result, tov_gpb_free, 0, 0);
}

/* An answer to bytes that hold no request; the connection closes after it. */
static void refuse(Conn *c, const char *tag, const char *message) {
    AGENT_LOG(&g_framework.debug, TOV_MSG_ERROR, TOV_DEBUG_OP_COUNT, "client %" PRIu32 ": %s", c->id, message);
    RequestResult result;
    Response response;
    memset(&result, 0, sizeof result);
    memset(&response, 0, sizeof response);
    if (tov_req_result_error_set(&result, TOV_ERROR_TYPE_RPC, TOV_ERROR_SEVERITY_ERROR, tag, message) != 0)
        tov_nomem_error_set(&result);
    fill_response(&response, &result, NULL);
    queue_response(c, &response);
    kesh_tov_response_free_ext(&response, tov_gpb_free, 0, 0);
    c->closing = 1;
}

/* ---- the road of one request ---- */

static void trace_tree(const DataTree *tree, const char *title) {
    if (tree->name || tree->value || tree->children_count) tov_gpb_datatree_trace_internal(&g_me, tree, title);
}

static void trace_request(const Request *rq) {
    const uint32_t op = rq->operation;
    if (!tov_debug_should_log_op(&g_me, TOV_MSG_DEBUG, op)) return;
    switch (op) {
    case TOV_OP_GET_CONFIG: trace_tree(&rq->get_config.filter.tree, "get-config filter"); break;
    case TOV_OP_EDIT_CONFIG: trace_tree(&rq->edit_config.config, "edit-config config"); break;
    case TOV_OP_VALIDATE: trace_tree(&rq->validate.config, "validate config"); break;
    case TOV_OP_COPY_CONFIG: trace_tree(&rq->copy_config.source_config, "copy-config config"); break;
    case TOV_OP_GET: trace_tree(&rq->get.filter.tree, "get filter"); break;
    case TOV_OP_INVOKE_RPC: trace_tree(&rq->invoke_rpc.input, "invoke-rpc input"); break;
    default: break;
    }
}

static void trace_response(uint32_t op, const Response *response) {
    if (!tov_debug_should_log_op(&g_me, TOV_MSG_DEBUG, op)) return;
    trace_tree(&response->data, "response data");
    if (response->error.error_tag) {
        if (response->error.error_path.value)
            AGENT_LOG(&g_me, TOV_MSG_DEBUG, op, "op=%u,error-path %s", op, response->error.error_path.value);
        trace_tree(&response->error.error_info, "response error-info");
    }
}

static void handle_request(Conn *c, const uint8_t *bytes, uint32_t length) {
    Request rq;
    memset(&rq, 0, sizeof rq);
    int32_t decoded = kesh_tov_request_decode_ext(&rq, bytes, length, tov_gpb_alloc, 0, 0);
    if (decoded != 0) {
        kesh_tov_request_free_ext(&rq, tov_gpb_free, 0, 0);
        refuse(c, "malformed-message", "The frame does not hold a request.");
        return;
    }
    const uint32_t op = rq.operation;
    const char *message_id = tov_bit_is_set(rq.present, TOV_REQUEST_BIT_MESSAGE_ID) ? rq.message_id : NULL;
    g_engine.requests++;
    AGENT_LOG(&g_me, TOV_MSG_DEBUG, op, "op=%u,%s message-id %s from client %" PRIu32, op, tov_debug_op_name(op),
              message_id ? message_id : "(none)", c->id);
    trace_request(&rq);

    RequestContext rctx = {&g_framework, &rq};
    RequestResult result;
    Response response;
    memset(&result, 0, sizeof result);
    memset(&response, 0, sizeof response);
    Session *session = NULL;
    uint32_t rc = tov_req_message_id_check(&rctx, NULL, &result);
    if (rc == 0 && op != TOV_OP_START_SESSION) rc = tov_req_session_id_lookup(&rctx, &result, &session);
    if (rc == 0) {
        rc = engine_handle(&g_engine, &rctx, &session, c->id, &result, &response);
        if (rc != AGENT_ERROR_SET && rc != TOV_RC_NO_MEMORY)
            rc = tov_me_request_result_check(&rctx, session, &result, rc);
    }
    if (rc == TOV_RC_NO_MEMORY) tov_nomem_error_set(&result);
    fill_response(&response, &result, message_id);
    if (!response.success) {
        g_engine.failures++;
        AGENT_LOG(&g_me, TOV_MSG_ERROR, op, "ses=%p,op=%u,%s failed: %s: %s", (void *)session, op, tov_debug_op_name(op),
                  response.error.error_tag ? response.error.error_tag : "(no error detail)",
                  response.error.error_message.text ? response.error.error_message.text : "");
    }
    trace_response(op, &response);
    if (queue_response(c, &response) != 0) c->closing = 1;
    engine_response_sent(&g_engine, &response);
    kesh_tov_response_free_ext(&response, tov_gpb_free, 0, 0);
    kesh_tov_request_free_ext(&rq, tov_gpb_free, 0, 0);
}

/* Every whole frame in the input, in order. */
static void handle_input(Conn *c) {
    size_t at = 0;
    while (!c->closing && c->in_len - at >= 4) {
        uint32_t be;
        memcpy(&be, c->in + at, 4);
        const uint32_t length = ntohl(be);
        if (length > g_max_frame) {
            char message[96];
            snprintf(message, sizeof message, "The frame of %" PRIu32 " bytes is over the limit of %" PRIu32 ".", length,
                     g_max_frame);
            refuse(c, "too-big", message);
            break;
        }
        if (c->in_len - at - 4 < length) break;
        handle_request(c, c->in + at + 4, length);
        at += 4 + (size_t)length;
    }
    memmove(c->in, c->in + at, c->in_len - at);
    c->in_len -= at;
}

/* Reads what the socket has. Returns 0, or -1 when the connection is finished with. */
static int read_input(Conn *c) {
    for (;;) {
        if (c->in_cap - c->in_len < READ_CHUNK) {
            size_t cap = c->in_cap ? c->in_cap * 2 : READ_CHUNK * 2;
            uint8_t *grown = realloc(c->in, cap);
            if (!grown) return -1;
            c->in = grown;
            c->in_cap = cap;
        }
        ssize_t n = recv(c->fd, c->in + c->in_len, READ_CHUNK, 0);
        if (n < 0 && errno == EINTR) continue;
        if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) return 0;
        if (n < 0) return -1;
        if (n == 0) { /* the client finished sending: a partial frame is answered if it still reads */
            handle_input(c);
            if (c->in_len && !c->closing) refuse(c, "malformed-message", "The frame is truncated.");
            c->closing = 1;
            return 0;
        }
        c->in_len += (size_t)n;
        handle_input(c);
        if (c->closing || c->out_len - c->out_off > OUTPUT_HIGH_WATER) return 0;
    }
}

static void close_conn(Conn *c) {
    engine_client_gone(&g_engine, c->id);
    close(c->fd);
    free(c->in);
    free(c->out);
    free(c);
    g_engine.clients--;
}

/* ---- start-up, the loop, shutdown ---- */

static int parse_level(const char *text, uint32_t *level) {
    static const char *const names[] = {"none", "error", "warning", "debug", "trace"};
    for (uint32_t i = 0; i < 5; ++i)
        if (strcmp(text, names[i]) == 0) return *level = i, 0;
    return -1;
}

/* The socket is bound under a temporary name and renamed into place once it listens, so that its
 * path appears only when clients can connect. */
static int open_socket(const char *path) {
    struct sockaddr_un addr, temp;
    memset(&addr, 0, sizeof addr);
    addr.sun_family = AF_UNIX;
    temp = addr;
    if (snprintf(addr.sun_path, sizeof addr.sun_path, "%s", path) >= (int)sizeof addr.sun_path ||
        snprintf(temp.sun_path, sizeof temp.sun_path, "%s.%ld", path, (long)getpid()) >= (int)sizeof temp.sun_path) {
        fprintf(stderr, "tov-agent: socket path too long: %s\n", path);
        return -1;
    }
    /* a socket left by an agent that died is replaced; a live agent's is not */
    struct stat st;
    if (lstat(path, &st) == 0) {
        int probe = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        int live = !S_ISSOCK(st.st_mode) || (probe >= 0 && connect(probe, (struct sockaddr *)&addr, sizeof addr) == 0);
        if (probe >= 0) close(probe);
        if (live) {
            fprintf(stderr, "tov-agent: %s is in use\n", path);
            return -1;
        }
    }
    int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    if (fd < 0) return -1;
    unlink(temp.sun_path);
    mode_t old = umask(0077);
    int rc = bind(fd, (struct sockaddr *)&temp, sizeof temp);
    umask(old);
    if (rc != 0 || listen(fd, 128) != 0 || rename(temp.sun_path, path) != 0) {
        fprintf(stderr, "tov-agent: %s: %s\n", path, strerror(errno));
        unlink(temp.sun_path);
        close(fd);
        return -1;
    }
    return fd;
}

static void serve(int listener) {
    Conn **conns = NULL;
    size_t count = 0, cap = 0, poll_cap = 0;
    struct pollfd *fds = NULL;
    uint32_t next_id = 1;
    sigset_t unblocked;
    sigemptyset(&unblocked);
    while (!g_stop) {
        if (!fds || poll_cap < count + 1) {
            struct pollfd *grown = realloc(fds, (count + 1) * sizeof *grown);
            if (!grown) break;
            fds = grown;
            poll_cap = count + 1;
        }
        fds[0] = (struct pollfd){.fd = listener, .events = POLLIN};
        for (size_t i = 0; i < count; ++i) {
            Conn *c = conns[i];
            short events = 0;
            if (!c->closing && c->out_len - c->out_off <= OUTPUT_HIGH_WATER) events |= POLLIN;
            if (c->out_off < c->out_len) events |= POLLOUT;
            fds[i + 1] = (struct pollfd){.fd = c->fd, .events = events};
        }
        int wait_ms = engine_tick(&g_engine);
        struct timespec timeout = {wait_ms / 1000, (long)(wait_ms % 1000) * 1000000L};
        int ready = ppoll(fds, count + 1, wait_ms < 0 ? NULL : &timeout, &unblocked);
        if (ready < 0) {
            if (errno == EINTR) continue;
            perror("tov-agent: poll");
            break;
        }
        size_t polled = count;
        for (size_t i = 0; i < polled; ++i) {
            Conn *c = conns[i];
            const short got = fds[i + 1].revents;
            if (!c->closing && (got & (POLLIN | POLLHUP | POLLERR))) {
                if (read_input(c) != 0) c->closing = 1, c->out_off = c->out_len;
            }
            if (c->out_off < c->out_len) flush_out(c);
        }
        if (fds[0].revents & POLLIN) {
            for (;;) {
                int fd = accept4(listener, NULL, NULL, SOCK_CLOEXEC | SOCK_NONBLOCK);
                if (fd < 0) break;
                if (count == cap) {
                    size_t grown_cap = cap ? cap * 2 : 16;
                    Conn **grown = realloc(conns, grown_cap * sizeof *grown);
                    if (!grown) {
                        close(fd);
                        break;
                    }
                    conns = grown;
                    cap = grown_cap;
                }
                Conn *c = calloc(1, sizeof *c);
                if (!c) {
                    close(fd);
                    break;
                }
                c->fd = fd;
                c->id = next_id++;
                conns[count++] = c;
                g_engine.clients++;
            }
        }
        /* finished connections go; the order of the others is kept */
        size_t kept = 0;
        for (size_t i = 0; i < count; ++i) {
            Conn *c = conns[i];
            if (c->closing && c->out_off >= c->out_len) close_conn(c);
            else conns[kept++] = c;
        }
        count = kept;
    }
    for (size_t i = 0; i < count; ++i) close_conn(conns[i]);
    free(conns);
    free(fds);
}

int main(int argc, char **argv) {
    const char *socket_path = NULL, *dir = "./tov-data", *name = "tov-agent";
    char default_socket[PATH_MAX];
    uint32_t level = TOV_LEVEL_ERROR;
    for (int i = 1; i < argc; ++i) {
        const char *a = argv[i];
        if (strcmp(a, "-h") == 0 || strcmp(a, "--help") == 0) {
            fputs(kUsage, stdout);
            return 0;
        }
        const char *value = i + 1 < argc ? argv[i + 1] : NULL;
        if (!value) {
            fprintf(stderr, "tov-agent: unknown or incomplete option '%s' (see --help)\n", a);
            return 2;
        }
        ++i;
        if (strcmp(a, "--socket") == 0) socket_path = value;
        else if (strcmp(a, "--datastore") == 0) dir = value;
        else if (strcmp(a, "--name") == 0) name = value;
        else if (strcmp(a, "--max-frame") == 0) {
            char *end;
            errno = 0;
            unsigned long long v = strtoull(value, &end, 10);
            if (*end || errno || v == 0 || v > UINT32_MAX - 4) {
                fprintf(stderr, "tov-agent: bad --max-frame '%s'\n", value);
                return 2;
            }
            g_max_frame = (uint32_t)v;
        } else if (strcmp(a, "--log-level") == 0) {
            if (parse_level(value, &level) != 0) {
                fprintf(stderr, "tov-agent: bad --log-level '%s'\n", value);
                return 2;
            }
        } else {
            fprintf(stderr, "tov-agent: unknown option '%s' (see --help)\n", a);
            return 2;
        }
    }
    if (!socket_path) {
        const char *run = getenv("XDG_RUNTIME_DIR");
        if (run && *run) snprintf(default_socket, sizeof default_socket, "%s/tov-agent.sock", run);
        else snprintf(default_socket, sizeof default_socket, "/tmp/tov-agent-%u.sock", (unsigned)getuid());
        socket_path = default_socket;
    }
    if (strchr(name, '%')) {
        fprintf(stderr, "tov-agent: the name may not contain '%%'\n");
        return 2;
    }

    /* A stop request during start-up waits in the blocked set for the loop's first ppoll. */
    struct sigaction sa;
    memset(&sa, 0, sizeof sa);
    sa.sa_handler = on_signal;
    sigaction(SIGTERM, &sa, NULL);
    sigaction(SIGINT, &sa, NULL);
    signal(SIGPIPE, SIG_IGN);
    sigset_t blocked;
    sigemptyset(&blocked);
    sigaddset(&blocked, SIGTERM);
    sigaddset(&blocked, SIGINT);
    sigprocmask(SIG_BLOCK, &blocked, NULL); /* delivered only inside ppoll */

    /* Start-up, in the library's order. */
    tov_debug_save_agent_name(name);
    uint32_t rc = tov_debug_init(&g_framework.debug, "TOV", TOV_COMPONENT_TOV, NULL);
    if (rc == 0) rc = tov_debug_init(&g_me, "ME", TOV_COMPONENT_ME, &g_framework.debug);
    if (rc == 0) rc = tov_session_store_init(&g_framework);
    if (rc != 0) {
        fprintf(stderr, "tov-agent: start-up failed: %s\n", error_code_text(rc));
        return 1;
    }
    tov_debug_logging_set_level(&g_framework, TOV_COMPONENT_ALL, 0, 0, level, 0);

    int status = 1, listener = -1;
    if (mkdir(dir, 0700) != 0 && errno != EEXIST) {
        fprintf(stderr, "tov-agent: %s: %s\n", dir, strerror(errno));
    } else if (engine_init(&g_engine, &g_framework, &g_me, dir) == 0 && (listener = open_socket(socket_path)) >= 0) {
        AGENT_LOG(&g_framework.debug, TOV_MSG_DEBUG, TOV_DEBUG_OP_COUNT, "listening on %s, datastore %s", socket_path, dir);
        fprintf(stderr, "tov-agent: listening on %s\n", socket_path);
        serve(listener);
        close(listener);
        unlink(socket_path);
        status = 0;
    }

    /* Shutdown, backwards. */
    engine_cleanup(&g_engine);
    tov_session_store_cleanup(&g_framework);
    tov_debug_cleanup(&g_me);
    tov_debug_cleanup(&g_framework.debug);
    if (status == 0) fprintf(stderr, "tov-agent: stopped\n");
    return status;
}
