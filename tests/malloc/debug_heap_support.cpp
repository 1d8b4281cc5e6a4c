// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// Support of the debug heap's tests.
#include "debug_heap_support.h"

#include <msg/msg.h>
#include <support/interpose.h>

#include <array>
#include <cstdlib>
#include <cstring>
#include <sys/mman.h>

namespace zel::test {

namespace {

constexpr int kLetters = 26;

struct Name {
    bool given;
    const void *pointer;
};

using Names = std::array<Name, kLetters>;

// In memory shared with the children, which name their pointers there.
Names &names() {
    static auto *const shared =
        static_cast<Names *>(mmap(nullptr, sizeof(Names), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));
    return *shared;
}

void replace_all(std::string &text, const std::string &from, const std::string &to) {
    for (size_t at = text.find(from); at != std::string::npos; at = text.find(from, at + to.size())) {
        text.replace(at, from.size(), to);
    }
}

void insert_names(std::string &text) {
    char letter = 'A';
    for (const Name &name : names()) {
        if (name.given) {
            replace_all(text, written(name.pointer), std::string("<") + letter + ">");
        }
        ++letter;
    }
}

char *block_of(void *pointer) {
    return static_cast<char *>(pointer) + kIndexAt;
}

} // namespace

Outcome run_named(const std::function<void()> &body) {
    names() = {};
    Outcome outcome = run_in_child([&body] {
        msg_set_width_limit(0);
        body();
    });
    insert_names(outcome.out);
    insert_names(outcome.err);
    return outcome;
}

Outcome run_heap(int mode, const std::function<void()> &body) {
    return run_named([mode, &body] {
        zel_enable_malloc_debug(mode);
        body();
    });
}

void *named(char letter, void *pointer) {
    names()[static_cast<size_t>(letter - 'A')] = {.given = true, .pointer = pointer};
    return pointer;
}

std::string written(const void *pointer) {
    constexpr int kDigits = sizeof(void *) == 4 ? 8 : 16;
    std::array<char, 32> text;
    snprintf(text.data(), text.size(), "0x%0*lX", kDigits, reinterpret_cast<unsigned long>(pointer));
    return text.data();
}

__attribute__((no_sanitize_address, noinline)) uint32_t word_at(const void *pointer, ptrdiff_t offset) {
    return *reinterpret_cast<const volatile uint32_t *>(static_cast<const char *>(pointer) + offset);
}

__attribute__((no_sanitize_address, noinline)) void set_word_at(void *pointer, ptrdiff_t offset, uint32_t value) {
    *reinterpret_cast<volatile uint32_t *>(static_cast<char *>(pointer) + offset) = value;
}

void keep_from_system(void *pointer) {
    hook::free.replacement = [block = block_of(pointer)](void *released) {
        if (released != block) {
            hook::free.real(released);
        }
    };
}

void reuse_header_when_released(void *pointer) {
    hook::free.replacement = [block = block_of(pointer)](void *released) {
        if (released != block) {
            hook::free.real(released);
            return;
        }
        set_word_at(released, 0, 0x00C0FFEE);
        set_word_at(released, 4, 0x0BADCAFE);
    };
}

SeenByTheSystem *watch_next_release(size_t length) {
    static SeenByTheSystem seen;
    seen.block = nullptr;
    seen.bytes.assign(length, '\0');
    hook::free.replacement = [](void *released) {
        if (seen.block != nullptr) {
            hook::free.real(released);
            return;
        }
        seen.block = released;
        memcpy(seen.bytes.data(), released, seen.bytes.size());
    };
    return &seen;
}

std::string hex(const void *bytes, size_t length) {
    std::string text;
    for (size_t i = 0; i < length; ++i) {
        std::array<char, 4> pair;
        snprintf(pair.data(), pair.size(), i == 0 ? "%02X" : " %02X", static_cast<const unsigned char *>(bytes)[i]);
        text += pair.data();
    }
    return text;
}

} // namespace zel::test
