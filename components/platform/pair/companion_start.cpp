// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// The companion's side of start-up: it finds its end in the environment.
#include <components/platform/zel_pair_connection.h>

#include <components/platform/environment.h>
#include <components/platform/pair/handle.h>
#include <components/platform/socket.h>
#include <malloc/zel_malloc.h>
#include <msg/base/errno_kept.h>
#include <msg/msg.h>

#include <array>
#include <cerrno>
#include <climits>
#include <csignal>
#include <cstdlib>

namespace {

struct Tag {
    const char *text;
    int32_t kind;
};

// The longer tags come first: both begin with the short one.
constexpr std::array<Tag, 3> kTags = {{
    {"pid-rtx_fd_l", PLATFORM_PAIR_KIND_LOCAL},
    {"pid-rtx_fd_w", PLATFORM_PAIR_KIND_HYBRID},
    {"pid-rtx_fd", PLATFORM_PAIR_KIND_PLAIN},
}};

// The signals that a companion ignores on request, in this order.
constexpr std::array<int, 7> kIgnoredSignals = {SIGHUP, SIGINT, SIGQUIT, SIGABRT, SIGPIPE, SIGTERM, SIGURG};

// The two numbers at the start of the environment string.
struct Address {
    int32_t pid;
    int32_t number; // a descriptor, or in the hybrid arrangement a port
};

int32_t kind_of(const char *value) {
    if (value == nullptr) {
        return PLATFORM_PAIR_KIND_NONE;
    }
    for (const Tag &tag : kTags) {
        if (strstr(value, tag.text) != nullptr) {
            return tag.kind;
        }
    }
    return PLATFORM_PAIR_KIND_NONE;
}

// Reads a decimal number and moves the position after it. A number beyond 32 bits is a
// failure.
bool parse_number(const char **position, int32_t *number) {
    char *end = nullptr;
    errno = 0;
    const long value = strtol(*position, &end, 10);
    if (end == *position || errno == ERANGE || value < INT32_MIN || value > INT32_MAX) {
        return false;
    }
    *position = end;
    *number = static_cast<int32_t>(value);
    return true;
}

bool parse_address(const char *value, Address *address) {
    const zel::ErrnoKept kept;
    return parse_number(&value, &address->pid) && parse_number(&value, &address->number);
}

// DELIBERATE: the name of the hybrid variable is not freed. Test:
// PairChildOpen.TheNameOfTheHybridVariableStaysAllocated.
// DELIBERATE: "no" means hybrid. So does any value that is not empty and begins with none
// of 'f', 'F' and '0'. Test:
// PairHybrid.OnlyAnEmptyValueOrOneThatBeginsWithFOrZeroMeansNotHybrid.
bool is_hybrid(const char *env_name) {
    const char *name = zel_strdup2(env_name, "_HYBRID", "platform_pair_child_open", "hybrid variable name");
    const char *value = name == nullptr ? nullptr : platform_getenv(name); // null when a failure handler returned null
    return value != nullptr && strchr("fF0", *value) == nullptr;
}

void open_descriptor(PairHandle *ph, const char *value, bool ignore_signals) {
    if (ignore_signals) {
        for (const int signal : kIgnoredSignals) {
            zel::pair::ignore_signal(signal);
        }
    }
    Address address;
    if (!parse_address(value, &address)) {
        ph->error_number = PLATFORM_PAIR_BAD_VARIABLE;
        return;
    }
    ph->companion_pid = address.pid;
    zel::pair::set_descriptor(ph, address.number);
}

void open_connection(PairHandle *ph, const char *value) {
    Address address;
    if (!parse_address(value, &address)) {
        ph->error_number = PLATFORM_PAIR_BAD_VARIABLE;
        return;
    }
    ph->companion_pid = address.pid;
    const int fd = platform_connect_host("localhost", address.number);
    if (fd == -1) {
        msg_diag("connection failed: %s\n", strerror(errno));
        ph->error_number = errno;
        return;
    }
    zel::pair::set_descriptor(ph, fd);
    if (ph->blocking != 0) {
        platform_fd_set_blocking(fd, 1);
    }
}

} // namespace

PairHandle *platform_pair_child_open(const char *env_name, int ignore_signals, int blocking) {
    const char *value = platform_getenv(env_name);
    const int32_t kind = kind_of(value);
    PairHandle *ph = zel::pair::create_handle(false, kind, blocking, "platform_pair_child_open");
    if (kind == PLATFORM_PAIR_KIND_NONE) {
        // DELIBERATE: error_number stays 0, so platform_pair_ok is 1. error_text and the
        // descriptors show that the handle is not open. Test:
        // PairChildOpen.AnUnsetVariableIsAHealthyHandleOfTheWrongType.
        ph->error_text = "Failing to start due to wrong type on linux";
        return ph;
    }
    if (is_hybrid(env_name)) {
        open_connection(ph, value);
    } else {
        open_descriptor(ph, value, ignore_signals != 0);
    }
    return ph;
}
