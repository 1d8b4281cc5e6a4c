// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// Files and folders for tests.
#ifndef ZEL_TESTS_SUPPORT_FILES_H
#define ZEL_TESTS_SUPPORT_FILES_H

#include <string>

namespace zel::test {

// An empty folder, removed with its contents at the end of its scope.
struct ScratchFolder {
    ScratchFolder();
    ~ScratchFolder();
    ScratchFolder(const ScratchFolder &) = delete;
    ScratchFolder &operator=(const ScratchFolder &) = delete;
    std::string path;
};

// The contents of a file; empty when it cannot be read.
std::string read_file(const std::string &path);
// Creates or replaces a file.
void write_file(const std::string &path, const std::string &contents);

// The path of a companion program, by its name.
std::string companion_path(const std::string &name);

} // namespace zel::test

#endif
