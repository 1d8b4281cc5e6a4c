// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// Helpers of the tests of the diagnostic log.
#ifndef ZEL_TESTS_MSG_DIAG_LOG_SUPPORT_H
#define ZEL_TESTS_MSG_DIAG_LOG_SUPPORT_H

#include <optional>
#include <string>

namespace zel::test {

// The variables that choose the directory, in their order.
inline constexpr const char *kVariables[] = {"ZEL_DIAG_DIR", "ZEL_DIAGNOSTICS_PATH", "ZEL_TMPDIR"};

// The value of a variable: unset, or this text.
using Value = std::optional<std::string>;

void set_variable(const char *name, const Value &value);

// All three of them.
void set_variables(const Value &first, const Value &second, const Value &third);

// The path of this process's log in a folder.
std::string log_in(const std::string &folder);

bool exists(const std::string &path);

// The streams that diagnostic lines go to.
int diagnostic_streams();

// The path of the folder, with "/" added up to that length.
std::string lengthened(std::string folder, size_t length);

} // namespace zel::test

#endif
