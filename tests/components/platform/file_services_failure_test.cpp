// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// Each system call of each file service fails once.
#include "file_services_support.h"

#include <components/platform/file_services.h>
#include <support/interpose.h>

#include <array>
#include <cerrno>
#include <filesystem>
#include <unistd.h>

using namespace zel::test;

namespace {

using FileServicesSweep = CopiedFiles;
using NameSet = std::set<std::string>;

} // namespace

TEST_F(FileServicesSweep, ACopyIsWholeOrTheTargetIsAsItWas) {
    const std::string from = with_text("from", "new");
    const std::string to = path("to");
    NameSet passed_over;
    sweep([&to] { write_file(to, "old"); },
          [&] { return platform_copy_checked(from.c_str(), to.c_str(), nullptr, nullptr); },
          [&](const Fared &fared) {
              EXPECT_EQ(read_file(to), fared.result == 1 ? "new" : "old");
              EXPECT_EQ(entries(folder.path), (NameSet{"from", "to"}));
              if (fared.result == 1) {
                  passed_over.insert(fared.failed);
              } else {
                  EXPECT_EQ(fared.error, EIO);
              }
          });
    // The close of a file that was not written to tells nothing of the copy.
    EXPECT_EQ(passed_over, (NameSet{"close", "copy_file_range", "ioctl", "sendfile"}));
}

TEST_F(FileServicesSweep, ACopyTellsThatTheCloseOfItsTargetFailed) {
    const std::string from = with_text("from", "new");
    int failed = 0;
    sweep([this] { std::filesystem::remove(path("to")); },
          [&] { return platform_copy_checked(from.c_str(), path("to").c_str(), nullptr, nullptr); },
          [&failed](const Fared &fared) { failed += fared.failed == "close" && fared.result == 0 ? 1 : 0; });
    EXPECT_EQ(failed, 1);
}

TEST_F(FileServicesSweep, AReplacementIsWholeOrTheFileIsAsItWas) {
    const std::string file = path("file");
    NameSet passed_over;
    int of_directory = 0;
    sweep([&file] { write_file(file, "old"); }, [&file] { return platform_replace_file(file.c_str(), "new", 3, 0644); },
          [&](const Fared &fared) {
              const std::string found = read_file(file);
              EXPECT_EQ(entries(folder.path), (NameSet{"file"}));
              if (fared.result == 1) {
                  EXPECT_EQ(found, "new");
                  passed_over.insert(fared.failed);
                  return;
              }
              EXPECT_EQ(fared.error, EIO);
              // The last step, the sync of the directory, comes behind the new content.
              of_directory += found == "new" && fared.failed == "fsync" ? 1 : 0;
              EXPECT_TRUE(found == "old" || fared.failed == "fsync");
          });
    EXPECT_EQ(passed_over, (NameSet{"close"}));
    EXPECT_EQ(of_directory, 1);
}

TEST_F(FileServicesSweep, AReplacedLinkIsWholeOrAsItWas) {
    const std::string file = path("file");
    ASSERT_EQ(symlink("file", path("link").c_str()), 0);
    sweep([&file] { write_file(file, "old"); },
          [this] { return platform_replace_file(path("link").c_str(), "new", 3, 0644); },
          [&](const Fared &fared) {
              EXPECT_EQ(entries(folder.path), (NameSet{"file", "link"}));
              EXPECT_TRUE(std::filesystem::is_symlink(path("link")));
              EXPECT_TRUE(fared.result == 1 || fared.error == EIO);
              EXPECT_TRUE(read_file(file) == (fared.result == 1 ? "new" : "old") || fared.failed == "fsync");
          });
}

TEST_F(FileServicesSweep, DirectoriesAreThereOrTheErrorIsTold) {
    sweep([this] { std::filesystem::remove_all(path("a")); },
          [this] { return platform_make_dirs(path("a/b/c").c_str(), 0777); },
          [this](const Fared &fared) {
              EXPECT_EQ(std::filesystem::is_directory(path("a/b/c")), fared.result == 1);
              EXPECT_TRUE(fared.result == 1 || fared.error == EIO);
          });
}

TEST_F(FileServicesSweep, ATemporaryFileIsThereOrNothingIs) {
    std::array<char, 4097> made = {};
    sweep([this] { std::filesystem::remove_all(path("in")), std::filesystem::create_directory(path("in")); },
          [&] {
              const int fd = platform_temporary_file(path("in").c_str(), "p", made.data(), made.size());
              EXPECT_EQ(fd == -1 ? 0 : hook::close.real(fd), 0);
              return fd == -1 ? 0 : 1;
          },
          [this](const Fared &fared) {
              EXPECT_EQ(fared.result, 0);
              EXPECT_EQ(fared.error, EIO);
              EXPECT_EQ(entries(path("in")), NameSet{});
          });
}

TEST_F(FileServicesSweep, ATemporaryDirectoryIsThereOrNothingIs) {
    std::array<char, 4097> made = {};
    sweep([this] { std::filesystem::remove_all(path("in")), std::filesystem::create_directory(path("in")); },
          [&] { return platform_temporary_dir(path("in").c_str(), "p", made.data(), made.size()); },
          [this](const Fared &fared) {
              EXPECT_EQ(fared.result, 0);
              EXPECT_EQ(fared.error, EIO);
              EXPECT_EQ(entries(path("in")), NameSet{});
          });
}

TEST_F(FileServicesSweep, AStatusIsTakenOrLeftAsItWas) {
    const std::string file = with_text("file", "text");
    PlatformFileStatus status = {};
    status.size = 77;
    sweep([] {}, [&] { return platform_file_status(file.c_str(), &status); },
          [&status](const Fared &fared) {
              EXPECT_EQ(fared.result, 0);
              EXPECT_EQ(fared.error, EIO);
              EXPECT_EQ(status.size, 4); // of the run in which nothing failed
          });
}
