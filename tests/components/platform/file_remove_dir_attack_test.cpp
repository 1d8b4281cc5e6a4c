// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// Removal of a directory while somebody else changes the tree: what stands outside is never lost.
#include <components/platform/file_control.h>

#include "file_trees_support.h"
#include <support/interpose.h>

#include <filesystem>
#include <functional>
#include <gtest/gtest.h>
#include <string>
#include <unistd.h>

using namespace zel::test;
namespace fs = std::filesystem;

namespace {

// The folder "outside", and a link to it that takes the place of a directory of "tree".
struct RemoveDirAttack : Trees {
    void make_outside(int files) const {
        make_folder("outside");
        for (int file = 0; file < files; ++file) {
            make_file("outside/precious" + std::to_string(file));
        }
    }

    void make_round() const {
        make_folder("tree");
        make_folder("tree/d");
        for (const char *name : {"tree/d/1", "tree/d/2", "tree/d/3"}) {
            make_file(name);
        }
        make_link(path("outside"), "link");
    }

    // The exchanges go on: the directory is under one name or the other. Nothing outside has a name that is given here.
    void clear_round() const {
        while (exists("tree") || exists("link")) {
            for (const std::string directory : {"tree/d", "link/d", "link", "tree"}) {
                for (const char *file : {"/1", "/2", "/3"}) {
                    unlink(path(directory + file).c_str());
                }
                rmdir(path(directory).c_str());
                unlink(path(directory).c_str());
            }
        }
    }

    int files_outside() const {
        const fs::directory_iterator entries(path("outside"));
        return static_cast<int>(std::distance(begin(entries), end(entries)));
    }

    // How many files are left outside after all rounds of the attack, or after the first that lost one.
    int left_of(int files, const std::string &directory) const {
        make_outside(files);
        const Exchanger attacker(path(directory), path("link"));
        for (int round = 0; round < attack_rounds() && files_outside() == files; ++round) {
            make_round();
            platform_remove_dir(path("tree").c_str());
            clear_round();
        }
        return files_outside();
    }
};

} // namespace

TEST_F(RemoveDirAttack, TheFileSystemExchangesADirectoryForALink) {
    make_outside(1);
    make_round();
    ASSERT_TRUE(exchange(path("tree/d"), path("link")));
    EXPECT_TRUE(fs::is_symlink(path("tree/d")));
    EXPECT_TRUE(exists("link/1"));
}

TEST_F(RemoveDirAttack, ADirectoryExchangedForALinkToOneFileLosesNothing) {
    EXPECT_EQ(left_of(1, "tree/d"), 1);
}

TEST_F(RemoveDirAttack, ADirectoryExchangedForALinkTo50FilesLosesNothing) {
    EXPECT_EQ(left_of(50, "tree/d"), 50);
}

TEST_F(RemoveDirAttack, ADirectoryExchangedForALinkTo200FilesLosesNothing) {
    EXPECT_EQ(left_of(200, "tree/d"), 200);
}

TEST_F(RemoveDirAttack, ThePathItselfExchangedForALinkLosesNothing) {
    EXPECT_EQ(left_of(50, "tree"), 50);
}

namespace {

// Does something at one moment: before the n-th call (from 0) that the removal makes.
struct Moment {
    Moment(int number, std::function<void()> thing) : nth(number), action(std::move(thing)) {}
    void pass() {
        if (calls++ == nth) {
            action();
        }
    }
    const int nth;
    const std::function<void()> action;
    int calls = 0;
    const Interposed<int(const char *, int)> judging{hook::access, [this](const char *path, int mode) {
                                                         pass();
                                                         return hook::access.real(path, mode);
                                                     }};
    const Interposed<int(const char *, int, int (*)(const char *, int), glob_t *)> listing{
        hook::glob, [this](const char *pattern, int flags, int (*on_error)(const char *, int), glob_t *record) {
            pass();
            return hook::glob.real(pattern, flags, on_error, record);
        }};
    const Interposed<int(int, const char *, struct stat *, int)> looking{
        hook::fstatat, [this](int fd, const char *name, struct stat *status, int flags) {
            pass();
            return hook::fstatat.real(fd, name, status, flags);
        }};
    const Interposed<int(int, const char *, int, mode_t)> holding{
        hook::openat, [this](int fd, const char *name, int flags, mode_t mode) {
            pass();
            return hook::openat.real(fd, name, flags, mode);
        }};
    const Interposed<int(int, const char *, int)> removing{hook::unlinkat, [this](int fd, const char *name, int flags) {
                                                               pass();
                                                               return hook::unlinkat.real(fd, name, flags);
                                                           }};
};

} // namespace

TEST_F(RemoveDirAttack, ExchangedAtAnyMomentADirectoryLosesNothingOutside) {
    make_outside(3);
    make_file("outside/1");
    for (const std::string directory : {"tree/d", "tree"}) {
        bool reached = true;
        for (int nth = 0; reached; ++nth) {
            make_round();
            const Moment moment(nth, [&] { exchange(path(directory), path("link")); });
            platform_remove_dir(path("tree").c_str());
            ASSERT_EQ(files_outside(), 4) << directory << " exchanged before call " << nth;
            reached = moment.calls > nth;
            fs::remove_all(path("tree"));
            fs::remove_all(path("link"));
        }
    }
}

TEST_F(RemoveDirAttack, ADirectoryMovedOutAtAnyMomentEndsTheWalkThere) {
    make_outside(3);
    make_file("outside/later");
    bool moved = true;
    for (int nth = 0; moved; nth += 11) {
        make_folder("tree");
        make_chain("tree", 38);
        moved = false;
        const Moment moment(nth, [&] { moved = rename(path("tree/d/d/d").c_str(), path("outside/d").c_str()) == 0; });
        platform_remove_dir(path("tree").c_str());
        ASSERT_TRUE(exists("outside/later")) << "moved before call " << nth;
        ASSERT_EQ(exists("outside/d"), moved) << "moved before call " << nth;
        fs::remove_all(path("tree"));
        fs::remove_all(path("outside/d"));
    }
    EXPECT_EQ(files_outside(), 4);
}

TEST_F(RemoveDirAttack, WhatIsAddedMeanwhileStaysAndTheResultIs0) {
    make_folder("tree");
    make_file("tree/a");
    bool added = false;
    const Interposed adding(hook::unlinkat, [this, &added](int fd, const char *name, int flags) {
        if (!added) {
            make_file("tree/new");
        }
        added = true;
        return hook::unlinkat.real(fd, name, flags);
    });
    EXPECT_EQ(platform_remove_dir(path("tree").c_str()), 0);
    EXPECT_FALSE(exists("tree/a"));
    EXPECT_TRUE(exists("tree/new"));
}
