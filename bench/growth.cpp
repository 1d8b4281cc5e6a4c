// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// The works of the growth plots: live blocks, companions at once, descriptor numbers and the parent's size. Messages
// stand in growth_messages.cpp.
#include "growth.h"

#include "heap.h"
#include "link.h"
#include "outside.h"
#include "start.h"

#include <algorithm>
#include <memory>
#include <string>
#include <sys/mman.h>
#include <vector>

namespace bench {

namespace {

// ---- Live blocks ----------------------------------------------------------------------------------------------------

void add_live_blocks() {
    for (const HeapWork &heap_work : kHeapWorks) {
        for (const int64_t live : {10, 100, 1000, 10000, 100000, 1000000}) {
            Work work = heap_row(heap_work.series, heap_work.word, live);
            work.every = 1;
            work.series = heap_work.series;
            work.x = static_cast<double>(live);
            work.iterations = live == 1000000 ? std::min<int64_t>(work.iterations, 50000) : work.iterations;
            add_row(work, heap_ways(heap_work.word, live));
        }
    }
}

// ---- Companions at once ---------------------------------------------------------------------------------------------

// All are started, then all are closed and reaped.
Body companions(int count, Link (*start)(Route, const char *), const char *service) {
    return [count, start, service](benchmark::State &state) {
        while (state.KeepRunningBatch(count)) {
            std::vector<std::unique_ptr<Link>> links;
            links.reserve(static_cast<size_t>(count));
            for (int i = 0; i < count; ++i) {
                links.push_back(std::unique_ptr<Link>(new Link(start(Route::pair, service))));
            }
        }
    };
}

void add_companions() {
    for (const int count : {1, 10, 100, 1000}) {
        add_row({.name = "companions at once, " + std::to_string(count),
                 .clock = Clock::wall,
                 .iterations = std::max(count, 10),
                 .series = "companions at once",
                 .x = static_cast<double>(count)},
                {{"zel", companions(count, Link::by_library, "zel-values")},
                 {"floor", companions(count, Link::by_hand, "bare-values")}});
    }
}

// ---- The parent's size ----------------------------------------------------------------------------------------------

// Memory that this process has written to.
struct Ballast {
    explicit Ballast(size_t bytes) : size(bytes) {
        if (size > 0) {
            area = mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_POPULATE, -1, 0);
        }
    }
    Ballast(const Ballast &) = delete;
    Ballast &operator=(const Ballast &) = delete;
    ~Ballast() {
        if (size > 0) {
            munmap(area, size);
        }
    }
    size_t size;
    void *area = nullptr;
};

Way starting_from(const char *name, size_t mebibytes, int (*start)()) {
    return {name, [mebibytes, start](benchmark::State &state) {
                const Ballast ballast(mebibytes << 20);
                if (ballast.area == MAP_FAILED) {
                    state.SkipWithError("no memory for a parent of this size");
                    return;
                }
                starting(start)(state);
            }};
}

void add_parent_sizes() {
    for (const size_t mebibytes : {0U, 1U, 4U, 16U, 64U, 256U, 1024U}) {
        add_row({.name = "size of the parent, " + std::to_string(mebibytes) + " MiB",
                 .clock = Clock::wall,
                 .iterations = 20,
                 .series = "size of the parent, MiB",
                 .x = static_cast<double>(mebibytes)},
                {starting_from("zel", mebibytes, start_by_library), starting_from("floor", mebibytes, start_with_fork),
                 starting_from("vfork and exec alone", mebibytes, start_with_vfork)});
        add_row({.name = "spawned by a parent of a size, " + std::to_string(mebibytes) + " MiB",
                 .clock = Clock::wall,
                 .iterations = 20,
                 .series = "spawned by a parent of a size, MiB",
                 .x = static_cast<double>(mebibytes)},
                {starting_from("zel", mebibytes, start_by_spawn),
                 starting_from("floor", mebibytes, start_pair_with_vfork),
                 starting_from("posix_spawn", mebibytes, start_pair_with_posix_spawn)});
    }
}

} // namespace

void add_growth_rows() {
    add_parent_sizes();
    add_message_growth();
    add_live_blocks();
    add_companions();
}

} // namespace bench
