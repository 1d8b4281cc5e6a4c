// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// The open descriptors and the children of this process. They are compared before and
// after each test.
#ifndef ZEL_TESTS_SUPPORT_CENSUS_H
#define ZEL_TESTS_SUPPORT_CENSUS_H

#include <set>

namespace zel::test {

// The numbers of all open descriptors.
std::set<int> open_descriptors();

// Whether the process has children, ended or not, that nobody waited for.
bool has_children();

} // namespace zel::test

#endif
