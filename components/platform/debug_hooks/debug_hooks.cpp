// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// The start-up hook: finding a request and carrying it out.
#include <components/platform/debug_hooks.h>

#include <components/platform/base/path.h>
#include <components/platform/base/sleep.h>
#include <components/platform/debug_hooks/request.h>
#include <components/platform/environment.h>
#include <msg/base/variables.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <poll.h>
#include <strings.h>
#include <unistd.h>

namespace {

using zel::debug_hooks::allocate_text;
using zel::debug_hooks::copy_text;
using zel::debug_hooks::Request;

constexpr const char *kMarker = "__ZEL_DEBUG__";

// DELIBERATE: a marker at index 511 or later is an argument. Test:
// DebugHooksMarker.TheMarkerIsSeenAtIndex510AndNotAt511.
constexpr int32_t kScanBound = 511;

constexpr unsigned kDefaultDelay = 30;
constexpr size_t kPromptLineLength = 254;

// The variables that direct the library. A process with raised rights removes them from
// its environment.
constexpr std::array<const char *, 8> kVariables = {
    "ZEL_DEBUG", "ZEL_DIAGNOSTICS_PATH", "ZEL_DIAG_DIR", "ZEL_TMPDIR", "TMP", "TEMP", "ZEL_DIST", "ZEL_PERROR"};

// The program's own arguments before a marker, ended by null.
using ArgumentsBefore = std::array<char *, kScanBound>;

// Joins the words with single blanks. The position last is after the last word.
char *join(char *const *first, char *const *last) {
    size_t length = 0;
    for (char *const *word = first; word != last; ++word) {
        length += strlen(*word) + 1;
    }
    char *joined = allocate_text(length);
    char *end = joined;
    for (char *const *word = first; word != last; ++word) {
        const size_t size = strlen(*word);
        memcpy(end, *word, size);
        end[size] = ' ';
        end += size + 1;
    }
    *(length == 0 ? joined : end - 1) = '\0';
    return joined;
}

// Joins the words of a list that ends with null.
char *join_list(char *const *words) {
    char *const *last = words;
    while (*last != nullptr) {
        ++last;
    }
    return join(words, last);
}

const char *user_shell() {
    const char *shell = platform_getenv("SHELL");
    return shell == nullptr ? "tcsh" : shell;
}

// Sets the variables by which the started command can start the program again.
void describe_program(const char *program, char **args_before) {
    const std::string_view component = zel::last_component(program);
    constexpr std::string_view kPrompt = "debug ";
    char *prompt = allocate_text(kPrompt.size() + component.size());
    memcpy(prompt, kPrompt.data(), kPrompt.size());
    memcpy(prompt + kPrompt.size(), component.data(), component.size());
    prompt[kPrompt.size() + component.size()] = '\0';
    char *parameters = join_list(args_before);
    platform_setenv("ZEL_DEBUG_PROMPT", prompt);
    platform_setenv("ZEL_EXE", program);
    platform_setenv("ZEL_EXE_PARMS", parameters);
    free(prompt);
    free(parameters);
}

[[noreturn]] void fail(const char *text) {
    fputs(text, stderr);
    fflush(stderr);
    exit(1);
}

void delay(char **arguments) {
    if (arguments[0] == nullptr) {
        zel::sleep_seconds(kDefaultDelay);
        return;
    }
    // DELIBERATE: a word that is no number is 0 seconds. Test:
    // DebugOp.ADelayTakesItsSecondsFromTheFirstWord.
    const long seconds = strtol(arguments[0], nullptr, 10);
    zel::sleep_seconds(static_cast<unsigned>(std::clamp<long>(seconds, 0, INT_MAX)));
}

// Tells whether to read standard input again after a read that failed. Another process
// may have made a shared terminal or pipe non-blocking: then this waits for input.
bool wait_for_input() {
    struct pollfd entry = {.fd = STDIN_FILENO, .events = POLLIN, .revents = 0};
    return errno == EINTR || (errno == EAGAIN && (poll(&entry, 1, -1) != -1 || errno == EINTR));
}

// Returns the next byte of standard input, or EOF. The bytes that stdio has buffered come
// first. The descriptor is read without stdio, which would take more than a byte.
int next_byte() {
    if (stdin->_IO_read_ptr < stdin->_IO_read_end) {
        return getc(stdin);
    }
    unsigned char byte;
    ssize_t count = read(STDIN_FILENO, &byte, 1);
    while (count == -1 && wait_for_input()) {
        count = read(STDIN_FILENO, &byte, 1);
    }
    return count == 1 ? byte : EOF;
}

// Takes one line and not a byte more: the bytes after it belong to the program, or to one
// that it starts. The end of the input ends the line.
void take_line() {
    int byte = 0;
    for (size_t taken = 0; taken < kPromptLineLength && byte != '\n' && byte != EOF; ++taken) {
        byte = next_byte();
    }
}

void prompt(char **arguments) {
    if (arguments[0] == nullptr) {
        fputs("ZEL_DEBUG prompt>\n", stderr);
    } else {
        for (char **word = arguments; *word != nullptr; ++word) {
            fprintf(stderr, "%s ", *word);
        }
        fputs("\n", stderr);
    }
    fflush(stderr);
    take_line();
}

// DELIBERATE: the messages about a program that cannot be started and about an unknown op
// are fixed texts. Tests: DebugOp.AShellThatCannotBeStartedIsSaidAndEndsTheProcess,
// DebugOp.ExecWithoutAProgramFailsLikeOneThatCannotBeStarted,
// DebugOp.AnUnknownOpIsSaidAndEndsTheProcess.
[[noreturn]] void become_shell_command(const char *command) {
    execl("/bin/sh", "sh", "-c", command, static_cast<char *>(nullptr));
    fail("\"__ZEL_DEBUG__ using\" w/execl() call failed.\n");
}

[[noreturn]] void become_program(char **arguments) {
    if (arguments[0] != nullptr) {
        execv(arguments[0], arguments);
    }
    fail("\"__ZEL_DEBUG__ exec\" w/execv() call failed.\n");
}

[[noreturn]] void refuse(const char *op) {
    fprintf(stderr, "\"__ZEL_DEBUG__ %s\" not a recognized debug op.\n", op);
    fflush(stderr);
    exit(1);
}

// Carries out a request that has an op.
void carry_out(const Request &request, const char *program, char **args_before) {
    if (strcasecmp(request.op, "delay") == 0) {
        delay(request.arguments);
    } else if (strcasecmp(request.op, "prompt") == 0) {
        prompt(request.arguments);
    } else if (strcasecmp(request.op, "using") == 0) {
        describe_program(program, args_before);
        become_shell_command(request.arguments[0] == nullptr ? user_shell() : join_list(request.arguments));
    } else if (strcasecmp(request.op, "exec") == 0) {
        describe_program(program, args_before);
        become_program(request.arguments);
    } else {
        refuse(request.op);
    }
}

// An underscore has no second case: an argument that begins otherwise is passed over.
bool is_marker(const char *argument) {
    return *argument == *kMarker && strcasecmp(argument, kMarker) == 0;
}

// Returns the index of the marker, or the bound or more when there is none.
int32_t find_marker(int32_t bound, char *const *argv) {
    int32_t index = 1;
    while (index < bound && !is_marker(argv[index])) {
        ++index;
    }
    return index;
}

// Carries out a request, with the arguments up to that index. Kept out of line: a start
// without a request does not touch the stack that the list takes.
[[gnu::noinline]] void obey(const char *request, const char *program, char *const *argv, int32_t end) {
    ArgumentsBefore before;
    *std::copy(argv + 1, argv + std::max(end, 1), before.begin()) = nullptr;
    platform_debug_op(program, before.data(), request);
}

// DELIBERATE: a process with a marker opens no diagnostics file and echoes nothing. Test:
// DebugHooksMarker.AMarkerOpensNoDiagnostics.
void act_on_marker(int32_t index, int32_t *argc, char **argv) {
    char *request = join(argv + index + 1, argv + *argc);
    *argc = index;
    argv[index] = nullptr;
    obey(request, argv[0], argv, index);
    free(request);
}

void act_on_variable(int32_t bound, char *const *argv) {
    const char *value = zel::variable("ZEL_DEBUG");
    if (value == nullptr || *value == '\0') {
        return;
    }
    char *request = copy_text(value);
    platform_setenv("ZEL_DEBUG", "");
    obey(request, bound > 0 ? argv[0] : "", argv, bound);
    free(request);
}

// No request is looked for: it would run a command of the caller with rights that the
// caller lacks. The variables are removed: a program that is started from here may have
// no raised rights, and would obey them.
void start_with_raised_rights(int32_t argc, char **argv, const char *name) {
    for (const char *variable : kVariables) {
        unsetenv(variable);
    }
    platform_diag_startup(argc, argv, name);
}

} // namespace

void platform_debug_op(const char *program, char **args_before, const char *request) {
    const Request parts = zel::debug_hooks::take_apart(request);
    if (parts.op == nullptr) {
        describe_program(program, args_before);
        become_shell_command(user_shell());
    }
    carry_out(parts, program, args_before);
    zel::debug_hooks::release(parts);
}

void platform_debug_hooks_named(int32_t *argc, char **argv, const char *name) {
    if (zel::has_raised_rights()) {
        start_with_raised_rights(*argc, argv, name);
        return;
    }
    const int32_t bound = std::min(*argc, kScanBound);
    const int32_t index = find_marker(bound, argv);
    if (index < bound) {
        act_on_marker(index, argc, argv);
        return;
    }
    act_on_variable(bound, argv);
    platform_diag_startup(*argc, argv, name);
}

void platform_debug_hooks(int32_t *argc, char **argv) {
    platform_debug_hooks_named(argc, argv, nullptr);
}
