// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// The steps that the parent's two ways of starting a companion share.
#ifndef ZEL_COMPONENTS_PLATFORM_PAIR_START_H
#define ZEL_COMPONENTS_PLATFORM_PAIR_START_H

#include <components/platform/zel_pair_connection.h>

#include <span>

namespace zel::pair {

// A start that fails by EAGAIN is tried again so many times.
inline constexpr int kStartRetries = 30;

// The texts of error_text.
inline constexpr const char *kSocketsFailed = "socketpair create failed";
inline constexpr const char *kForkFailed = "fork failed";
inline constexpr const char *kExecFailed = "execvp failed";

struct SocketPair {
    int parent_end;
    int child_end;
};

// Creates the two ends, both above the standard descriptors. The parent's end is
// close-on-exec. Returns false with errno, and nothing is open then.
bool create_sockets(SocketPair &ends);

// Closes both ends and keeps errno.
void close_both(const SocketPair &ends);

// Formats the value of the companion's variable.
void format_address(std::span<char> value, int32_t parent_pid, int child_end);

// Keeps errno and the step that failed.
void keep_failure(PairHandle *ph, const char *step);

// Fills the handle of a companion that has been started, and closes the companion's end.
PairHandle *keep_companion(PairHandle *ph, int32_t pid, const SocketPair &ends, bool ignore_sigpipe);

} // namespace zel::pair

#endif
