// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// Removing a folder of many files. Each folder is made here, inside the folder that this program made for itself.
#include "files_by_hand.h"
#include "outside.h"
#include "rows.h"

#include <components/platform/file_control.h>

#include <string>
#include <unistd.h>

namespace bench {

namespace {

constexpr int kFiles = 20000;

Way removing(const char *name, int (*remove)(const char *path)) {
    return {name, [remove](benchmark::State &state) {
                const std::string path = scratch() + "/tree";
                while (state.KeepRunning()) {
                    state.PauseTiming();
                    const bool made = make_folder(path.c_str(), kFiles) != 0;
                    state.ResumeTiming();
                    if (!made || remove(path.c_str()) == 0 || access(path.c_str(), F_OK) == 0) {
                        state.SkipWithError("not made or not removed");
                    }
                }
            }};
}

} // namespace

void add_removal_rows() {
    const std::string arguments = std::to_string(kFiles) + " '" + scratch() + "/tree'";
    add_row({.name = "removal of 20000 files", .clock = Clock::own, .iterations = 1, .every = 4},
            with_peers("rm " + arguments, Clock::own,
                       with_peers("nftw " + arguments, Clock::own,
                                  {removing("zel", platform_remove_dir), removing("floor", remove_by_hand)})));
}

} // namespace bench
