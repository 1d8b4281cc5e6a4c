// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// Contenders that are programs of their own, and the folder that all of them may write in.
#ifndef ZEL_BENCH_OUTSIDE_H
#define ZEL_BENCH_OUTSIDE_H

#include "table.h"

#include <string>
#include <vector>

namespace bench {

// The path of a program that was built beside this one.
std::string beside(const std::string &program);

// A new folder beside this program. It is removed when this program ends by exit.
const std::string &scratch();

// A sample is a run of a shell command. %n stands for the number of iterations. The program prints what one took in
// seconds: of processor time, then by the clock on the wall; sample.h does that.
Body command(const std::string &line, Clock clock);

// From now on with_peers adds the contenders of other projects.
void use_peers();

// The ways, and behind them the peers that do the work: its first word is what a peer's program is told to do. A peer
// whose program was not built is named on standard error once.
std::vector<Way> with_peers(const std::string &work, Clock clock, std::vector<Way> ways);

} // namespace bench

#endif
