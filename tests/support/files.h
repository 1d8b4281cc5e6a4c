// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// Files and folders for tests.
#ifndef ZEL_TESTS_SUPPORT_FILES_H
#define ZEL_TESTS_SUPPORT_FILES_H

#include <string>

namespace zel::test {

// An empty folder of its own, removed with all it holds where its scope ends.
struct ScratchFolder {
    ScratchFolder();
    ~ScratchFolder();
    ScratchFolder(const ScratchFolder &) = delete;
    ScratchFolder &operator=(const ScratchFolder &) = delete;
    std::string path;
};

std::string read_file(const std::string &path);
void write_file(const std::string &path, const std::string &contents);

// Where the companion program of that name was built.
std::string companion_path(const std::string &name);

} // namespace zel::test

#endif
