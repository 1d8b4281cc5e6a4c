// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// The owners of the live blocks, as lines and as a JSON text.
#include "debug_heap_support.h"
#include "malloc_support.h"

#include <malloc/heap_report.h>
#include <msg/msg.h>
#include <support/interpose.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

using namespace zel::test;

namespace {

constexpr int kModes[] = {ZEL_MALLOC_CHECK_PTR, ZEL_MALLOC_VERIFY_HEAP};
const std::string kHeading = "  Blocks      Bytes       Peak  Function or File:Line\n";

void expect_in_each_mode(const std::function<void()> &body, const std::string &out) {
    for (const int mode : kModes) {
        const Outcome outcome = run_heap(mode, body);
        EXPECT_EQ(outcome.out, out) << mode;
        EXPECT_EQ(outcome.err, "") << mode;
        EXPECT_EQ(outcome.status, 0) << mode;
    }
}

void *allocate(size_t size, const char *function) {
    return zel_malloc(size, function, nullptr);
}

void print_json() {
    char *json = zel_malloc_report_json();
    printf("%s\n", json == nullptr ? "null" : json);
    free(json);
}

} // namespace

// ---- Lines ----------------------------------------------------------------------------------------------------------

TEST(HeapOwners, BlocksAreAddedUpByFunctionOrByFileAndLine) {
    expect_in_each_mode(
        [] {
            allocate(10, "read_index");
            zel_malloc_fl(7, "ZEL_MALLOC_ARRAY", 12, "guest.c");
            zel_malloc_fl(7, "ZEL_STRDUP", 12, "guest.c");
            zel_malloc_fl(100, "ZEL_STRDUP", 13, "guest.c");
            zel_free(allocate(500, "gone"));
            zel_calloc(2, 10, "read_index", "another purpose");
            zel_malloc_if_room(1);
            printf("%d", zel_malloc_report_owners());
        },
        kHeading + "       1        100        100  guest.c:13\n"
                   "       2         30         30  read_index\n"
                   "       2         14         14  guest.c:12\n"
                   "       1          1          1  ???\n"
                   "zel_malloc_report_owners: 145 bytes allocated, 6 pointers, 4 owners\n4");
}

TEST(HeapOwners, EqualSumsAreInTheOrderOfNamesAndLines) {
    expect_in_each_mode(
        [] {
            allocate(5, "b");
            zel_malloc_fl(5, "M", 10, "a.c");
            zel_malloc_fl(5, "M", 9, "a.c");
            zel_malloc_if_room(5);
            allocate(5, "a");
            zel_malloc_report_owners();
        },
        kHeading + "       1          5          5  ???\n"
                   "       1          5          5  a\n"
                   "       1          5          5  a.c:9\n"
                   "       1          5          5  a.c:10\n"
                   "       1          5          5  b\n"
                   "zel_malloc_report_owners: 25 bytes allocated, 5 pointers, 5 owners\n");
}

TEST(HeapOwners, WithoutABlockOneLineSaysSo) {
    expect_in_each_mode(
        [] {
            zel_malloc_mark();
            zel_free(allocate(5, "f"));
            printf("%d", zel_malloc_report_owners());
        },
        "zel_malloc_report_owners: No storage was allocated\n0");
}

TEST(HeapOwners, TheRowsKeepTheirColumnsAtAnyWidth) {
    const Outcome outcome = run_heap(ZEL_MALLOC_CHECK_PTR, [] {
        msg_set_width_limit(30);
        allocate(5, "a function with many blanks in it");
        zel_malloc_report_owners();
    });
    EXPECT_EQ(outcome.out, kHeading + "       1          5          5  a function with many blanks in it\n"
                                      "zel_malloc_report_owners: 5\n"
                                      "bytes allocated, 1 pointers, 1\n"
                                      "owners\n");
}

TEST(HeapOwners, AStreamThatAllocatesDoesNotChangeWhatIsWritten) {
    const Outcome outcome = run_heap(ZEL_MALLOC_CHECK_PTR, [] {
        static const int out = 1;
        allocate(5, "f");
        const auto write_and_allocate = [](void *, const char *bytes, size_t length) {
            allocate(1000, "the stream");
            return write(out, bytes, length);
        };
        FILE *stream = fopencookie(nullptr, "w",
                                   {.read = nullptr, .write = write_and_allocate, .seek = nullptr, .close = nullptr});
        setvbuf(stream, nullptr, _IONBF, 0);
        msg_clear_streams(MSG_INFO);
        msg_add_stream(MSG_INFO, stream);
        zel_malloc_report_owners();
    });
    EXPECT_EQ(outcome.out, kHeading + "       1          5          5  f\n"
                                      "zel_malloc_report_owners: 5 bytes allocated, 1 pointers, 1 owners\n");
}

TEST(HeapOwners, WithoutMemoryNothingIsWrittenAndNothingIsLost) {
    const Outcome outcome = run_heap(ZEL_MALLOC_CHECK_PTR, [] {
        allocate(5, "f");
        int32_t owners = -2;
        for (int failures = 0; owners < 0; ++failures) {
            const FailingRequest failing(failures);
            owners = zel_malloc_report_owners();
            printf("%d ", owners);
        }
    });
    EXPECT_EQ(outcome.out, "-2 -2 " + kHeading +
                               "       1          5          5  f\n"
                               "zel_malloc_report_owners: 5 bytes allocated, 1 pointers, 1 owners\n1 ");
    EXPECT_EQ(outcome.err, "");
}

// ---- Peaks ----------------------------------------------------------------------------------------------------------

TEST(HeapPeak, ThePeakIsTheMostSinceTheFirstMark) {
    expect_in_each_mode(
        [] {
            zel_free(allocate(1000, "f")); // before the mark
            void *old = allocate(10, "f");
            zel_malloc_mark();
            zel_free(allocate(70, "f"));
            zel_malloc_mark(); // a later mark begins nothing anew
            zel_free(old);
            allocate(30, "f");
            allocate(60, "g");
            print_json();
        },
        "{\"blocks\":2,\"bytes\":90,\"peak\":90,\"owners\":["
        "{\"owner\":\"g\",\"line\":0,\"blocks\":1,\"bytes\":60,\"peak\":60},"
        "{\"owner\":\"f\",\"line\":0,\"blocks\":1,\"bytes\":30,\"peak\":80}]}\n");
}

TEST(HeapPeak, BlocksFromBeforeTheMarkCountFromTheMarkOn) {
    expect_in_each_mode(
        [] {
            void *old = allocate(500, "f");
            zel_malloc_mark();
            zel_free(old);
            allocate(5, "f");
            print_json();
        },
        "{\"blocks\":1,\"bytes\":5,\"peak\":500,\"owners\":["
        "{\"owner\":\"f\",\"line\":0,\"blocks\":1,\"bytes\":5,\"peak\":500}]}\n");
}

TEST(HeapPeak, WithoutAMarkThePeakIsThePresentSum) {
    expect_in_each_mode(
        [] {
            zel_free(allocate(1000, "f"));
            allocate(3, "f");
            print_json();
        },
        "{\"blocks\":1,\"bytes\":3,\"peak\":3,\"owners\":["
        "{\"owner\":\"f\",\"line\":0,\"blocks\":1,\"bytes\":3,\"peak\":3}]}\n");
}

TEST(HeapPeak, AResizeLeavesTheOldOwnerAndComesToTheNew) {
    expect_in_each_mode(
        [] {
            zel_malloc_mark();
            void *block = allocate(40, "f");
            allocate(1, "f");
            zel_realloc(block, 50, "g", nullptr);
            print_json();
        },
        "{\"blocks\":2,\"bytes\":51,\"peak\":51,\"owners\":["
        "{\"owner\":\"g\",\"line\":0,\"blocks\":1,\"bytes\":50,\"peak\":50},"
        "{\"owner\":\"f\",\"line\":0,\"blocks\":1,\"bytes\":1,\"peak\":41}]}\n");
}

TEST(HeapPeak, ABlockThatCannotBeResizedIsNoMoreItsOwners) {
    expect_in_each_mode(
        [] {
            zel_malloc_mark();
            void *block = allocate(40, "f");
            zel_malloc_fail_after(0);
            printf("%d ", zel_realloc_if_room(block, 50) == nullptr);
            allocate(2, "f");
            print_json();
            free(static_cast<char *>(block) - 8); // as the system would keep it
        },
        "1 {\"blocks\":1,\"bytes\":2,\"peak\":40,\"owners\":["
        "{\"owner\":\"f\",\"line\":0,\"blocks\":1,\"bytes\":2,\"peak\":40}]}\n");
}

TEST(HeapPeak, AnOwnerWithoutMemoryIsLeftOutUntilThereIsSome) {
    const Outcome outcome = run_heap(ZEL_MALLOC_CHECK_PTR, [] {
        zel_free(allocate(1, "known")); // the record table has its memory
        zel_malloc_mark();
        void *block;
        {
            const Interposed failing(hook::realloc, fail_always(hook::realloc, ENOMEM, nullptr));
            block = allocate(100, "late");
        }
        zel_free(block);
        allocate(7, "late");
        print_json();
    });
    EXPECT_EQ(outcome.out, "{\"blocks\":1,\"bytes\":7,\"peak\":100,\"owners\":["
                           "{\"owner\":\"late\",\"line\":0,\"blocks\":1,\"bytes\":7,\"peak\":7}]}\n");
    EXPECT_EQ(outcome.err, "");
}

TEST(HeapPeak, ThousandsOfOwnersAreKept) {
    expect_in_each_mode(
        [] {
            constexpr int kOwners = 3000;
            const int mode = zel_malloc_debug_mode();
            zel_enable_malloc_debug(ZEL_MALLOC_CHECK_PTR); // filling is quadratic in the other mode
            zel_malloc_mark();
            for (int line = 1; line <= kOwners; ++line) {
                zel_free(zel_malloc_fl(20, "M", line, "many.c"));
                zel_malloc_fl(10, "M", line, "many.c");
            }
            zel_enable_malloc_debug(mode);
            char *json = zel_malloc_report_json();
            const std::string text = json;
            free(json);
            size_t found = 0;
            for (size_t at = 0; (at = text.find("\"bytes\":10,\"peak\":20}", at)) != std::string::npos; ++at) {
                ++found;
            }
            printf("%zu %s", found, text.substr(0, 43).c_str());
        },
        "3000 {\"blocks\":3000,\"bytes\":30000,\"peak\":30010,\"");
}

// ---- JSON -----------------------------------------------------------------------------------------------------------

TEST(HeapJson, WithoutABlockTheListIsEmpty) {
    expect_in_each_mode(print_json, "{\"blocks\":0,\"bytes\":0,\"peak\":0,\"owners\":[]}\n");
}

TEST(HeapJson, OwnersOfAnyBytesAreStrings) {
    expect_in_each_mode(
        [] {
            allocate(3, "say \"no\"\\\n\xFF\xC3\xA4");
            zel_malloc_fl(2, "M", -7, "");
            zel_malloc_if_room(1);
            print_json();
        },
        "{\"blocks\":3,\"bytes\":6,\"peak\":6,\"owners\":["
        "{\"owner\":\"say \\\"no\\\"\\\\\\u000a\\ufffd\xC3\xA4\",\"line\":0,\"blocks\":1,\"bytes\":3,\"peak\":3},"
        "{\"owner\":\"\",\"line\":-7,\"blocks\":1,\"bytes\":2,\"peak\":2},"
        "{\"owner\":null,\"line\":0,\"blocks\":1,\"bytes\":1,\"peak\":1}]}\n");
}

TEST(HeapJson, TheTextIsNoBlockOfTheProgram) {
    expect_in_each_mode(
        [] {
            allocate(3, "f");
            const unsigned long total = zel_malloc_total_requested();
            char *json = zel_malloc_report_json();
            printf("%lu %lu", zel_malloc_mem_used(), zel_malloc_total_requested() - total);
            free(json);
        },
        "3 0");
}

TEST(HeapJson, WithoutMemoryTheResultIsNullAndNothingIsLost) {
    const Outcome outcome = run_heap(ZEL_MALLOC_CHECK_PTR, [] {
        allocate(5, "f");
        char *json = nullptr;
        for (int failures = 0; json == nullptr; ++failures) {
            const FailingRequest failing(failures);
            errno = 0;
            json = zel_malloc_report_json();
            printf("%d ", json != nullptr || errno == ENOMEM);
        }
        printf("%s", json);
        free(json);
    });
    EXPECT_EQ(outcome.out, "1 1 1 1 {\"blocks\":1,\"bytes\":5,\"peak\":5,\"owners\":["
                           "{\"owner\":\"f\",\"line\":0,\"blocks\":1,\"bytes\":5,\"peak\":5}]}");
}

// ---- Failures -------------------------------------------------------------------------------------------------------

namespace {

// In its scope the n-th request to the system (from 0) fails, and the blocks are counted
// that were not given back.
class SystemWithoutMemory {
public:
    explicit SystemWithoutMemory(int nth) : left_(nth) {}
    long kept = 0;

private:
    void *provide(void *before, size_t size) {
        if (left_-- == 0) {
            return nullptr;
        }
        kept += before == nullptr ? 1 : 0;
        return hook::realloc.real(before, size);
    }

    int left_;
    Interposed<void *(size_t)> malloc_{hook::malloc, [this](size_t size) { return provide(nullptr, size); }};
    Interposed<void *(void *, size_t)> realloc_{hook::realloc,
                                                [this](void *before, size_t size) { return provide(before, size); }};
    Interposed<void(void *)> free_{hook::free, [this](void *block) {
                                       kept -= block == nullptr ? 0 : 1;
                                       hook::free.real(block);
                                   }};
};

// Lets each request of the call fail until the call succeeds. Says how many failed, and
// how many blocks they kept.
std::string sweep(bool (*call)()) {
    int failures = 0;
    long kept = 0;
    for (bool done = false; !done; ++failures) {
        const SystemWithoutMemory system(failures);
        done = call();
        kept += done ? 0 : system.kept;
    }
    return std::to_string(failures - 1) + " failures keep " + std::to_string(kept) + " blocks\n";
}

} // namespace

TEST(HeapReports, WithoutMemoryNoCallKeepsABlock) {
    const Outcome outcome = run_heap(ZEL_MALLOC_CHECK_PTR, [] {
        msg_clear_streams(MSG_INFO);
        allocate(5, "f");
        const auto write_json = [] {
            char *json = zel_malloc_report_json();
            free(json);
            return json != nullptr;
        };
        printf("%s", sweep([] { return zel_malloc_report_owners() > 0; }).c_str());
        printf("%s", sweep(write_json).c_str());
        printf("%s", sweep([] { return zel_malloc_mark() > 0; }).c_str());
    });
    EXPECT_EQ(outcome.out, "2 failures keep 0 blocks\n3 failures keep 0 blocks\n3 failures keep 0 blocks\n");
}

TEST(HeapReports, NoReportKeepsABlock) {
    const Outcome outcome = run_heap(ZEL_MALLOC_CHECK_PTR, [] {
        allocate(5, "f");
        msg_clear_streams(MSG_INFO);
        const SystemWithoutMemory system(-1); // there is memory
        zel_malloc_report_owners();
        free(zel_malloc_report_json());
        zel_malloc_report_since(0);
        zel_malloc_visit(0, nullptr, nullptr);
        zel_malloc_verify();
        printf("%ld", system.kept);
    });
    EXPECT_EQ(outcome.out, "0");
}
