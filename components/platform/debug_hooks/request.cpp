// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// Taking a request of the start-up hook apart.
#include <components/platform/debug_hooks/request.h>

#include <components/platform/base/allocation.h>

#include <cstdlib>
#include <cstring>

namespace zel::debug_hooks {

namespace {

void *allocate(size_t size) {
    return zel::allocate_or_end(size, "platform_debug_hooks");
}

// Returns the next word, ended in place by a NUL, and moves the position past it; null
// when there is none.
char *next_word(char **position) {
    char *word = *position + strspn(*position, " \t");
    if (*word == '\0') {
        return nullptr;
    }
    char *end = word + strcspn(word, " \t");
    *position = *end == '\0' ? end : end + 1;
    *end = '\0';
    return word;
}

} // namespace

char *allocate_text(size_t length) {
    return static_cast<char *>(allocate(length + 1));
}

char *copy_text(std::string_view text) {
    char *copy = allocate_text(text.size());
    memcpy(copy, text.data(), text.size());
    copy[text.size()] = '\0';
    return copy;
}

Request take_apart(const char *text) {
    const size_t length = strlen(text);
    Request request = {.line = copy_text({text, length}), .words = nullptr, .op = nullptr, .arguments = nullptr};
    // A text has the most words when each is one character and a blank. One more entry
    // holds the null.
    request.words = static_cast<char **>(allocate((length / 2 + 2) * sizeof(char *)));
    char *position = request.line;
    size_t count = 0;
    for (char *word = next_word(&position); word != nullptr; word = next_word(&position)) {
        request.words[count++] = word;
    }
    request.words[count] = nullptr;
    request.op = request.words[0];
    request.arguments = request.words + (count == 0 ? 0 : 1);
    return request;
}

// The words and the op stand in the line.
void release(const Request &request) {
    free(request.words);
    free(request.line);
}

} // namespace zel::debug_hooks
