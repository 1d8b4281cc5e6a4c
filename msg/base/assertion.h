// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// Assertions that stay on in every build: they are part of what the library promises.
#ifndef ZEL_MSG_BASE_ASSERTION_H
#define ZEL_MSG_BASE_ASSERTION_H

namespace zel {

// Writes "UNIT: FUNCTION: Assertion `CONDITION' failed." to standard error and aborts.
[[noreturn]] void assertion_failed(const char *condition, const char *unit, const char *function);

} // namespace zel

// Asserts a condition whose own source text is the one to be reported. The unit that uses it names itself in kUnit.
#define ZEL_ASSERT(condition) ZEL_ASSERT_AS(condition, #condition)

// The same under another text, for a condition that is tested in a safer form than it is reported in.
#define ZEL_ASSERT_AS(condition, text)                                                                                 \
    (static_cast<bool>(condition) ? static_cast<void>(0) : zel::assertion_failed((text), kUnit, __func__))

#endif
