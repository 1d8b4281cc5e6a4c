// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// Whether the memory library is reporting. Its report must reach a stream without any
// memory.
#ifndef ZEL_MSG_BASE_MEMORY_REPORT_H
#define ZEL_MSG_BASE_MEMORY_REPORT_H

namespace zel {

// A report of the memory library is under way while a MemoryReport lives. Such records
// may be nested. A report that ends the process is still under way in the exit handlers.
struct MemoryReport {
    MemoryReport();
    MemoryReport(const MemoryReport &) = delete;
    MemoryReport &operator=(const MemoryReport &) = delete;
    ~MemoryReport();

private:
    const bool within_another_;
};

// Asked when memory has run out: a report then takes spare storage.
bool memory_report_under_way();

} // namespace zel

#endif
