// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// Copying a file, checked or not, taking its stamp and expanding a pattern, beside the system calls by hand.
#include "files_by_hand.h"
#include "outside.h"
#include "rows.h"
#include "table.h"

#include <components/platform/file_control.h>
#include <components/platform/file_services.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <glob.h>
#include <sstream>
#include <string>

namespace bench {

namespace {

constexpr size_t kSourceSize = 1 << 20;
constexpr int kSourcesInLarge = 64;
constexpr int kNames = 1000;
constexpr const char *kPattern = "file-*5.txt";

// What both sides work on.
std::string source;
std::string large;
std::string copy;
std::string folder;

std::string contents(const std::string &path) {
    std::ostringstream text;
    text << std::ifstream(path, std::ios::binary).rdbuf();
    return text.str();
}

void write_file(const std::string &path, const std::string &text) {
    std::ofstream file(path, std::ios::binary);
    if (!(file << text)) {
        std::perror(path.c_str());
        std::exit(1);
    }
}

void make_files() {
    source = scratch() + "/source";
    large = scratch() + "/large";
    copy = scratch() + "/copy";
    folder = scratch() + "/names";
    std::string text(kSourceSize, 'x');
    for (size_t i = 0; i < text.size(); ++i) {
        text[i] = static_cast<char>('a' + i * 7919 % 26);
    }
    write_file(source, text);
    std::ofstream file(large, std::ios::binary);
    for (int i = 0; i < kSourcesInLarge; ++i) {
        file << text;
    }
    file.close();
    std::filesystem::create_directory(folder);
    for (int i = 0; i < kNames; ++i) {
        write_file(folder + "/file-" + std::to_string(i) + ".txt", "");
    }
}

// ---- The works, each in its ways ------------------------------------------------------------------------------------

bool zel_copy() {
    return platform_copy_file(source.c_str(), copy.c_str()) != 0;
}

bool bare_copy() {
    return copy_by_hand(source.c_str(), copy.c_str()) != 0;
}

bool checked_copy() {
    return platform_copy_checked(source.c_str(), copy.c_str(), nullptr, nullptr) != 0;
}

bool checked_large_copy() {
    return platform_copy_checked(large.c_str(), copy.c_str(), nullptr, nullptr) != 0;
}

bool unchecked_large_copy() {
    return platform_copy_file(large.c_str(), copy.c_str()) != 0;
}

bool bare_large_copy() {
    return copy_by_hand(large.c_str(), copy.c_str()) != 0;
}

bool zel_stamp() {
    FileStamp stamp = platform_file_stamp(source.c_str());
    benchmark::DoNotOptimize(&stamp);
    return stamp.check != 0;
}

bool bare_stamp() {
    uint32_t words[STAMP_WORDS];
    const int taken = stamp_by_hand(source.c_str(), words);
    benchmark::DoNotOptimize(&words);
    return taken != 0;
}

bool zel_glob() {
    PlatformFileList list;
    if (platform_glob(folder.c_str(), kPattern, &list) == 0) {
        return false;
    }
    platform_glob_free(&list);
    return true;
}

bool bare_glob() {
    glob_t list;
    if (glob_by_hand(folder.c_str(), kPattern, &list) == 0) {
        return false;
    }
    globfree(&list);
    return true;
}

// ---- What comes out must be the same --------------------------------------------------------------------------------

void require(bool same, const char *what) {
    if (!same) {
        std::fprintf(stderr, "zel_bench: %s by hand comes out otherwise\n", what);
        std::exit(1);
    }
}

bool copies_are_whole(bool (*make)(), const std::string &from = source) {
    std::filesystem::remove(copy);
    return make() && contents(copy) == contents(from);
}

Way way(const char *name, bool (*action)()) {
    return {name, [action](benchmark::State &state) {
                while (state.KeepRunning()) {
                    if (!action()) {
                        state.SkipWithError("failed");
                    }
                }
            }};
}

void add_checked_copy_rows() {
    require(copies_are_whole(checked_copy), "the checked copy");
    require(copies_are_whole(checked_large_copy, large), "the checked copy of a large file");
    const std::string files = " '" + large + "' '" + copy + "'";
    add_row({.name = "checked copy of a file of 1 MiB", .clock = Clock::own, .iterations = 40},
            with_peers("cp '" + source + "' '" + copy + "'", Clock::own,
                       {way("zel", checked_copy), way("platform_copy_file", zel_copy), way("floor", bare_copy)}));
    add_row({.name = "checked copy of a file of 64 MiB", .clock = Clock::own, .iterations = 2, .every = 4},
            with_peers("cp" + files, Clock::own,
                       with_peers("copy" + files, Clock::own,
                                  {way("zel", checked_large_copy), way("platform_copy_file", unchecked_large_copy),
                                   way("floor", bare_large_copy)})));
}

bool stamps_are_equal() {
    uint32_t words[STAMP_WORDS];
    const FileStamp stamp = platform_file_stamp(source.c_str());
    return stamp_by_hand(source.c_str(), words) != 0 && std::memcmp(&stamp, words, sizeof stamp) == 0;
}

bool lists_are_equal() {
    PlatformFileList list;
    glob_t other;
    if (platform_glob(folder.c_str(), kPattern, &list) == 0 || glob_by_hand(folder.c_str(), kPattern, &other) == 0) {
        return false;
    }
    const bool equal = list.count == kNames / 10 &&
                       std::equal(list.paths, list.paths + list.count, other.gl_pathv, other.gl_pathv + other.gl_pathc,
                                  [](const char *a, const char *b) { return std::strcmp(a, b) == 0; });
    platform_glob_free(&list);
    globfree(&other);
    return equal;
}

} // namespace

void add_file_rows() {
    make_files();
    require(copies_are_whole(zel_copy) && copies_are_whole(bare_copy), "the copy");
    require(stamps_are_equal(), "the stamp");
    require(lists_are_equal(), "the list of a pattern");
    add_row({.name = "copy of a file of 1 MiB", .clock = Clock::own, .iterations = 40},
            with_peers("copy '" + source + "' '" + copy + "'", Clock::own,
                       {way("zel", zel_copy), way("floor", bare_copy)}));
    add_checked_copy_rows();
    add_row({.name = "stamp of a file", .clock = Clock::own, .iterations = 20000},
            with_peers("stamp '" + source + "'", Clock::own, {way("zel", zel_stamp), way("floor", bare_stamp)}));
    add_row({.name = "pattern over 1000 names", .clock = Clock::own, .iterations = 30},
            with_peers("glob '" + folder + "' '" + kPattern + "'", Clock::own,
                       {way("zel", zel_glob), way("floor", bare_glob)}));
}

} // namespace bench
