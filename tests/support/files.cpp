// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// Files and folders for tests.
#include <support/files.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>

namespace zel::test {

ScratchFolder::ScratchFolder() {
    // mkdtemp replaces the six X by a name that is free.
    char name[] = "/tmp/zel-test-XXXXXX";
    path = mkdtemp(name);
}

ScratchFolder::~ScratchFolder() {
    std::error_code ignored;
    std::filesystem::remove_all(path, ignored);
}

std::string read_file(const std::string &path) {
    std::ifstream file(path, std::ios::binary);
    std::ostringstream contents;
    contents << file.rdbuf();
    return contents.str();
}

void write_file(const std::string &path, const std::string &contents) {
    std::ofstream(path, std::ios::binary) << contents;
}

std::string companion_path(const std::string &name) {
    return std::string(ZEL_BINARY_DIR "/tests/companions/") + name;
}

} // namespace zel::test
