// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// What the tests of trees share.
#include "file_trees_support.h"

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

namespace fs = std::filesystem;

namespace zel::test {

namespace {

// Names that a careless program trips over.
const std::vector<std::string> kTreacherousNames = {
    "plain", "with blank",  " leading",  "trailing ", "new\nline", "-rf",      "--",        "-",      "*",
    "?",     "[a-z]",       "[",         "]",         "\\",        "back\\*",  "quote'\"",  "$HOME",  "`x`",
    ";",     ".hidden",     "..twodots", "...",       "~",         "\xFF\xFE", "\xC3\xA9t", "tab\tx", "a*b",
    "{a,b}", "name.tar.gz", "#",         "%s%n",      "&&",        "|",        "!",         "=",      "\x01"};

// The folder in which a test may remove entries.
struct Confines {
    std::string path;
    struct stat status;
    int (*unguarded)(int, const char *, int); // unlinkat itself
};
Confines confines;

// Whether a directory stands in the folder, or is it. After chroot nothing else can be reached.
bool is_inside(int directory) {
    struct stat root;
    if (stat("/", &root) == 0 && root.st_dev == confines.status.st_dev && root.st_ino == confines.status.st_ino) {
        return true;
    }
    char target[PATH_MAX] = {};
    const std::string link = "/proc/self/fd/" + std::to_string(directory);
    if (readlink(link.c_str(), target, sizeof target - 1) == -1) {
        return errno == ENAMETOOLONG; // nothing that a test does not make is so deep
    }
    return (std::string(target) + "/").starts_with(confines.path + "/");
}

int remove_inside(int directory, const char *name, int flags) {
    if (std::string(name).find('/') != std::string::npos || !is_inside(directory)) {
        fprintf(stderr, "%s would be removed outside %s\n", name, confines.path.c_str());
        abort();
    }
    return confines.unguarded(directory, name, flags);
}

} // namespace

Trees::Trees() : guard_(hook::unlinkat, remove_inside) {
    confines = {.path = folder.path, .status = {}, .unguarded = hook::unlinkat.real};
    if (stat(folder.path.c_str(), &confines.status) != 0) {
        abort();
    }
    hook::unlinkat.real = remove_inside;
}

Trees::~Trees() {
    hook::unlinkat.real = confines.unguarded;
}

void Trees::make_folder(const std::string &name) const {
    ASSERT_EQ(mkdir(path(name).c_str(), 0755), 0) << name;
}

void Trees::make_file(const std::string &name, const std::string &text) const {
    write_file(path(name), text);
}

void Trees::make_link(const std::string &target, const std::string &name) const {
    ASSERT_EQ(symlink(target.c_str(), path(name).c_str()), 0) << name;
}

void Trees::make_tree(const std::string &name) const {
    make_folder(name);
    for (const std::string &entry : kTreacherousNames) {
        make_folder(name + "/" + entry);
        make_file(name + "/" + entry + "/" + entry);
        make_link("nowhere", name + "/" + entry + "/" + "dangling" + entry);
        make_file(name + "/f" + entry, entry);
    }
    make_folder(name + "/empty");
    ASSERT_EQ(mkfifo(path(name + "/fifo").c_str(), 0600), 0);
}

void Trees::make_chain(const std::string &name, int levels) const {
    int folder_fd = open(path(name).c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC);
    for (int level = 0; level < levels; ++level) {
        for (const char *file : {"a", "later"}) {
            if (level < 5) {
                close(openat(folder_fd, file, O_CREAT | O_WRONLY | O_CLOEXEC, 0644));
            }
        }
        ASSERT_EQ(mkdirat(folder_fd, "d", 0755), 0) << level;
        const int below = openat(folder_fd, "d", O_PATH | O_DIRECTORY | O_CLOEXEC);
        close(folder_fd);
        folder_fd = below;
    }
    close(folder_fd);
}

bool Trees::exists(const std::string &name) const {
    struct stat status;
    return lstat(path(name).c_str(), &status) == 0;
}

std::map<std::string, std::string> contents_of(const std::string &root) {
    std::map<std::string, std::string> contents;
    for (const fs::directory_entry &entry : fs::recursive_directory_iterator(root)) {
        const std::string name = entry.path().string().substr(root.size());
        if (entry.is_symlink()) {
            contents[name] = "link " + fs::read_symlink(entry.path()).string();
        } else if (entry.is_directory()) {
            contents[name] = "folder";
        } else if (entry.is_regular_file()) {
            contents[name] = "file " + read_file(entry.path().string());
        } else {
            contents[name] = "other";
        }
    }
    return contents;
}

} // namespace zel::test
