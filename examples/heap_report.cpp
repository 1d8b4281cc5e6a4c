// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// Makes one of the classic mistakes with allocated storage, and shows what the debug heap
// says of it.
//
//   heap_report [--verify] MISTAKE
//
//   --verify   the whole heap is verified at every call, not only the pointer at hand
//
//   overrun    writes past the end of a block, and goes on to allocate and release
//   double     releases a block twice
//   stray      releases a pointer into the middle of a block
//   leak       forgets what it has allocated, and asks for the report
//   request    handles three requests, one of which keeps a block, and asks what each left
//
// Standard output gets the steps of the program, the descriptions and the report.
// Standard error gets warnings and errors. Exit status: 0 when the mistake went unnoticed
// until the end (leak, request), 1 when the heap ended the process, 2 when the arguments are
// wrong.
//
// The steps of a program that wants to be watched: switch the heap on before the first
// allocation (main), say at each allocation who asks and for what (everywhere below), ask
// for the report at the end (leak). One that runs for long takes a mark now and then, and
// asks what is live since (request).
#include <components/platform/debug_hooks.h>
#include <malloc/debug_heap.h>
#include <malloc/heap_report.h>
#include <malloc/zel_malloc.h>
#include <msg/msg.h>

#include <array>
#include <cstdint>
#include <cstdlib>
#include <string_view>

namespace {

constexpr int kUsageStatus = 2;

// Five characters fit into the block, and three bytes of padding follow. The ninth
// character is written over the word that guards the end.
void overrun() {
    char *name = zel_strdup("host", "overrun", "user name");
    zel_malloc_describe_ptr(name);
    msg_print("Nine characters are written to a block of five.");
    for (int i = 0; i < 9; ++i) {
        name[i] = '!';
    }
    zel_malloc_describe_ptr(name);
    msg_print("Another block is allocated: only a verification looks at this one.");
    char *other = zel_strdup("guest", "overrun", "another name");
    msg_print("Both are released.");
    zel_free(other);
    zel_free(name);
}

// Two neighbours are released, and the second of them again. Whether the heap can still
// name its owner depends on what the system's allocator does with a block: that of glibc
// adds the second to the first here and leaves its header alone.
void release_twice() {
    constexpr size_t kPageSize = 4000;
    void *title = zel_malloc(kPageSize, "release_twice", "title page");
    void *first = zel_malloc(kPageSize, "release_twice", "first page");
    void *second = zel_malloc(kPageSize, "release_twice", "second page");
    zel_malloc_describe_ptr(second);
    msg_print("The first page is released, then the second one, then the second one again.");
    zel_free(first);
    zel_free(second);
    zel_free(second);
    zel_free(title);
}

void release_stray() {
    auto *path = static_cast<char *>(zel_calloc(4, 8, "release_stray", "path"));
    zel_malloc_describe_ptr(path);
    msg_print("The pointer is moved along and released where it has come to.");
    path += 8;
    zel_malloc_describe_ptr(path);
    zel_free(path);
}

// Joining two texts leaves a copy of each allocated, which the report shows.
void leak() {
    ZEL_MALLOC_ARRAY(int32_t, 64);
    zel_free(zel_strdup("guest", "leak", "user name"));
    zel_strdup2("/tmp/zel", "/index", "leak", "path");
    zel_malloc_if_room(100);
    msg_print("One of six blocks has been released; %lu bytes are in use.", zel_malloc_mem_used());
    zel_malloc_debug_report(1);
}

// Every second request keeps the page that it has read, in case somebody asks again.
void handle_request(int32_t number) {
    char *line = zel_strdup("get index", "handle_request", "line");
    void *page = zel_malloc(400, "read_page", "page");
    if (number % 2 == 1) {
        zel_free(page);
    }
    zel_free(line);
}

// The settings live on, and are in no report of a request. The owners are those of all
// that is live; the page of the last request stands in the peak of its owner.
void keep_page_of_request() {
    constexpr int32_t kRequests = 3;
    zel_strdup("port=80", "read_settings", "settings");
    for (int32_t number = 1; number <= kRequests; ++number) {
        const uint64_t mark = zel_malloc_mark();
        handle_request(number);
        msg_print("Request %d:", number);
        zel_malloc_report_since(mark);
    }
    zel_malloc_report_owners();
}

struct Mistake {
    std::string_view name;
    void (*make)();
};

constexpr std::array<Mistake, 5> kMistakes = {{{"overrun", overrun},
                                               {"double", release_twice},
                                               {"stray", release_stray},
                                               {"leak", leak},
                                               {"request", keep_page_of_request}}};

[[noreturn]] void refuse() {
    msg_error("Usage: heap_report [--verify] overrun|double|stray|leak|request");
    exit(kUsageStatus);
}

const Mistake &find_mistake(std::string_view name) {
    for (const Mistake &mistake : kMistakes) {
        if (mistake.name == name) {
            return mistake;
        }
    }
    refuse();
}

} // namespace

int main(int argc, char **argv) {
    platform_debug_hooks(&argc, argv);
    const bool verify = argc > 1 && std::string_view(argv[1]) == "--verify";
    const int mistake = verify ? 2 : 1;
    if (argc != mistake + 1) {
        refuse();
    }
    const Mistake &chosen = find_mistake(argv[mistake]);
    zel_enable_malloc_debug(verify ? ZEL_MALLOC_VERIFY_HEAP : ZEL_MALLOC_CHECK_PTR);
    chosen.make();
    return 0;
}
