// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// Reports of companions that could not be executed: each writes one word into memory that
// it shares with its parent.
#ifndef ZEL_COMPONENTS_PLATFORM_PAIR_EXEC_ERROR_H
#define ZEL_COMPONENTS_PLATFORM_PAIR_EXEC_ERROR_H

#include <components/platform/zel_pair_connection.h>

#include <atomic>

namespace zel::pair {

// The number of the process in the upper half, its error number in the lower one; 0 while
// there is no report. One word, so that no half of it is ever seen.
using ExecReport = std::atomic<uint64_t>;
// So aligned, both targets have it in one access.
static_assert(sizeof(ExecReport) == 8);
static_assert(alignof(ExecReport) == 8);

// Takes the place for the report of the handle's companion, before the companion is
// started. Returns null when all places are taken or there is no memory. errno is kept.
ExecReport *take_exec_report(const PairHandle *ph);

// Gives the handle's place back.
void give_back_exec_report(const PairHandle *ph);

// In the child that cannot execute its program: writes its report. A null place is
// ignored.
void write_exec_report(ExecReport *report, int error);

// Returns the error that the process has reported, 0 while there is none. The report of
// any other process is not believed.
int read_exec_report(const ExecReport *report, int32_t pid);

// Replaces the report by that of a companion of number 0: a handle without a process
// keeps the error.
void keep_exec_error(ExecReport *report, int error);

} // namespace zel::pair

#endif
