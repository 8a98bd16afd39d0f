// SPDX-License-Identifier: BSD-3-Clause
// tov-msg: writes and reads the framework's messages as protobuf text format, and sends one request
// to an agent. Field names come from the codec's own tables, so the tool needs no second
// description of the messages.
#include <algorithm>
#include <arpa/inet.h>
#include <cctype>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>
#include <vector>

#include "codec/engine.hpp"
#include "codec/envelope_tables.hpp"
#include "tov/result.h"

namespace {

using tov::detail::FieldDesc;
using tov::detail::Kind;
using tov::detail::MessageDesc;

const char kUsage[] =
    "tov-msg - write and read tov messages as protobuf text format\n"
    "\n"
    "Usage:\n"
    "  tov-msg decode MESSAGE [FILE]\n"
    "  tov-msg encode MESSAGE [FILE]\n"
    "  tov-msg send [--socket PATH] [FILE]\n"
    "\n"
    "Commands:\n"
    "  decode   Read MESSAGE's wire bytes and print them as text format, exactly as\n"
    "           protoc --decode=kesh.tov.MESSAGE proto/tov.proto does. Fields the schema\n"
    "           does not know are skipped by the decoder, so they are not printed.\n"
    "  encode   Read MESSAGE as text format and write its wire bytes. Fields are written in\n"
    "           record order, which is field-number order except in edit_config, whose\n"
    "           field 4 (option_4) is written before field 3 (option_3).\n"
    "  send     Read one request as text format, send it to a tov-agent, wait for the\n"
    "           response and print it as text format.\n"
    "\n"
    "MESSAGE is a message name of proto/tov.proto without its package (request, datatree).\n"
    "FILE defaults to standard input.\n"
    "\n"
    "Options:\n"
    "  --socket PATH   The agent's socket; default $XDG_RUNTIME_DIR/tov-agent.sock, else\n"
    "                  /tmp/tov-agent-<uid>.sock.\n"
    "  -h, --help      Show this help.\n"
    "\n"
    "Exit status: 0 on success (for send: the response's success is 1); 1 when the\n"
    "response reports a failure; 2 on a usage error; 3 on input that cannot be parsed or\n"
    "decoded; 4 when a file, the output or the socket fails.\n";

enum Exit { kOk = 0, kFailed = 1, kUsage_ = 2, kBadInput = 3, kIoError = 4 };

// Records made by this tool come from malloc; the codec hands them back through these.
void *heap_alloc(uint32_t size, uintptr_t) { return std::calloc(1, size ? size : 1); }
void heap_free(void *p, uintptr_t) { std::free(p); }

// A record of any message, aligned for every member type, released on scope exit.
struct Record {
    const MessageDesc &desc;
    std::vector<std::max_align_t> storage;
    explicit Record(const MessageDesc &d) : desc(d), storage(d.size / sizeof(std::max_align_t) + 1) {
        tov::detail::reset(desc, data());
    }
    ~Record() { tov::detail::release(desc, data(), heap_free, 0); }
    Record(const Record &) = delete;
    Record &operator=(const Record &) = delete;
    uint8_t *data() { return reinterpret_cast<uint8_t *>(storage.data()); }
};

const MessageDesc *find_message(const char *name) {
    for (const MessageDesc *d : tov::detail::kAllMessages)
        if (std::strcmp(d->name, name) == 0) return d;
    return nullptr;
}

template <class T> T load(const uint8_t *p) {
    T v{};
    std::memcpy(&v, p, sizeof v);
    return v;
}
template <class T> void store(uint8_t *p, T v) { std::memcpy(p, &v, sizeof v); }

bool bit(const MessageDesc &d, const uint8_t *r, size_t i) { return tov_bit_is_set(r + d.present_offset, static_cast<unsigned>(i)); }
void set_bit(const MessageDesc &d, uint8_t *r, size_t i) { tov_bit_set(r + d.present_offset, static_cast<unsigned>(i)); }

// ---- printing -------------------------------------------------------------------------------

// protobuf's C escaping: the usual backslash escapes, other bytes outside printable ASCII in octal.
void escape(std::string &out, const char *s) {
    for (; *s; ++s) {
        const unsigned char c = static_cast<unsigned char>(*s);
        switch (c) {
        case '\n': out += "\\n"; break;
        case '\r': out += "\\r"; break;
        case '\t': out += "\\t"; break;
        case '"': out += "\\\""; break;
        case '\'': out += "\\'"; break;
        case '\\': out += "\\\\"; break;
        default:
            if (c < 0x20 || c >= 0x7f) {
                char oct[5];
                std::snprintf(oct, sizeof oct, "\\%03o", c);
                out += oct;
            } else {
                out += static_cast<char>(c);
            }
        }
    }
}

// Text format lists fields by number; the tables list them in record order.
std::vector<size_t> by_number(const MessageDesc &d) {
    std::vector<size_t> order(d.field_count);
    for (size_t i = 0; i < order.size(); ++i) order[i] = i;
    std::sort(order.begin(), order.end(), [&d](size_t a, size_t b) { return d.fields[a].number < d.fields[b].number; });
    return order;
}

void print_message(std::string &out, const MessageDesc &d, const uint8_t *r, int indent);

void open_block(std::string &out, int indent, const char *name) {
    out.append(static_cast<size_t>(indent), ' ');
    out += name;
    out += " {\n";
}
void close_block(std::string &out, int indent) {
    out.append(static_cast<size_t>(indent), ' ');
    out += "}\n";
}

void print_message(std::string &out, const MessageDesc &d, const uint8_t *r, int indent) {
    for (size_t i : by_number(d)) {
        const FieldDesc &f = d.fields[i];
        const uint8_t *m = r + f.offset;
        const bool present = bit(d, r, i);
        auto scalar = [&](const std::string &v) {
            out.append(static_cast<size_t>(indent), ' ');
            out += f.name;
            out += ": ";
            out += v;
            out += '\n';
        };
        switch (f.kind) {
        case Kind::Varint32:
            if (present) scalar(std::to_string(load<uint32_t>(m)));
            break;
        case Kind::Varint64:
            if (present) scalar(std::to_string(load<uint64_t>(m)));
            break;
        case Kind::Bool:
            if (present) scalar(load<uint8_t>(m) ? "true" : "false");
            break;
        case Kind::String:
            if (const char *s = load<const char *>(m); present && s) {
                std::string v = "\"";
                escape(v, s);
                scalar(v + "\"");
            }
            break;
        case Kind::Strings: {
            const auto items = load<char **>(m);
            if (!present || !items) break;
            for (uint32_t k = 0, n = load<uint32_t>(r + f.count_offset); k < n; ++k) {
                if (!items[k]) continue;
                std::string v = "\"";
                escape(v, items[k]);
                scalar(v + "\"");
            }
            break;
        }
        case Kind::Message:
            if (present || tov::detail::any_presence(*f.sub, m)) {
                open_block(out, indent, f.name);
                print_message(out, *f.sub, m, indent + 2);
                close_block(out, indent);
            }
            break;
        case Kind::Messages: {
            const MessageDesc &s = tov::detail::sub_of(d, f);
            const auto elements = load<const uint8_t *>(m);
            if (!present || !elements) break;
            for (uint32_t k = 0, n = load<uint32_t>(r + f.count_offset); k < n; ++k) {
                open_block(out, indent, f.name);
                print_message(out, s, elements + size_t{k} * s.size, indent + 2);
                close_block(out, indent);
            }
            break;
        }
        case Kind::Flag:
            if (present) {
                open_block(out, indent, f.name);
                close_block(out, indent);
            }
            break;
        }
    }
}

// ---- parsing --------------------------------------------------------------------------------

struct Parser {
    const std::string &text;
    size_t pos = 0;
    unsigned line = 1, column = 1;
    std::string error; // "LINE:COLUMN: what", empty while all is well

    explicit Parser(const std::string &t) : text(t) {}

    bool fail(const std::string &what) {
        if (error.empty()) error = std::to_string(line) + ":" + std::to_string(column) + ": " + what;
        return false;
    }
    void advance() {
        if (text[pos] == '\n') {
            ++line;
            column = 1;
        } else {
            ++column;
        }
        ++pos;
    }
    void skip_space() {
        while (pos < text.size()) {
            if (text[pos] == '#') {
                while (pos < text.size() && text[pos] != '\n') advance();
            } else if (std::isspace(static_cast<unsigned char>(text[pos]))) {
                advance();
            } else {
                break;
            }
        }
    }
    bool at_end() {
        skip_space();
        return pos >= text.size();
    }
    bool peek(char c) {
        skip_space();
        return pos < text.size() && text[pos] == c;
    }
    bool take(char c) {
        if (!peek(c)) return false;
        advance();
        return true;
    }
    bool expect(char c) { return take(c) || fail(std::string("expected '") + c + "'"); }

    static bool ident_char(char c) { return std::isalnum(static_cast<unsigned char>(c)) || c == '_'; }
    std::string word() {
        skip_space();
        const size_t start = pos;
        while (pos < text.size() && (ident_char(text[pos]) || text[pos] == '-' || text[pos] == '+')) advance();
        return text.substr(start, pos - start);
    }

    bool unsigned_value(uint64_t limit, uint64_t &value) {
        skip_space();
        const unsigned l = line, c = column;
        const std::string w = word();
        if (w.empty()) return fail("expected a number");
        errno = 0;
        char *end = nullptr;
        const unsigned long long v = std::strtoull(w.c_str(), &end, 0);
        if (w[0] == '-' || w[0] == '+' || *end || errno == ERANGE || v > limit) {
            line = l, column = c;
            return fail("'" + w + "' is not an unsigned number up to " + std::to_string(limit));
        }
        value = v;
        return true;
    }
    bool bool_value(uint8_t &value) {
        skip_space();
        const unsigned l = line, c = column;
        const std::string w = word();
        if (w == "true" || w == "True" || w == "t" || w == "1") return value = 1, true;
        if (w == "false" || w == "False" || w == "f" || w == "0") return value = 0, true;
        line = l, column = c;
        return fail("expected true or false, found '" + w + "'");
    }
    // One or more adjacent quoted strings, concatenated, with C escapes.
    bool string_value(std::string &value) {
        skip_space();
        if (pos >= text.size() || (text[pos] != '"' && text[pos] != '\'')) return fail("expected a quoted string");
        value.clear();
        while (pos < text.size() && (text[pos] == '"' || text[pos] == '\'')) {
            const char quote = text[pos];
            const unsigned quote_line = line, quote_column = column;
            advance();
            for (;;) {
                if (pos >= text.size() || text[pos] == '\n') {
                    line = quote_line, column = quote_column;
                    return fail("unterminated string");
                }
                char c = text[pos];
                if (c == quote) {
                    advance();
                    break;
                }
                advance();
                if (c != '\\') {
                    value += c;
                    continue;
                }
                if (pos >= text.size()) return fail("unterminated string");
                c = text[pos];
                advance();
                switch (c) {
                case 'n': value += '\n'; break;
                case 'r': value += '\r'; break;
                case 't': value += '\t'; break;
                case 'a': value += '\a'; break;
                case 'b': value += '\b'; break;
                case 'f': value += '\f'; break;
                case 'v': value += '\v'; break;
                case '\\': case '\'': case '"': case '?': value += c; break;
                case 'x': {
                    unsigned v = 0, digits = 0;
                    while (digits < 2 && pos < text.size() && std::isxdigit(static_cast<unsigned char>(text[pos]))) {
                        v = v * 16 + static_cast<unsigned>(std::isdigit(static_cast<unsigned char>(text[pos]))
                                                               ? text[pos] - '0'
                                                               : (text[pos] | 0x20) - 'a' + 10);
                        advance(), ++digits;
                    }
                    if (!digits) return fail("\\x without hex digits");
                    value += static_cast<char>(v);
                    break;
                }
                default:
                    if (c >= '0' && c <= '7') {
                        unsigned v = static_cast<unsigned>(c - '0');
                        for (int k = 0; k < 2 && pos < text.size() && text[pos] >= '0' && text[pos] <= '7'; ++k) {
                            v = v * 8 + static_cast<unsigned>(text[pos] - '0');
                            advance();
                        }
                        if (v > 0xff) return fail("octal escape above \\377");
                        value += static_cast<char>(v);
                        break;
                    }
                    return fail(std::string("unknown escape \\") + c);
                }
            }
            skip_space();
        }
        if (value.find('\0') != std::string::npos) return fail("a string cannot hold a NUL byte");
        return true;
    }

    char *copy(const std::string &s) {
        char *p = static_cast<char *>(heap_alloc(static_cast<uint32_t>(s.size() + 1), 0));
        if (p) std::memcpy(p, s.c_str(), s.size() + 1);
        return p;
    }

    // A new zeroed element at the end of a repeated field's array.
    uint8_t *grow(uint8_t *r, const FieldDesc &f, size_t element_size) {
        const uint32_t n = load<uint32_t>(r + f.count_offset);
        auto *array = static_cast<uint8_t *>(std::realloc(load<uint8_t *>(r + f.offset), (n + 1) * element_size));
        if (!array) return nullptr;
        std::memset(array + n * element_size, 0, element_size);
        store(r + f.offset, array);
        store(r + f.count_offset, n + 1);
        return array + n * element_size;
    }

    bool message_body(const MessageDesc &d, uint8_t *r, char close) {
        std::vector<bool> seen(d.field_count);
        for (;;) {
            if (close ? peek(close) : at_end()) {
                if (close) advance();
                return true;
            }
            if (pos >= text.size()) return fail(std::string("expected '") + close + "' before the end");
            const unsigned l = line, c = column;
            const std::string name = word();
            if (name.empty()) return fail("expected a field name");
            size_t i = 0;
            while (i < d.field_count && std::strcmp(d.fields[i].name, name.c_str()) != 0) ++i;
            if (i == d.field_count) {
                line = l, column = c;
                return fail("message '" + std::string(d.name) + "' has no field named '" + name + "'");
            }
            const FieldDesc &f = d.fields[i];
            const bool repeated = f.kind == Kind::Messages || f.kind == Kind::Strings;
            if (seen[i] && !repeated) {
                line = l, column = c;
                return fail("field '" + name + "' is given more than once");
            }
            seen[i] = true;
            const bool is_message = f.kind == Kind::Message || f.kind == Kind::Messages || f.kind == Kind::Flag;
            if (!take(':') && !is_message) return fail("expected ':' after '" + name + "'");
            if (repeated && take('[')) {
                if (!take(']')) {
                    do {
                        if (!field_value(d, r, i)) return false;
                    } while (take(','));
                    if (!expect(']')) return false;
                }
            } else if (!field_value(d, r, i)) {
                return false;
            }
            if (!take(',')) take(';');
        }
    }

    bool nested(const MessageDesc &s, uint8_t *r) {
        char close = '}';
        if (take('<')) close = '>';
        else if (!expect('{')) return false;
        return message_body(s, r, close);
    }

    bool field_value(const MessageDesc &d, uint8_t *r, size_t i) {
        const FieldDesc &f = d.fields[i];
        uint8_t *m = r + f.offset;
        set_bit(d, r, i);
        switch (f.kind) {
        case Kind::Varint32: {
            uint64_t v = 0;
            if (!unsigned_value(UINT32_MAX, v)) return false;
            store(m, static_cast<uint32_t>(v));
            return true;
        }
        case Kind::Varint64: {
            uint64_t v = 0;
            if (!unsigned_value(UINT64_MAX, v)) return false;
            store(m, v);
            return true;
        }
        case Kind::Bool: {
            uint8_t v = 0;
            if (!bool_value(v)) return false;
            store(m, v);
            return true;
        }
        case Kind::String: {
            std::string v;
            if (!string_value(v)) return false;
            char *p = copy(v);
            if (!p) return fail("out of memory");
            store(m, p);
            return true;
        }
        case Kind::Strings: {
            std::string v;
            if (!string_value(v)) return false;
            uint8_t *slot = grow(r, f, sizeof(char *));
            char *p = slot ? copy(v) : nullptr;
            if (!p) return fail("out of memory");
            store(slot, p);
            return true;
        }
        case Kind::Message:
            return nested(*f.sub, m);
        case Kind::Messages: {
            const MessageDesc &s = tov::detail::sub_of(d, f);
            uint8_t *element = grow(r, f, s.size);
            if (!element) return fail("out of memory");
            tov::detail::reset(s, element);
            return nested(s, element);
        }
        case Kind::Flag:
            return nested(*f.sub, nullptr);
        }
        return fail("unsupported field");
    }
};

// ---- input and output -----------------------------------------------------------------------

bool read_all(const char *path, std::string &out) {
    FILE *f = path && std::strcmp(path, "-") != 0 ? std::fopen(path, "rb") : stdin;
    if (!f) {
        std::fprintf(stderr, "tov-msg: %s: %s\n", path, std::strerror(errno));
        return false;
    }
    char buffer[65536];
    size_t n;
    while ((n = std::fread(buffer, 1, sizeof buffer, f)) > 0) out.append(buffer, n);
    const bool ok = !std::ferror(f);
    if (!ok) std::fprintf(stderr, "tov-msg: %s: read error\n", path ? path : "standard input");
    if (f != stdin) std::fclose(f);
    return ok;
}

bool write_all(const void *data, size_t size) {
    return std::fwrite(data, 1, size, stdout) == size && std::fflush(stdout) == 0;
}

int decode_bytes(const MessageDesc &d, Record &record, const std::string &bytes) {
    if (bytes.size() > UINT32_MAX) {
        std::fprintf(stderr, "tov-msg: input too large\n");
        return kBadInput;
    }
    const int32_t rc = tov::detail::code(tov::detail::decode(d, record.data(), reinterpret_cast<const uint8_t *>(bytes.data()),
                                           static_cast<uint32_t>(bytes.size()), heap_alloc, 0));
    if (rc != 0) {
        std::fprintf(stderr, "tov-msg: cannot decode %s: %s (%d)\n", d.name,
                     error_code_text(static_cast<uint32_t>(rc)), rc);
        return kBadInput;
    }
    return kOk;
}

int parse_text(const MessageDesc &d, Record &record, const std::string &text, const char *source) {
    Parser p(text);
    if (!p.message_body(d, record.data(), 0)) {
        std::fprintf(stderr, "tov-msg: %s:%s\n", source ? source : "<stdin>", p.error.c_str());
        return kBadInput;
    }
    return kOk;
}

std::vector<uint8_t> encode_record(const MessageDesc &d, Record &record) {
    const uint32_t size = tov::detail::encode(d, record.data(), nullptr, 0, nullptr, nullptr);
    std::vector<uint8_t> out(size);
    tov::detail::encode(d, record.data(), out.data(), size, nullptr, nullptr);
    return out;
}

std::string default_socket() {
    if (const char *dir = std::getenv("XDG_RUNTIME_DIR"); dir && *dir) return std::string(dir) + "/tov-agent.sock";
    return "/tmp/tov-agent-" + std::to_string(getuid()) + ".sock";
}

bool io_full(int fd, void *data, size_t size, bool writing) {
    auto *p = static_cast<uint8_t *>(data);
    while (size) {
        const ssize_t n = writing ? write(fd, p, size) : read(fd, p, size);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return false;
        p += n;
        size -= static_cast<size_t>(n);
    }
    return true;
}

int send_request(const std::string &socket_path, const std::vector<uint8_t> &request) {
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    if (socket_path.size() >= sizeof addr.sun_path) {
        std::fprintf(stderr, "tov-msg: socket path too long\n");
        return kUsage_;
    }
    std::memcpy(addr.sun_path, socket_path.c_str(), socket_path.size() + 1);
    const int fd = socket(AF_UNIX, SOCK_STREAM, 0);
    if (fd < 0 || connect(fd, reinterpret_cast<sockaddr *>(&addr), sizeof addr) != 0) {
        std::fprintf(stderr, "tov-msg: %s: %s\n", socket_path.c_str(), std::strerror(errno));
        if (fd >= 0) close(fd);
        return kIoError;
    }
    uint32_t header = htonl(static_cast<uint32_t>(request.size()));
    std::vector<uint8_t> reply;
    bool ok = io_full(fd, &header, 4, true) && io_full(fd, const_cast<uint8_t *>(request.data()), request.size(), true) &&
              io_full(fd, &header, 4, false);
    if (ok) {
        reply.resize(ntohl(header));
        ok = io_full(fd, reply.data(), reply.size(), false);
    }
    close(fd);
    if (!ok) {
        std::fprintf(stderr, "tov-msg: %s: the agent closed the connection without a response\n", socket_path.c_str());
        return kIoError;
    }
    Record response(tov::detail::kResponse);
    if (int rc = decode_bytes(tov::detail::kResponse, response, std::string(reply.begin(), reply.end())); rc != kOk)
        return rc;
    std::string text;
    print_message(text, tov::detail::kResponse, response.data(), 0);
    if (!write_all(text.data(), text.size())) return kIoError;
    const auto *r = reinterpret_cast<const Response *>(response.data());
    return r->success == 1 ? kOk : kFailed;
}

} // namespace

int main(int argc, char **argv) {
    std::vector<std::string> args(argv + 1, argv + argc);
    if (args.empty()) {
        std::fputs(kUsage, stderr);
        return kUsage_;
    }
    if (std::find(args.begin(), args.end(), "-h") != args.end() ||
        std::find(args.begin(), args.end(), "--help") != args.end()) {
        std::fputs(kUsage, stdout);
        return kOk;
    }
    const std::string command = args[0];
    if (command == "send") {
        std::string socket_path = default_socket();
        const char *file = nullptr;
        for (size_t i = 1; i < args.size(); ++i) {
            if (args[i] == "--socket" && i + 1 < args.size()) socket_path = args[++i];
            else if (!file && (args[i] == "-" || args[i][0] != '-')) file = argv[i + 1];
            else {
                std::fprintf(stderr, "tov-msg: unexpected argument '%s' (see --help)\n", args[i].c_str());
                return kUsage_;
            }
        }
        std::string text;
        if (!read_all(file, text)) return kIoError;
        Record request(tov::detail::kRequest);
        if (int rc = parse_text(tov::detail::kRequest, request, text, file); rc != kOk) return rc;
        return send_request(socket_path, encode_record(tov::detail::kRequest, request));
    }
    if ((command != "decode" && command != "encode") || args.size() < 2 || args.size() > 3) {
        std::fprintf(stderr, "tov-msg: expected decode, encode or send (see --help)\n");
        return kUsage_;
    }
    const MessageDesc *d = find_message(args[1].c_str());
    if (!d) {
        std::fprintf(stderr, "tov-msg: no message named '%s'\n", args[1].c_str());
        return kUsage_;
    }
    const char *file = args.size() == 3 ? argv[3] : nullptr;
    std::string input;
    if (!read_all(file, input)) return kIoError;
    Record record(*d);
    if (command == "decode") {
        if (int rc = decode_bytes(*d, record, input); rc != kOk) return rc;
        std::string text;
        print_message(text, *d, record.data(), 0);
        return write_all(text.data(), text.size()) ? kOk : kIoError;
    }
    if (int rc = parse_text(*d, record, input, file); rc != kOk) return rc;
    const std::vector<uint8_t> bytes = encode_record(*d, record);
    return write_all(bytes.data(), bytes.size()) ? kOk : kIoError;
}
