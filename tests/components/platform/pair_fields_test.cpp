// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// The fields of a handle, and what every operation does with a handle that is none.
#include "pair_support.h"

#include <csignal>
#include <cstring>

using namespace zel::test;

namespace {

struct Operation {
    const char *name; // as the assertion names it
    void (*call)(PairHandle *ph);
};

char byte;

const Operation kAsserting[] = {
    {"platform_pair_send", [](PairHandle *ph) { platform_pair_send(ph, &byte, 1); }},
    {"platform_pair_recv", [](PairHandle *ph) { platform_pair_recv(ph, &byte, 1); }},
    {"platform_pair_companion_alive", [](PairHandle *ph) { platform_pair_companion_alive(ph); }},
    {"platform_pair_kill_child", [](PairHandle *ph) { platform_pair_kill_child(ph); }},
    {"platform_pair_close", [](PairHandle *ph) { platform_pair_close(ph); }},
    {"platform_pair_errno", [](PairHandle *ph) { platform_pair_errno(ph); }},
    {"platform_pair_errstr", [](PairHandle *ph) { platform_pair_errstr(ph); }},
    {"platform_pair_parent", [](PairHandle *ph) { platform_pair_parent(ph); }},
    {"platform_pair_child", [](PairHandle *ph) { platform_pair_child(ph); }},
    {"platform_pair_rx_fd", [](PairHandle *ph) { platform_pair_rx_fd(ph); }},
    {"platform_pair_tx_fd", [](PairHandle *ph) { platform_pair_tx_fd(ph); }},
    {"platform_pair_companion_pid", [](PairHandle *ph) { platform_pair_companion_pid(ph); }},
    {"platform_pair_child_exit_status", [](PairHandle *ph) { platform_pair_child_exit_status(ph); }},
    {"platform_pair_child_term_signal", [](PairHandle *ph) { platform_pair_child_term_signal(ph); }},
    {"platform_pair_hybrid_environment", [](PairHandle *ph) { platform_pair_hybrid_environment(ph); }},
};

void expect_abort(const Operation &operation, PairHandle *ph) {
    SCOPED_TRACE(operation.name);
    const Outcome outcome = run_in_child([&] { operation.call(ph); });
    EXPECT_EQ(outcome.signal, SIGABRT);
    EXPECT_EQ(outcome.out, "");
    EXPECT_EQ(outcome.err, std::string("components/platform/zel_pair_connection: ") + operation.name +
                               ": Assertion `platform_pair_valid(ph)' failed.\n");
}

} // namespace

TEST(PairFields, EachOperationReturnsItsField) {
    PairHandle ph = sample_record(1);
    ph.self = &ph;
    EXPECT_EQ(platform_pair_errno(&ph), ENOENT);
    EXPECT_EQ(platform_pair_parent(&ph), 1);
    EXPECT_EQ(platform_pair_rx_fd(&ph), 15);
    EXPECT_EQ(platform_pair_tx_fd(&ph), 16);
    EXPECT_EQ(platform_pair_companion_pid(&ph), 4711);
    EXPECT_EQ(platform_pair_child_exit_status(&ph), 256);
    EXPECT_EQ(platform_pair_child_term_signal(&ph), 9);
    EXPECT_EQ(platform_pair_hybrid_environment(&ph), 13);
}

TEST(PairFields, AHandleIsAChildsWhenItIsNotAParents) {
    PairHandle parent = sample_record(1);
    parent.self = &parent;
    EXPECT_EQ(platform_pair_child(&parent), 0);
    PairHandle child = sample_record(0);
    child.self = &child;
    EXPECT_EQ(platform_pair_parent(&child), 0);
    EXPECT_EQ(platform_pair_child(&child), 1);
}

TEST(PairFields, AHandleIsHealthyWithoutAnError) {
    PairHandle ph = sample_record(1);
    ph.self = &ph;
    for (const int32_t error : {-1, 1, EAGAIN, INT32_MAX}) {
        ph.error_number = error;
        EXPECT_EQ(platform_pair_ok(&ph), 0) << error;
    }
    ph.error_number = 0;
    ph.error_text = "some step failed";
    EXPECT_EQ(platform_pair_ok(&ph), 1) << "whatever the error text says";
}

TEST(PairFields, TheErrorTextIsTheSystems) {
    PairHandle ph = sample_record(1);
    ph.self = &ph;
    EXPECT_STREQ(platform_pair_errstr(&ph), "No such file or directory");
    ph.error_number = 0;
    EXPECT_STREQ(platform_pair_errstr(&ph), "Success");
    ph.error_number = -1;
    EXPECT_STREQ(platform_pair_errstr(&ph), "Unknown error -1");
}

TEST(PairFields, AHandleIsValidWhileItPointsAtItself) {
    PairHandle ph = sample_record(1);
    ph.self = &ph;
    EXPECT_EQ(platform_pair_valid(&ph), 1);
    PairHandle copy = ph;
    EXPECT_EQ(platform_pair_valid(&copy), 0);
    ph.self = nullptr;
    EXPECT_EQ(platform_pair_valid(&ph), 0);
    EXPECT_EQ(platform_pair_valid(nullptr), 0);
}

TEST(PairFields, NoOperationTakesANullHandle) {
    for (const Operation &operation : kAsserting) {
        expect_abort(operation, nullptr);
    }
}

TEST(PairFields, NoOperationTakesADamagedHandle) {
    PairHandle ph = sample_record(1);
    ph.self = &ph + 1;
    for (const Operation &operation : kAsserting) {
        expect_abort(operation, &ph);
    }
}

TEST(PairFields, AnOkQuestionOnADamagedHandleNamesErrno) {
    const Operation ok = {"platform_pair_errno", [](PairHandle *ph) { platform_pair_ok(ph); }};
    PairHandle ph = sample_record(1);
    expect_abort(ok, &ph);
    expect_abort(ok, nullptr);
}

TEST(PairFields, AnOpenHandleAnswersForBothSides) {
    PairHandle *ph = start();
    EXPECT_EQ(platform_pair_parent(ph), 1);
    EXPECT_EQ(platform_pair_child(ph), 0);
    EXPECT_EQ(platform_pair_ok(ph), 1);
    EXPECT_EQ(platform_pair_rx_fd(ph), platform_pair_tx_fd(ph));
    EXPECT_EQ(platform_pair_hybrid_environment(ph), 0);
    EXPECT_EQ(finish(ph), kServed);
}
