// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// All that a spawned child needs between its start and its program, made by the parent
// before: the child makes nothing but system calls.
#ifndef ZEL_COMPONENTS_PLATFORM_PAIR_SPAWN_PLAN_H
#define ZEL_COMPONENTS_PLATFORM_PAIR_SPAWN_PLAN_H

#include <components/platform/base/child_start.h>
#include <components/platform/pair/exec_error.h>
#include <components/platform/pair_control.h>

#include <csignal>
#include <cstddef>

namespace zel::pair {

// What the caller asks for. The options are complete: none is the record of the usual.
struct SpawnRequest {
    const char *env_name;
    const char *file;
    char *const *argv;
    PlatformPairSpawnOptions options;
};

// One mapping: a guard page, the child's stack, then the lists and texts of the plan.
struct SpawnMemory {
    void *start; // null: nothing is mapped
    size_t size;
    char *stack_end; // the stack grows down from here
};

// The steps of the child, in their order.
struct SpawnPlan {
    const Standards *standards; // null: the null device
    bool close_others;
    int child_end;
    bool blocking;
    const char *directory; // null: it stays where it is
    bool default_signals;
    sigset_t mask;           // the program starts with it
    const char **candidates; // the paths to try, then a null pointer
    char *const *argv;
    const char **shell_argv; // for a file that is a script without its shell; place 1 is for its path
    const char **environment;
    ExecReport *report;
};

// Checks the request. Returns 0, or the error number for which it is refused.
int check_request(const SpawnRequest &request);

// Maps the memory and builds candidates, shell_argv and environment in it. Returns false
// with errno, and nothing is mapped then.
bool build_plan(const SpawnRequest &request, int child_end, SpawnPlan &plan, SpawnMemory &memory);

// Releases the memory of a plan and keeps errno.
void release(const SpawnMemory &memory);

// Runs in the child, on the stack of the plan that is its argument: carries the plan out
// and never returns.
int run_spawned_child(void *argument);

} // namespace zel::pair

#endif
