// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// The shared area of the reports when there is no memory. A program of its own: the area stays once it is there.
#include "spawn_support.h"

#include <sys/mman.h>

using namespace zel::test;

namespace {

int32_t error_of_missing() {
    PairHandle *ph = start_missing();
    EXPECT_EQ(platform_pair_ok(ph), 1);
    EXPECT_EQ(reap(ph->companion_pid), 1);
    const int32_t error = platform_pair_exec_error(ph);
    platform_pair_close(ph);
    return error;
}

} // namespace

TEST(PairExecMemory, WithoutMemoryTheErrorStaysUnknownUntilThereIsSome) {
    {
        int calls = 0;
        const Interposed failing(hook::mmap, [&calls](void *, size_t, int, int, int, off_t) {
            ++calls;
            errno = ENOMEM;
            return MAP_FAILED;
        });
        EXPECT_EQ(error_of_missing(), 0);
        EXPECT_EQ(calls, 1);
        PairHandle *ph = start();
        EXPECT_TRUE(echoes(ph, 3));
        EXPECT_EQ(finish(ph), kServed);
    }
    EXPECT_EQ(error_of_missing(), ENOENT);
}

TEST(PairExecMemory, ASpawnNeedsNoSharedArea) {
    const Outcome outcome = run_in_child([] {
        const Interposed failing(hook::mmap, [](void *address, size_t size, int protection, int flags, int fd,
                                                off_t at) {
            errno = ENOMEM;
            return (flags & MAP_SHARED) != 0 ? MAP_FAILED : hook::mmap.real(address, size, protection, flags, fd, at);
        });
        PairHandle *ph = spawn("/nowhere", {"nowhere"});
        printf("%d %s, ", ph->error_number == ENOENT ? 1 : 0, ph->error_text);
        ph = spawn_companion("pair_echo");
        printf("%d", echoes(ph, 3) ? finish(ph) : -1);
    });
    EXPECT_EQ(outcome.out, "1 execvp failed, 0");
}
