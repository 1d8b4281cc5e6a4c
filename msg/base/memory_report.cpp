// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// The mark that the memory library is reporting.
#include <msg/base/memory_report.h>

namespace zel {

namespace {

constinit bool under_way = false;

} // namespace

MemoryReport::MemoryReport() : within_another_(under_way) {
    under_way = true;
}

MemoryReport::~MemoryReport() {
    under_way = within_another_;
}

bool memory_report_under_way() {
    return under_way;
}

} // namespace zel
