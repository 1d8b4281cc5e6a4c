// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// The report of a failed assertion.
#include <msg/base/assertion.h>
#include <msg/base/ring.h>
#include <msg/base/text.h>

#include <array>
#include <cstdlib>
#include <unistd.h>

namespace zel {

// DELIBERATE: the reported text is fixed.
// Test: BaseAssertion.AFailedAssertionNamesConditionUnitAndFunctionAndAborts.
void assertion_failed(const char *condition, const char *unit, const char *function) {
    // Written to the descriptor: abort does not flush the streams.
    std::array<char, 1024> text;
    format_text(text, "%s: %s: Assertion `%s' failed.\n", unit, function, condition);
    [[maybe_unused]] const ssize_t written = write(STDERR_FILENO, text.data(), strlen(text.data()));
    write_out_rings();
    abort();
}

} // namespace zel
