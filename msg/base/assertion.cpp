// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// What a failed assertion says before it aborts.
#include <msg/base/assertion.h>
#include <msg/base/text.h>

#include <array>
#include <cstdlib>
#include <unistd.h>

namespace zel {

void assertion_failed(const char *condition, const char *unit, const char *function) {
    // Straight to the descriptor: the streams may be what is broken, and abort does not flush them.
    std::array<char, 1024> text;
    format_text(text, "%s: %s: Assertion `%s' failed.\n", unit, function, condition);
    [[maybe_unused]] const ssize_t written = write(STDERR_FILENO, text.data(), strlen(text.data()));
    abort();
}

} // namespace zel
