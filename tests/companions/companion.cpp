// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// The first step of every companion of the tests, and its echo.
#include "companion.h"

#include <msg/msg.h>

#include <cstdlib>

// The leaks of the library on purpose. Any other leak ends a companion with another status.
extern "C" const char *__lsan_default_suppressions();
extern "C" const char *__lsan_default_suppressions() {
    return "leak:zel_strdup2\n"
           "leak:platform_connect_host\n";
}

// The suppressed leaks are not printed: the parent may share the standard error.
extern "C" const char *__lsan_default_options();
extern "C" const char *__lsan_default_options() {
    return "print_suppressions=0";
}

namespace zel::test {

PairHandle *open_or_exit(int ignore_signals, int blocking) {
    PairHandle *ph = platform_pair_child_open(kPairVariable, ignore_signals, blocking);
    if (platform_pair_ok(ph) == 0 || ph->error_text != nullptr) {
        msg_error_ex(0, "cannot open the pair: %d, %s", platform_pair_errno(ph), platform_pair_errstr(ph));
        platform_pair_close(ph);
        exit(kNotOpen);
    }
    return ph;
}

PairExit echo_values(PairHandle *ph) {
    int32_t value;
    while (receive_value(ph, &value)) {
        if (!send_value(ph, value)) {
            return kSendFailed;
        }
    }
    platform_pair_close(ph);
    return kServed;
}

} // namespace zel::test
