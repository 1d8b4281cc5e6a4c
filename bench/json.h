// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// The samples as JSON, for the report.
#ifndef ZEL_BENCH_JSON_H
#define ZEL_BENCH_JSON_H

#include "table.h"

#include <string>
#include <vector>

namespace bench {

// False when the file cannot be written.
bool write_json(const std::string &path, const Setting &setting, const std::vector<Table::Row> &rows);

} // namespace bench

#endif
