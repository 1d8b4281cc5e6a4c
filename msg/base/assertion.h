// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// Assertions, on in every build: they are part of what the library promises.
#ifndef ZEL_MSG_BASE_ASSERTION_H
#define ZEL_MSG_BASE_ASSERTION_H

namespace zel {

// Writes "UNIT: FUNCTION: Assertion `CONDITION' failed." to standard error and aborts.
[[noreturn]] void assertion_failed(const char *condition, const char *unit, const char *function);

} // namespace zel

// Asserts the condition and reports its source text. The text is promised, the names of
// the variables in it included. The unit names itself in kUnit.
#define ZEL_ASSERT(condition) ZEL_ASSERT_AS(condition, #condition)

// Asserts the condition and reports another text.
#define ZEL_ASSERT_AS(condition, text)                                                                                 \
    (static_cast<bool>(condition) ? static_cast<void>(0) : zel::assertion_failed((text), kUnit, __func__))

#endif
