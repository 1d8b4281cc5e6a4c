// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// The start of a program that calls the start-up hook, without a request, beside an empty main linked with the same
// library.
#include "outside.h"
#include "rows.h"
#include "table.h"

#include <cstdlib>
#include <string>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

namespace bench {

namespace {

struct Run {
    int status;
    long pages; // that it touched
};

Run run(const char *program) {
    Run result = {.status = -1, .pages = 0};
    rusage usage = {};
    const pid_t pid = vfork(); // NOLINT(clang-analyzer-security.insecureAPI.vfork): the cheapest start hides least
    if (pid == 0) {
        execl(program, program, static_cast<char *>(nullptr));
        _exit(1);
    }
    wait4(pid, &result.status, 0, &usage);
    result.pages = usage.ru_minflt;
    return result;
}

Way running(const char *name, const char *program) {
    return {name, [path = beside(program)](benchmark::State &state) {
                Run last = {.status = 0, .pages = 0};
                while (state.KeepRunning()) {
                    last = run(path.c_str());
                    if (last.status != 0) {
                        state.SkipWithError("the program failed");
                    }
                }
                state.counters["pages"] = static_cast<double>(last.pages);
            }};
}

} // namespace

void add_hook_rows() {
    unsetenv("ZEL_DEBUG");
    add_row({.name = "start of a program with the hook", .clock = Clock::wall, .iterations = 50},
            {running("zel", "zel_bench_start_hook"), running("floor", "zel_bench_start_empty")});
}

} // namespace bench
