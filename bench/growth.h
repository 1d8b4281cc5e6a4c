// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// The works of the growth plots: each with more and more of one thing.
#ifndef ZEL_BENCH_GROWTH_H
#define ZEL_BENCH_GROWTH_H

namespace bench {

void add_growth_rows();

// Those of messages: their size, their lines, and the number of the descriptor that they arrive on.
void add_message_growth();

} // namespace bench

#endif
