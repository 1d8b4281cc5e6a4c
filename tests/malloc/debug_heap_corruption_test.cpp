// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// Blocks with one damaged field, and the texts of every operation on them.
#include "debug_heap_support.h"

#include <msg/base/limits.h>

#include <cstdio>
#include <vector>

using namespace zel::test;

namespace {

// The heap of these tests: record 0 is <P>, of 8 bytes; record 1 is a sound block; record
// 2 was released.
struct Damage {
    const char *name;
    ptrdiff_t offset;
    uint32_t value;
    const char *in_release;  // the verdict at a release or resize
    const char *in_question; // the verdict of a description or a verification
    bool owner_known;        // by the header; a verification always knows the owner
};

constexpr ptrdiff_t kTrailerAt = 8;

constexpr const char *kAtTheEnd = "referenced data that was corrupted at the end.";
constexpr const char *kAtTheBeginning = "referenced data that was corrupted at the beginning.";
constexpr const char *kInternalError = "had invalid debugging information (possible internal error).";
constexpr const char *kReferencedAfter = "was referenced after it was free'd.";
constexpr const char *kFreedData = "referenced free'd data.";

const std::vector<Damage> kLiveDamages = {
    {"trailer", kTrailerAt, 0, kAtTheEnd, kAtTheEnd, true},
    {"trailer by one bit", kTrailerAt, kTrailer ^ 0x80000000, kAtTheEnd, kAtTheEnd, true},
    {"magic", kMagicAt, 0x12345678, kAtTheBeginning, kAtTheBeginning, true},
    {"magic of a trailer", kMagicAt, kTrailer, kAtTheBeginning, kAtTheBeginning, true},
    {"magic of a released block", kMagicAt, kReleased, kReferencedAfter, kFreedData, true},
    {"negative index", kIndexAt, UINT32_MAX, kAtTheBeginning, kAtTheBeginning, false},
    {"lowest index", kIndexAt, 0x80000000, kAtTheBeginning, kAtTheBeginning, false},
    {"highest index", kIndexAt, INT32_MAX, kAtTheBeginning, kAtTheBeginning, false},
    {"index of another block", kIndexAt, 1, kInternalError, kInternalError, false},
    {"index of a released record", kIndexAt, 2, kInternalError, kInternalError, false},
};

const std::vector<Damage> kReleasedDamages = {
    {"nothing", kTrailerAt, kTrailer, kReferencedAfter, kFreedData, true},
    {"trailer", kTrailerAt, 0, kReferencedAfter, kFreedData, true},
    {"magic", kMagicAt, 0x12345678, kAtTheBeginning, kAtTheBeginning, true},
    {"magic of a live block", kMagicAt, kLive, kInternalError, kInternalError, true},
    {"negative index", kIndexAt, UINT32_MAX, kReferencedAfter, kFreedData, false},
    {"highest index", kIndexAt, INT32_MAX, kReferencedAfter, kFreedData, false},
    {"index of another block", kIndexAt, 1, kReferencedAfter, kFreedData, false},
    {"index of a released record", kIndexAt, 2, kReferencedAfter, kFreedData, false},
};

constexpr const char *kOwner = "pointer was allocated by zel_malloc with a length of 8.  The storage was allocated in "
                               "the function F for p.  ";

std::string diagnosis(const char *verdict, bool owner_known) {
    const bool released = verdict == kReferencedAfter || verdict == kFreedData;
    const std::string owner = std::string(released ? "  Before being free'd, the " : "  The ") + kOwner;
    return std::string("The pointer <P> ") + verdict + (owner_known ? owner : "");
}

void *build_heap() {
    void *pointer = named('P', zel_malloc(8, "F", "p"));
    zel_malloc(6, "sound", "sound");
    zel_free(zel_malloc(7, "released", "released"));
    return pointer;
}

using Operation = std::function<void(void *)>;

Outcome run_live(const Damage &damage, const Operation &operation, int mode = ZEL_MALLOC_CHECK_PTR) {
    return run_heap(mode, [&] {
        void *pointer = build_heap();
        set_word_at(pointer, damage.offset, damage.value);
        operation(pointer);
    });
}

Outcome run_released(const Damage &damage, const Operation &operation, int mode = ZEL_MALLOC_CHECK_PTR) {
    return run_heap(mode, [&] {
        void *pointer = build_heap();
        keep_from_system(pointer);
        zel_free(pointer);
        set_word_at(pointer, damage.offset, damage.value);
        operation(pointer);
    });
}

void expect_error(const Outcome &outcome, const std::string &error) {
    EXPECT_EQ(outcome.out, "");
    EXPECT_EQ(outcome.err, "Error: " + error + "\n");
    EXPECT_EQ(outcome.status, 1);
    EXPECT_EQ(outcome.signal, 0);
}

void expect_lines(const Outcome &outcome, const std::string &lines) {
    EXPECT_EQ(outcome.out, lines);
    EXPECT_EQ(outcome.err, "");
    EXPECT_EQ(outcome.status, 0);
    EXPECT_EQ(outcome.signal, 0);
}

void resize(void *pointer) {
    zel_realloc(pointer, 50, "G", "g");
}

constexpr const char *kResizeContext = "(Currently inside of G, allocating storage for g)";

void describe(void *pointer) {
    zel_malloc_describe_ptr(pointer);
}

void report(void * /*pointer*/) {
    zel_malloc_debug_report(0);
}

void allocate(void * /*pointer*/) {
    zel_malloc(1, "G", "g");
}

} // namespace

// ---- A live block ---------------------------------------------------------------------------------------------------

TEST(DebugHeapDamagedLiveBlock, ADamagedBlockIsDiagnosedWhenItIsReleased) {
    for (const Damage &damage : kLiveDamages) {
        SCOPED_TRACE(damage.name);
        expect_error(run_live(damage, zel_free), "zel_free: " + diagnosis(damage.in_release, damage.owner_known) + " ");
    }
}

TEST(DebugHeapDamagedLiveBlock, ADamagedBlockIsDiagnosedWhenItIsResized) {
    for (const Damage &damage : kLiveDamages) {
        SCOPED_TRACE(damage.name);
        expect_error(run_live(damage, resize),
                     "zel_realloc: " + diagnosis(damage.in_release, damage.owner_known) + " " + kResizeContext);
    }
}

TEST(DebugHeapDamagedLiveBlock, ADamagedBlockIsDescribed) {
    for (const Damage &damage : kLiveDamages) {
        SCOPED_TRACE(damage.name);
        expect_lines(run_live(damage, describe), diagnosis(damage.in_question, damage.owner_known) + "\n");
    }
}

TEST(DebugHeapDamagedLiveBlock, ADamagedBlockIsMarkedInTheReport) {
    for (const Damage &damage : kLiveDamages) {
        SCOPED_TRACE(damage.name);
        expect_lines(run_live(damage, report), "zel_malloc_debug_report: 14 bytes allocated, 2 pointers (1 invalid or "
                                               "corrupted!)\n");
    }
}

TEST(DebugHeapDamagedLiveBlock, ADamagedBlockIsFoundByAVerificationThatKnowsItsOwner) {
    for (const Damage &damage : kLiveDamages) {
        SCOPED_TRACE(damage.name);
        const Outcome outcome = run_live(damage, allocate, ZEL_MALLOC_VERIFY_HEAP);
        EXPECT_EQ(outcome.out, "");
        EXPECT_EQ(outcome.err, "Warning: " + diagnosis(damage.in_question, true) + "\n" +
                                   "Error: zel_malloc: The heap was corrupted. " + kResizeContext + "\n");
        EXPECT_EQ(outcome.status, 1);
    }
}

TEST(DebugHeapDamagedLiveBlock, AReleaseDiagnosesItsBlockBeforeTheHeapIsVerified) {
    for (const Damage &damage : kLiveDamages) {
        SCOPED_TRACE(damage.name);
        expect_error(run_live(damage, zel_free, ZEL_MALLOC_VERIFY_HEAP),
                     "zel_free: " + diagnosis(damage.in_release, damage.owner_known) + " ");
    }
}

// ---- A released block -----------------------------------------------------------------------------------------------

TEST(DebugHeapDamagedReleasedBlock, AReleasedBlockIsDiagnosedWhenItIsReleasedAgain) {
    for (const Damage &damage : kReleasedDamages) {
        SCOPED_TRACE(damage.name);
        expect_error(run_released(damage, zel_free),
                     "zel_free: " + diagnosis(damage.in_release, damage.owner_known) + " ");
    }
}

TEST(DebugHeapDamagedReleasedBlock, AReleasedBlockIsDiagnosedWhenItIsResized) {
    for (const Damage &damage : kReleasedDamages) {
        SCOPED_TRACE(damage.name);
        expect_error(run_released(damage, resize),
                     "zel_realloc: " + diagnosis(damage.in_release, damage.owner_known) + " " + kResizeContext);
    }
}

TEST(DebugHeapDamagedReleasedBlock, AReleasedBlockIsDescribed) {
    for (const Damage &damage : kReleasedDamages) {
        SCOPED_TRACE(damage.name);
        expect_lines(run_released(damage, describe), diagnosis(damage.in_question, damage.owner_known) + "\n");
    }
}

TEST(DebugHeapDamagedReleasedBlock, AReleasedBlockIsNothingToTheReport) {
    for (const Damage &damage : kReleasedDamages) {
        SCOPED_TRACE(damage.name);
        expect_lines(run_released(damage, report), "zel_malloc_debug_report: 6 bytes allocated, 1 pointers\n");
    }
}

TEST(DebugHeapDamagedReleasedBlock, AReleasedBlockIsNothingToAVerification) {
    for (const Damage &damage : kReleasedDamages) {
        SCOPED_TRACE(damage.name);
        expect_lines(run_released(damage, allocate, ZEL_MALLOC_VERIFY_HEAP), "");
    }
}

// ---- Two fields at a time -------------------------------------------------------------------------------------------

namespace {

// The finding of a verification on <P> with that damage and that trailer.
std::string finding(const Damage &damage, uint32_t trailer) {
    const std::string err = run_live(
                                damage,
                                [trailer](void *pointer) {
                                    set_word_at(pointer, kTrailerAt, trailer);
                                    allocate(nullptr);
                                },
                                ZEL_MALLOC_VERIFY_HEAP)
                                .err;
    return err.substr(0, err.find('\n'));
}

} // namespace

TEST(DebugHeapDamagedLiveBlock, ATrailerSaysMoreThanAnIndex) {
    const Damage damage = {"", kIndexAt, UINT32_MAX, "", "", false};
    EXPECT_EQ(finding(damage, 0), "Warning: " + diagnosis(kAtTheEnd, true));
}

TEST(DebugHeapDamagedLiveBlock, AMagicSaysMoreThanATrailer) {
    const Damage damage = {"", kMagicAt, 0, "", "", false};
    EXPECT_EQ(finding(damage, 0), "Warning: " + diagnosis(kAtTheBeginning, true));
}

TEST(DebugHeapDamagedLiveBlock, TheMagicOfAReleaseSaysMoreThanATrailer) {
    const Damage damage = {"", kMagicAt, kReleased, "", "", false};
    EXPECT_EQ(finding(damage, 0), "Warning: " + diagnosis(kFreedData, true));
}

// ---- An index equal to the capacity ---------------------------------------------------------------------------------

namespace {

// The capacity after the three allocations of these tests.
constexpr uint32_t kCapacity = zel::kRecordTableStep < 3 ? 3 : zel::kRecordTableStep;

} // namespace

TEST(DebugHeapDamagedLiveBlock, AnIndexEqualToTheCapacityMatchesNoRecord) {
    const Damage damage = {"", kIndexAt, kCapacity, "", "", false};
    const std::string unknown = diagnosis(kAtTheBeginning, false);
    expect_error(run_live(damage, zel_free), "zel_free: " + unknown + " ");
    expect_error(run_live(damage, resize), "zel_realloc: " + unknown + " " + kResizeContext);
    expect_lines(run_live(damage, describe), unknown + "\n");
    expect_lines(run_live(damage, report), "zel_malloc_debug_report: 14 bytes allocated, 2 pointers (1 invalid or "
                                           "corrupted!)\n");
    EXPECT_EQ(run_live(damage, allocate, ZEL_MALLOC_VERIFY_HEAP).err,
              "Warning: " + diagnosis(kAtTheBeginning, true) + "\nError: zel_malloc: The heap was corrupted. " +
                  kResizeContext + "\n");
}

TEST(DebugHeapDamagedLiveBlock, AnIndexBelowTheCapacityIsThatOfARecord) {
    const Damage damage = {"", kIndexAt, kCapacity - 1, "", "", false};
    expect_lines(run_live(damage, describe), diagnosis(kInternalError, false) + "\n");
}

TEST(DebugHeapDamagedReleasedBlock, AnIndexEqualToTheCapacityMatchesNoRecord) {
    const Damage damage = {"", kIndexAt, kCapacity, "", "", false};
    expect_error(run_released(damage, zel_free), "zel_free: " + diagnosis(kReferencedAfter, false) + " ");
    expect_lines(run_released(damage, describe), diagnosis(kFreedData, false) + "\n");
}
