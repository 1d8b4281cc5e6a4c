// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// Running the word count, and what it has to print: taken from wc, and from sort and uniq.
#ifndef ZEL_TESTS_EXAMPLES_WORD_COUNT_SUPPORT_H
#define ZEL_TESTS_EXAMPLES_WORD_COUNT_SUPPORT_H

#include "examples_support.h"

#include <support/files.h>

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace zel::test {

inline constexpr const char *kWordCount = ZEL_BINARY_DIR "/examples/word_count";
inline constexpr const char *kEndedWell = "The companion ended with exit status 0.\n";

// The output of a shell command, whose $1 is the path.
std::string shell(const std::string &command, const std::string &path);

// The report of a text: the counts of wc and the ten words of a sort and uniq pipeline, in the C locale.
std::string expected_report(const std::string &path, const std::string &name);
std::string expected_report(const std::string &path);

// The printed form of a word or name.
std::string shown(const std::string &bytes);

// A folder of its own, and the word count in either arrangement: the parameter is "" or "--hybrid".
struct WordCountTest : testing::TestWithParam<std::string> {
    std::string text(const std::string &name, const std::string &contents) const;
    // word_count [--hybrid] ARGUMENT..., in the folder
    Outcome count(const std::vector<std::string> &arguments, const std::vector<std::string> &settings = {}) const;
    Outcome count_with(const std::string &program, const std::vector<std::string> &arguments,
                       const std::vector<std::string> &settings) const;
    bool hybrid() const { return !GetParam().empty(); }
    ScratchFolder folder;
};

std::string arrangement_name(const testing::TestParamInfo<std::string> &info);

} // namespace zel::test

#endif
