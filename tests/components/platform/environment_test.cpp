// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// Variables, and which directories can be written.
#include "environment_support.h"

#include <cstdlib>
#include <cstring>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

using namespace zel::test;

TEST(PlatformGetenv, IsTheValueThatTheEnvironmentHolds) {
    const Outcome outcome = run_with({{"ZEL_DIST", "a value"}}, [] {
        printf("%s %d", platform_getenv("ZEL_DIST"), platform_getenv("ZEL_DIST") == getenv("ZEL_DIST"));
    });
    EXPECT_EQ(outcome.out, "a value 1");
}

TEST(PlatformGetenv, AnUnsetVariableIsNullAndAnEmptyOneEmpty) {
    const Outcome outcome =
        run_with({{"TMP", ""}}, [] { printf("%d '%s'", platform_getenv("TEMP") == nullptr, platform_getenv("TMP")); });
    EXPECT_EQ(outcome.out, "1 ''");
}

TEST(PlatformSetenv, SetsAndReplacesAVariableForThisProcessAndItsChildren) {
    const Outcome outcome = run_with({}, [] {
        printf("%d", platform_setenv("ZEL_TMPDIR", "first"));
        printf("%d", platform_setenv("ZEL_TMPDIR", "a=b c"));
        printf("%d ", platform_setenv("TMP", ""));
        fflush(stdout);
        execl("/bin/sh", "sh", "-c", "echo \"$ZEL_TMPDIR/${TMP-unset}/\"", nullptr);
    });
    EXPECT_EQ(outcome.out, "000 a=b c//\n");
}

TEST(PlatformSetenv, TheStorageIsTheSystemsAndStaysInTheEnvironment) {
    const Outcome outcome = run_with({}, [] {
        std::vector<size_t> sizes;
        char *storage = nullptr;
        const Interposed allocating(hook::malloc, [&](size_t size) {
            sizes.push_back(size);
            storage = static_cast<char *>(hook::malloc.real(size));
            return static_cast<void *>(storage);
        });
        platform_setenv("ZEL_TMPDIR", "abc");
        printf("%zu allocation of %zu, %s, %d", sizes.size(), sizes.at(0), storage,
               getenv("ZEL_TMPDIR") == storage + strlen("ZEL_TMPDIR="));
    });
    EXPECT_EQ(outcome.out, "1 allocation of 15, ZEL_TMPDIR=abc, 1");
}

TEST(PlatformSetenv, TheStorageIsNeverFreed) {
    const Outcome outcome = run_with({}, [] {
        const Interposed releasing(hook::free, [](void *pointer) {
            printf("released");
            hook::free.real(pointer);
        });
        platform_setenv("ZEL_TMPDIR", "first");
        const char *first = platform_getenv("ZEL_TMPDIR");
        platform_setenv("ZEL_TMPDIR", "second");
        printf("%s %s", first, platform_getenv("ZEL_TMPDIR"));
    });
    EXPECT_EQ(outcome.out, "first second");
}

TEST(PlatformSetenv, WithoutMemoryTheEnvironmentStaysAsItWas) {
    const Outcome outcome = run_with({{"TMP", "before"}}, [] {
        const Interposed no_memory(hook::malloc, fail_always(hook::malloc, ENOMEM, nullptr));
        printf("%d", platform_setenv("TMP", "after"));
        printf("%s", getenv("TMP"));
    });
    EXPECT_EQ(outcome.out, "0before");
    EXPECT_EQ(outcome.status, 0);
}

TEST(PlatformIsWritableDir, ADirectoryOfOnesOwnIsWritable) {
    const ScratchFolder folder;
    EXPECT_EQ(platform_is_writable_dir(folder.path.c_str()), 1);
}

TEST(PlatformIsWritableDir, AFileIsNoWritableDirectory) {
    const ScratchFolder folder;
    write_file(folder.path + "/file", "");
    EXPECT_EQ(platform_is_writable_dir((folder.path + "/file").c_str()), 0);
}

TEST(PlatformIsWritableDir, AMissingDirectoryIsNotWritable) {
    const ScratchFolder folder;
    EXPECT_EQ(platform_is_writable_dir((folder.path + "/missing").c_str()), 0);
    EXPECT_EQ(platform_is_writable_dir(""), 0);
}

TEST(PlatformIsWritableDir, ANullPathIsNoWritableDirectory) {
    EXPECT_EQ(platform_is_writable_dir(nullptr), 0);
}

TEST(PlatformIsWritableDir, ADirectoryWithoutWritePermissionIsNotWritable) {
    const ScratchFolder folder;
    chmod(folder.path.c_str(), 0555);
    const Outcome outcome = run_with({}, [&folder] {
        give_up_root();
        printf("%d", platform_is_writable_dir(folder.path.c_str()));
        fflush(stdout);
        _exit(0);
    });
    EXPECT_EQ(outcome.out, "0");
}
