// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// The groups of measurements, each registered by its own source.
#ifndef ZEL_BENCH_ROWS_H
#define ZEL_BENCH_ROWS_H

namespace bench {

void add_output_rows();
void add_memory_rows();
void add_heap_rows();
void add_parse_rows();
void add_message_rows();
void add_value_rows();
void add_file_rows();
void add_removal_rows();
void add_start_rows();
void add_hook_rows();
void add_word_rows();

} // namespace bench

#endif
