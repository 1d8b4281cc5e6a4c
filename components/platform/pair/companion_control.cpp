// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// The companion's side of the control: it keeps its pair to itself and ends with its
// parent.
#include <components/platform/pair_control.h>

#include <components/platform/pair/handle.h>
#include <components/platform/pair/process_descriptor.h>
#include <msg/base/assertion.h>
#include <msg/base/text.h>

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <fcntl.h>
#include <sys/prctl.h>
#include <unistd.h>

namespace {

using zel::pair::kUnit;
using zel::pair::ProcessDescriptor;

constexpr const char *kHybridSuffix = "_HYBRID";

int fail_with(int error) {
    errno = error;
    return 0;
}

bool is_name(const char *text) {
    return *text != '\0' && strchr(text, '=') == nullptr;
}

// The name of the hybrid variable in storage from malloc; null without memory.
char *hybrid_name(const char *env_name) {
    const size_t size = strlen(env_name) + strlen(kHybridSuffix) + 1;
    auto *name = static_cast<char *>(malloc(size));
    if (name != nullptr) {
        zel::format_text({name, size}, "%s%s", env_name, kHybridSuffix);
    }
    return name;
}

bool is_companion_of_parent(const PairHandle *ph) {
    return ph->parent == 0 && (ph->kind == PLATFORM_PAIR_KIND_PLAIN || ph->kind == PLATFORM_PAIR_KIND_LOCAL);
}

// The parent in a PID namespace outside of this one has the number 0 here, and nothing
// can be said about the number in the handle.
bool has_lost_parent(const PairHandle *ph) {
    const ProcessDescriptor parent(ph->companion_pid);
    return getppid() != 0 && has_ended(parent);
}

} // namespace

int platform_pair_child_seal(PairHandle *ph, const char *env_name) {
    ZEL_ASSERT(platform_pair_valid(ph));
    if (ph->parent != 0 || !is_name(env_name)) {
        return fail_with(EINVAL);
    }
    char *hybrid = hybrid_name(env_name);
    if (hybrid == nullptr) {
        return 0;
    }
    const bool closed = fcntl(ph->rx_fd, F_SETFD, FD_CLOEXEC) != -1;
    if (closed) {
        unsetenv(env_name);
        unsetenv(hybrid);
    }
    free(hybrid);
    return closed ? 1 : 0;
}

// The kernel compares nothing: it sends the signal at the end of whatever process is the
// parent by then.
//
//   parent    starts the companion, ends
//   kernel    gives the companion another parent
//   companion asks for the signal, which would come at the end of that one
int platform_pair_follow_parent(const PairHandle *ph, int signal) {
    ZEL_ASSERT(platform_pair_valid(ph));
    int before = 0;
    if (!is_companion_of_parent(ph) || signal < 1) {
        return fail_with(EINVAL);
    }
    if (prctl(PR_GET_PDEATHSIG, &before) == -1 || prctl(PR_SET_PDEATHSIG, signal) == -1) {
        return 0;
    }
    if (getppid() == ph->companion_pid) {
        return 1;
    }
    if (has_lost_parent(ph)) {
        return kill(getpid(), signal) == 0 ? 1 : 0;
    }
    prctl(PR_SET_PDEATHSIG, before);
    return fail_with(ECHILD);
}
