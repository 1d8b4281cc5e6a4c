// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// Support of the memory library's tests: the system allocator watched, failures caught,
// children that end.
#ifndef ZEL_TESTS_MALLOC_MALLOC_SUPPORT_H
#define ZEL_TESTS_MALLOC_MALLOC_SUPPORT_H

#include <malloc/zel_malloc.h>
#include <support/child.h>
#include <support/interpose.h>

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

namespace zel::test {

// A size that no system provides after deny_huge has limited the address space. As a
// signed number it is not negative: memory checkers complain of sizes that are. For
// children.
inline constexpr size_t kHuge = PTRDIFF_MAX - 4095;
void deny_huge();

// All calls of the system allocator in its scope, each as "malloc SIZE", "realloc SIZE"
// or "free".
class AllocatorLog {
public:
    std::vector<std::string> calls;
    std::vector<void *> blocks; // what malloc and realloc returned

private:
    void *add(const std::string &call, void *block);

    Interposed<void *(size_t)> malloc_{
        hook::malloc, [this](size_t size) { return add("malloc " + std::to_string(size), hook::malloc.real(size)); }};
    Interposed<void *(void *, size_t)> realloc_{hook::realloc, [this](void *pointer, size_t size) {
                                                    void *block = hook::realloc.real(pointer, size);
                                                    return add("realloc " + std::to_string(size), block);
                                                }};
    Interposed<void(void *)> free_{hook::free, [this](void *pointer) {
                                       calls.emplace_back("free");
                                       hook::free.real(pointer);
                                   }};
};

// In its scope the n-th request (from 0) of either kind fails with that error; all others
// are the real ones.
class FailingRequest {
public:
    explicit FailingRequest(int nth, int error = ENOMEM) : left_(nth), error_(error) {}

private:
    bool fails();

    int left_;
    int error_;
    Interposed<void *(size_t)> malloc_{hook::malloc,
                                       [this](size_t size) { return fails() ? nullptr : hook::malloc.real(size); }};
    Interposed<void *(void *, size_t)> realloc_{hook::realloc, [this](void *pointer, size_t size) {
                                                    return fails() ? nullptr : hook::realloc.real(pointer, size);
                                                }};
};

// The arguments of one call of a failure handler.
struct Failure {
    unsigned long size;
    std::string text;
    bool operator==(const Failure &) const = default;
};

void PrintTo(const Failure &failure, std::ostream *out);

// In its scope a failure handler notes each failure and returns the given result.
class CaughtFailures {
public:
    explicit CaughtFailures(void *result = nullptr);
    ~CaughtFailures();
    CaughtFailures(const CaughtFailures &) = delete;
    CaughtFailures &operator=(const CaughtFailures &) = delete;

    static std::vector<Failure> list;

private:
    ZelMallocFailureHandler before_;
};

// Runs the body in a child that writes each message on one line. The sanitizer's own
// remark on a huge request is taken out of the child's output.
Outcome run_unwrapped(const std::function<void()> &body);

// Whether a child ended with that error message.
testing::AssertionResult ended_with_error(const Outcome &outcome, const std::string &text);

} // namespace zel::test

#endif
