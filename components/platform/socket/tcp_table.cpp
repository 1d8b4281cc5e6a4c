// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// Reads the system's table of TCP sockets, row by row and in bounded memory.
//
//   sl  local_address rem_address   st tx_queue rx_queue tr tm->when retrnsmt   uid  timeout inode ...
//    0: 0100007F:4F4C 0100007F:C350 01 00000000:00000000 00:00000000 00000000  1000        0 31337 ...
//
// An address is a row of 32-bit words in the byte order of the machine, each in eight
// hexadecimal digits: one word in tcp, four in tcp6.
#include <components/platform/socket/tcp_table.h>

#include <components/platform/base/descriptor.h>
#include <msg/base/text.h>

#include <array>
#include <cerrno>
#include <cstdlib>
#include <fcntl.h>
#include <unistd.h>

namespace zel::socket {

namespace {

constexpr size_t kAreaSize = 4096;
constexpr size_t kKeySize = 96;

constexpr const char *kTable = "/proc/net/tcp";
constexpr const char *kTable6 = "/proc/net/tcp6";

// The states of a connection that has come about and that a process may still hold. A
// socket that is only trying to connect is nobody's peer. TIME_WAIT has no process, and
// shows the user 0.
enum TcpState : unsigned { kEstablished = 0x01, kFinWait1 = 0x04, kFinWait2 = 0x05, kCloseWait = 0x08 };

// How the two ends stand in a row.
using Key = std::array<char, kKeySize>;

struct Reader {
    int fd;
    size_t start;
    size_t end;
    std::array<char, kAreaSize> area; // the row at start, and what was read behind it
};

using Words = std::array<uint32_t, 4>;

Words words_of(const TcpEnd &end) {
    static_assert(sizeof(Words) == sizeof end.address);
    Words words;
    memcpy(words.data(), &end.address, sizeof words);
    return words;
}

Key key_of(const TcpEnd &local, const TcpEnd &remote) {
    const Words from = words_of(local);
    const Words to = words_of(remote);
    Key key;
    format_text(key, "%08X:%04X %08X:%04X ", from[3], ntohs(local.port), to[3], ntohs(remote.port));
    return key;
}

Key key6_of(const TcpEnd &local, const TcpEnd &remote) {
    const Words from = words_of(local);
    const Words to = words_of(remote);
    Key key;
    format_text(key, "%08X%08X%08X%08X:%04X %08X%08X%08X%08X:%04X ", from[0], from[1], from[2], from[3],
                ntohs(local.port), to[0], to[1], to[2], to[3], ntohs(remote.port));
    return key;
}

// Reads more behind the row that is not complete. Returns that of read. A row that fills
// the area is none that the system writes, and is dropped.
ssize_t read_more(Reader &reader) {
    memmove(reader.area.data(), reader.area.data() + reader.start, reader.end - reader.start);
    reader.end -= reader.start;
    reader.start = 0;
    if (reader.end == reader.area.size()) {
        reader.end = 0;
    }
    ssize_t count;
    do {
        count = read(reader.fd, reader.area.data() + reader.end, reader.area.size() - reader.end);
    } while (count == -1 && errno == EINTR);
    if (count > 0) {
        reader.end += static_cast<size_t>(count);
    }
    return count;
}

// Returns the next row, its newline replaced by NUL. Null at the end of the table, errno
// 0, and when reading failed.
char *next_row(Reader &reader) {
    for (;;) {
        char *row = reader.area.data() + reader.start;
        auto *newline = static_cast<char *>(memchr(row, '\n', reader.end - reader.start));
        if (newline != nullptr) {
            *newline = '\0';
            reader.start = static_cast<size_t>(newline + 1 - reader.area.data());
            return row;
        }
        errno = 0;
        if (read_more(reader) <= 0) {
            return nullptr;
        }
    }
}

// What stands behind the key in its row; null in another row.
const char *behind_key(const char *row, std::string_view key) {
    const char *number_end = strstr(row, ": ");
    if (number_end == nullptr || strncmp(number_end + 2, key.data(), key.size()) != 0) {
        return nullptr;
    }
    return number_end + 2 + key.size();
}

bool is_connected(unsigned state) {
    return state == kEstablished || state == kFinWait1 || state == kFinWait2 || state == kCloseWait;
}

// The user in the fields behind the key. A socket without an inode has no process, and its
// row shows the user 0.
int64_t user_in(const char *fields) {
    unsigned state;
    unsigned user;
    unsigned long inode;
    const int read = sscanf(fields, "%x %*s %*s %*s %u %*s %lu", &state, &user, &inode);
    if (read == 3 && is_connected(state) && inode != 0) {
        return user;
    }
    errno = EADDRNOTAVAIL;
    return -1;
}

int64_t search(Reader &reader, std::string_view key) {
    for (const char *row = next_row(reader); row != nullptr; row = next_row(reader)) {
        const char *fields = behind_key(row, key);
        if (fields != nullptr) {
            return user_in(fields);
        }
    }
    if (errno == 0) {
        errno = EADDRNOTAVAIL;
    }
    return -1;
}

int64_t search_table(const char *path, const Key &key) {
    Reader reader; // the area is filled by reading
    reader.start = 0;
    reader.end = 0;
    reader.fd = open(path, O_RDONLY | O_CLOEXEC);
    if (reader.fd == -1) {
        return -1;
    }
    const int64_t user = search(reader, key.data());
    close_keeping_errno(reader.fd);
    return user;
}

} // namespace

// The peer of an IPv4 connection may have an IPv6 socket. A system without IPv6 has no
// second table.
int64_t user_of_tcp_socket(const TcpEnd &local, const TcpEnd &remote) {
    if (!IN6_IS_ADDR_V4MAPPED(&local.address)) {
        return search_table(kTable6, key6_of(local, remote));
    }
    const int64_t user = search_table(kTable, key_of(local, remote));
    if (user != -1 || errno != EADDRNOTAVAIL) {
        return user;
    }
    const int64_t user6 = search_table(kTable6, key6_of(local, remote));
    if (user6 == -1 && errno == ENOENT) {
        errno = EADDRNOTAVAIL;
    }
    return user6;
}

} // namespace zel::socket
