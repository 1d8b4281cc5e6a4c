// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// Helpers of the tests of the streams that are more than files.
#include "sinks_support.h"

#include <filesystem>
#include <list>
#include <set>
#include <unistd.h>

namespace zel::test {

namespace {

int take_line(const char *text, size_t length, void *user) {
    return (*static_cast<TakeLine *>(user))(std::string(text, length)) ? 1 : 0;
}

int take_bracketed(const char *text, size_t length, void * /*user*/) {
    print_bracketed(std::string(text, length));
    return 1;
}

} // namespace

FILE *open_lines(const TakeLine &take) {
    static auto *const kept = new std::list<TakeLine>; // exit handlers may write
    return msg_open_function(take_line, &kept->emplace_back(take));
}

// By write: an exit handler may call it.
void print_bracketed(const std::string &line) {
    const std::string shown = "[" + line + "]";
    [[maybe_unused]] const ssize_t written = write(STDOUT_FILENO, shown.data(), shown.size());
}

FILE *open_bracketed() {
    return msg_open_function(take_bracketed, nullptr);
}

std::string LogFolder::all() const {
    std::string text = read_file(log);
    for (int number = 1; std::filesystem::exists(log + "." + std::to_string(number)); ++number) {
        text += "|" + read_file(log + "." + std::to_string(number));
    }
    return text;
}

std::string LogFolder::names() const {
    std::set<std::string> names;
    for (const auto &entry : std::filesystem::directory_iterator(path)) {
        names.insert(entry.path().filename());
    }
    std::string text;
    for (const std::string &name : names) {
        text += (text.empty() ? "" : " ") + name;
    }
    return text;
}

FILE *LogFolder::open(int64_t most_bytes, int32_t older_files) const {
    return msg_open_rotating_file(log.c_str(), most_bytes, older_files);
}

} // namespace zel::test
