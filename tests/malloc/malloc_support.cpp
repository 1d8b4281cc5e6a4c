// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// Support of the memory library's tests.
#include "malloc_support.h"

#include <msg/msg.h>

#include <cstdlib>
#include <ostream>
#include <regex>
#include <sys/resource.h>

namespace zel::test {

namespace {

void *handler_result = nullptr;

void *note_failure(unsigned long size, const char *text) {
    CaughtFailures::list.push_back({.size = size, .text = text});
    return handler_result;
}

} // namespace

void deny_huge() {
    const rlimit limit = {.rlim_cur = kHuge, .rlim_max = kHuge};
    if (setrlimit(RLIMIT_AS, &limit) != 0) {
        abort();
    }
}

void *AllocatorLog::add(const std::string &call, void *block) {
    calls.push_back(call);
    blocks.push_back(block);
    return block;
}

bool FailingRequest::fails() {
    if (left_-- != 0) {
        return false;
    }
    errno = error_;
    return true;
}

void PrintTo(const Failure &failure, std::ostream *out) {
    *out << failure.size << " \"" << failure.text << '"';
}

std::vector<Failure> CaughtFailures::list;

CaughtFailures::CaughtFailures(void *result) : before_(zel_malloc_set_failure_handler(note_failure)) {
    list.clear();
    handler_result = result;
}

CaughtFailures::~CaughtFailures() {
    zel_malloc_set_failure_handler(before_);
}

Outcome run_unwrapped(const std::function<void()> &body) {
    Outcome outcome = run_in_child([&body] {
        msg_set_width_limit(0);
        body();
    });
    const std::regex remark("==[0-9]+==WARNING: AddressSanitizer failed to allocate 0x[0-9a-f]+ bytes\n");
    outcome.err = std::regex_replace(outcome.err, remark, "");
    return outcome;
}

testing::AssertionResult ended_with_error(const Outcome &outcome, const std::string &text) {
    if (outcome.status == 1 && outcome.out.empty() && outcome.err == "Error: " + text + "\n") {
        return testing::AssertionSuccess();
    }
    return testing::AssertionFailure() << "status " << outcome.status << ", signal " << outcome.signal
                                       << ", standard output '" << outcome.out << "', standard error '" << outcome.err
                                       << "', not 'Error: " << text << "'";
}

} // namespace zel::test
