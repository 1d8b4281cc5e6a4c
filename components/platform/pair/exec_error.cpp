// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// Reports of companions that could not be executed.
#include <components/platform/pair/exec_error.h>

#include <components/platform/pair/handle.h>
#include <components/platform/pair_control.h>
#include <msg/base/assertion.h>
#include <msg/base/errno_kept.h>
#include <msg/base/limits.h>

#include <algorithm>
#include <array>
#include <sys/mman.h>
#include <unistd.h>

namespace zel::pair {

namespace {

// A process that was forked shares the places with its parent, and each of the two takes
// places for itself. A report that one erases reads as 0 for the other, and a report of a
// strange companion is known by its number.
struct State {
    ExecReport *reports;                                 // shared with every child; null before the first open
    std::array<const PairHandle *, kExecReports> owners; // the handle that has the place; null for a free one
};

constinit State state = {};

constexpr uint64_t report_of(int32_t pid, int error) {
    return static_cast<uint64_t>(static_cast<uint32_t>(pid)) << 32 | static_cast<uint32_t>(error);
}

ExecReport *map_reports() {
    void *area =
        mmap(nullptr, kExecReports * sizeof(ExecReport), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    return area == MAP_FAILED ? nullptr : static_cast<ExecReport *>(area);
}

// The place whose owner is that handle; that of null is a free one. Null when there is
// none.
const PairHandle **find_owner(const PairHandle *ph) {
    auto *const found = std::find(state.owners.begin(), state.owners.end(), ph);
    return found == state.owners.end() ? nullptr : found;
}

ExecReport *report_at(const PairHandle *const *owner) {
    return &state.reports[owner - state.owners.data()];
}

} // namespace

ExecReport *take_exec_report(const PairHandle *ph) {
    const ErrnoKept kept;
    if (state.reports == nullptr) {
        state.reports = map_reports();
    }
    const PairHandle **owner = state.reports == nullptr ? nullptr : find_owner(nullptr);
    if (owner == nullptr) {
        return nullptr;
    }
    *owner = ph;
    report_at(owner)->store(0);
    return report_at(owner);
}

void give_back_exec_report(const PairHandle *ph) {
    const PairHandle **owner = state.reports == nullptr ? nullptr : find_owner(ph);
    if (owner != nullptr) {
        *owner = nullptr;
    }
}

void write_exec_report(ExecReport *report, int error) {
    if (report != nullptr) {
        report->store(report_of(getpid(), error));
    }
}

int read_exec_report(const ExecReport *report, int32_t pid) {
    const uint64_t word = report->load();
    const bool own = word >> 32 == static_cast<uint32_t>(pid);
    return own ? static_cast<int>(word & UINT32_MAX) : 0;
}

void keep_exec_error(ExecReport *report, int error) {
    report->store(report_of(0, error));
}

} // namespace zel::pair

using zel::pair::kUnit;

int32_t platform_pair_exec_error(const PairHandle *ph) {
    ZEL_ASSERT(platform_pair_valid(ph));
    const PairHandle *const *owner = zel::pair::find_owner(ph);
    return owner == nullptr ? 0 : zel::pair::read_exec_report(zel::pair::report_at(owner), ph->companion_pid);
}
