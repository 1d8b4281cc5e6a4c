// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// What the tests of the start-up hook share.
#include "debug_hooks_support.h"

#include <cstdlib>
#include <sys/stat.h>
#include <unistd.h>

namespace zel::test {

Arguments::Arguments(std::vector<std::string> words) : texts(std::move(words)) {
    for (std::string &text : texts) {
        argv.push_back(text.data());
    }
    argv.push_back(nullptr);
    argc = static_cast<int32_t>(texts.size());
}

void call_hook(const std::vector<std::string> &words) {
    Arguments arguments(words);
    platform_debug_hooks(&arguments.argc, arguments.argv.data());
}

void hook_and_print(const std::vector<std::string> &words) {
    Arguments arguments(words);
    platform_debug_hooks(&arguments.argc, arguments.argv.data());
    printf("%d:", arguments.argc);
    for (char **argument = arguments.argv.data(); *argument != nullptr; ++argument) {
        printf(" %s", *argument);
    }
    const char *variable = getenv("ZEL_DEBUG");
    printf("; ZEL_DEBUG %s\n", variable == nullptr ? "unset" : (std::string("'") + variable + "'").c_str());
}

Outcome run_hook(const std::vector<std::string> &words, const char *variable, const char *shell) {
    return run_in_child([&] {
        unsetenv("ZEL_DIAGNOSTICS_PATH");
        unsetenv("ZEL_DEBUG");
        unsetenv("SHELL");
        if (variable != nullptr) {
            setenv("ZEL_DEBUG", variable, 1);
        }
        if (shell != nullptr) {
            setenv("SHELL", shell, 1);
        }
        hook_and_print(words);
    });
}

void carry_out(const std::string &request) {
    char *none[] = {nullptr};
    platform_debug_op("prog", none, request.c_str());
}

std::string script(const ScratchFolder &folder, const std::string &name, const std::string &body) {
    const std::string path = folder.path + "/" + name;
    write_file(path, "#!/bin/sh\n" + body + "\n");
    EXPECT_EQ(chmod(path.c_str(), 0755), 0);
    return path;
}

void hold_back_errors() {
    static char buffer[4096];
    setvbuf(stderr, buffer, _IOFBF, sizeof buffer);
}

long errors_written() {
    struct stat status = {};
    fstat(STDERR_FILENO, &status);
    return static_cast<long>(status.st_size);
}

} // namespace zel::test
