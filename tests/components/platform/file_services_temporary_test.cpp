// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// Temporary files and directories.
#include "file_services_support.h"

#include <components/platform/file_services.h>
#include <support/child.h>
#include <support/interpose.h>

#include <array>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <sys/auxv.h>
#include <sys/stat.h>
#include <unistd.h>

using namespace zel::test;

namespace {

using Room = std::array<char, 4097>;

struct Temporary : Files {
    Room made = {};

    int file(const char *prefix, size_t size = sizeof(Room)) {
        return platform_temporary_file(folder.path.c_str(), prefix, made.data(), size);
    }
    int dir(const char *prefix) {
        return platform_temporary_dir(folder.path.c_str(), prefix, made.data(), made.size());
    }
};

// Which directory a child takes with these variables; the temporary directory itself is removed again.
std::string usual_folder_with(std::initializer_list<std::pair<const char *, std::string>> variables,
                              bool has_raised_rights = false) {
    return run_in_child([&] {
               for (const char *name : {"ZEL_TMPDIR", "TMP", "TEMP"}) {
                   unsetenv(name);
               }
               setenv("TMPDIR", "/nowhere", 1);
               for (const auto &[name, value] : variables) {
                   setenv(name, value.c_str(), 1);
               }
               const Interposed rights(hook::getauxval, [has_raised_rights](unsigned long type) {
                   return type == AT_SECURE ? (has_raised_rights ? 1UL : 0UL) : hook::getauxval.real(type);
               });
               Room made = {};
               if (platform_temporary_dir(nullptr, "zel_test.", made.data(), made.size()) == 1) {
                   rmdir(made.data());
               }
               char *slash = strrchr(made.data(), '/');
               printf("%.*s", slash == nullptr ? 0 : static_cast<int>(slash - made.data()), made.data());
           })
        .out;
}

// In its scope the random bytes of so many names are all of this value. Those of the later names are of the next one.
struct FixedBytes {
    FixedBytes(unsigned char value, int names)
        : filling(hook::getrandom, [value, names](void *buffer, size_t size, unsigned) mutable {
              memset(buffer, names-- > 0 ? value : value + 1, size);
              return static_cast<ssize_t>(size);
          }) {}
    Interposed<ssize_t(void *, size_t, unsigned)> filling;
};

} // namespace

TEST_F(Temporary, FilesAreEmptyNewAndTheirOwnersAlone) {
    const Mask mask(0);
    std::set<std::string> paths;
    for (int number = 0; number < 50; ++number) {
        const int fd = file("draft.");
        ASSERT_GT(fd, 2);
        EXPECT_EQ(fcntl(fd, F_GETFD), FD_CLOEXEC);
        EXPECT_EQ(write(fd, "ab", 2), 2);
        char back[3] = {};
        EXPECT_EQ(pread(fd, back, 2, 0), 2);
        EXPECT_EQ(close(fd), 0);
        const std::string path = made.data();
        EXPECT_TRUE(path.starts_with(folder.path + "/draft.")) << path;
        EXPECT_EQ(path.size(), folder.path.size() + strlen("/draft.") + 6);
        EXPECT_EQ(permissions(path), 0600U);
        paths.insert(path);
    }
    EXPECT_EQ(paths.size(), 50U);
    EXPECT_EQ(entries(folder.path).size(), 50U);
}

TEST_F(Temporary, DirectoriesAreEmptyNewAndTheirOwnersAlone) {
    const Mask mask(0);
    EXPECT_EQ(dir("work-"), 1);
    EXPECT_TRUE(std::string(made.data()).starts_with(folder.path + "/work-")) << made.data();
    EXPECT_EQ(permissions(made.data()), 0700U);
    EXPECT_EQ(entries(made.data()).size(), 0U);
    const std::string first = made.data();
    EXPECT_EQ(dir("work-"), 1);
    EXPECT_NE(first, made.data());
}

TEST_F(Temporary, ANameThatIsTakenIsChanged) {
    for (const bool is_link : {false, true}) {
        const std::string taken = path("pAAAAAA");
        unlink(taken.c_str());
        ASSERT_EQ(is_link ? symlink("elsewhere", taken.c_str()) : (write_file(taken, "mine"), 0), 0);
        const FixedBytes bytes(0, 2);
        const int fd = file("p");
        EXPECT_GT(fd, 2);
        close(fd);
        EXPECT_STREQ(made.data(), path("pBBBBBB").c_str());
        unlink(made.data());
        const FixedBytes again(0, 1);
        EXPECT_EQ(dir("p"), 1);
        EXPECT_STREQ(made.data(), path("pBBBBBB").c_str());
        rmdir(made.data());
    }
    EXPECT_EQ(entries(folder.path), (std::set<std::string>{"pAAAAAA"})); // and nothing elsewhere
}

TEST_F(Temporary, AfterAHundredTakenNamesTheErrorIsTold) {
    with_text("pAAAAAA", "mine");
    const FixedBytes bytes(0, 1'000'000);
    EXPECT_EQ(file("p"), -1);
    EXPECT_EQ(errno, EEXIST);
    EXPECT_EQ(dir("p"), 0);
    EXPECT_EQ(errno, EEXIST);
    EXPECT_EQ(read_file(path("pAAAAAA")), "mine");
}

TEST_F(Temporary, APathThatDoesNotFitCreatesNothing) {
    const size_t needed = folder.path.size() + strlen("/pXXXXXX") + 1;
    made.fill('~');
    for (const size_t size : {size_t{0}, size_t{1}, needed - 1}) {
        EXPECT_EQ(file("p", size), -1);
        EXPECT_EQ(errno, ERANGE);
    }
    EXPECT_EQ(made.front(), '~');
    EXPECT_EQ(platform_temporary_file(nullptr, std::string(5000, 'p').c_str(), made.data(), 6000), -1);
    EXPECT_EQ(errno, ERANGE);
    EXPECT_EQ(entries(folder.path).size(), 0U);
    const int fd = file("p", needed);
    EXPECT_GT(fd, 2);
    close(fd);
    EXPECT_EQ(made[needed - 1], '\0');
    EXPECT_EQ(made[needed], '~');
}

TEST_F(Temporary, APrefixOrADirectoryThatIsNoneIsRefused) {
    EXPECT_EQ(file("../p"), -1);
    EXPECT_EQ(errno, EINVAL);
    EXPECT_EQ(platform_temporary_dir("", "p", made.data(), made.size()), 0);
    EXPECT_EQ(errno, ENOENT);
    EXPECT_EQ(platform_temporary_dir(path("missing").c_str(), "p", made.data(), made.size()), 0);
    EXPECT_EQ(errno, ENOENT);
    EXPECT_STREQ(made.data(), "");
}

TEST_F(Temporary, ADirectoryMayEndWithASlash) {
    EXPECT_EQ(platform_temporary_dir((folder.path + "/").c_str(), "", made.data(), made.size()), 1);
    EXPECT_EQ(std::string(made.data()).size(), folder.path.size() + 7);
}

TEST_F(Temporary, FilesStandAboveTheStandardDescriptors) {
    const Outcome outcome = run_in_child([this] {
        close(0);
        const int fd = file("p");
        printf("%d %d %d", fd, fcntl(0, F_GETFD), fcntl(fd, F_GETFD) == FD_CLOEXEC);
    });
    EXPECT_TRUE(outcome.out.ends_with(" -1 1")) << outcome.out;
    EXPECT_GT(atoi(outcome.out.c_str()), 2);
}

TEST_F(Temporary, AFileThatCannotStandThereIsRemoved) {
    const Outcome outcome = run_in_child([this] {
        close(0);
        int fd = 0;
        int error = 0;
        {
            const Interposed full(hook::fcntl, fail_always(hook::fcntl, EMFILE, -1));
            fd = file("p");
            error = errno;
        }
        printf("%d %d %d", fd, error == EMFILE, fcntl(0, F_GETFD));
    });
    EXPECT_EQ(outcome.out, "-1 1 -1");
    EXPECT_EQ(entries(folder.path).size(), 0U);
}

TEST_F(Temporary, TheUsualDirectoryIsTheFirstVariableThatNamesOne) {
    const std::string &a = folder.path;
    const std::string b = path("b");
    ASSERT_EQ(mkdir(b.c_str(), 0777), 0);
    EXPECT_EQ(usual_folder_with({{"ZEL_TMPDIR", a}, {"TMP", b}, {"TEMP", b}}), a);
    EXPECT_EQ(usual_folder_with({{"TMP", a}, {"TEMP", b}}), a);
    EXPECT_EQ(usual_folder_with({{"TEMP", b}}), b);
    EXPECT_EQ(usual_folder_with({{"ZEL_TMPDIR", ""}, {"TMP", ""}, {"TEMP", b}}), b);
    EXPECT_EQ(usual_folder_with({}), "/tmp");
}

TEST_F(Temporary, RaisedRightsTakeNoDirectoryFromTheVariables) {
    EXPECT_EQ(usual_folder_with({{"ZEL_TMPDIR", folder.path}, {"TMP", folder.path}}, true), "/tmp");
}
