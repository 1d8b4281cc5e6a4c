// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// The samples as JSON. Google Benchmark's own has no place for several ways of one work and their rounds.
#include "json.h"

#include <array>
#include <cstdio>
#include <ctime>
#include <sys/utsname.h>

namespace bench {

namespace {

std::string quoted(const std::string &text) {
    std::string result = "\"";
    for (const char c : text) {
        if (c == '"' || c == '\\') {
            result += '\\';
        }
        result += c;
    }
    return result + '"';
}

std::string number(double value) {
    std::array<char, 32> text;
    std::snprintf(text.data(), text.size(), "%.9g", value);
    return text.data();
}

// The texts with commas between them.
std::string joined(const std::vector<std::string> &texts, const char *separator) {
    std::string result;
    for (const std::string &text : texts) {
        result += result.empty() ? text : separator + text;
    }
    return result;
}

std::string member(const std::string &name, const std::string &value) {
    return quoted(name) + ": " + value;
}

std::string today() {
    std::array<char, 32> text;
    const time_t now = time(nullptr);
    std::strftime(text.data(), text.size(), "%Y-%m-%d", std::gmtime(&now));
    return text.data();
}

std::string kernel() {
    utsname name = {};
    uname(&name);
    return std::string(name.sysname) + " " + name.release;
}

std::string way_of(const std::string &name, const Table::Samples &samples) {
    std::vector<std::string> seconds;
    seconds.reserve(samples.seconds.size());
    for (const double value : samples.seconds) {
        seconds.push_back(number(value));
    }
    std::vector<std::string> members = {member("name", quoted(name)),
                                        member("seconds", "[" + joined(seconds, ", ") + "]")};
    for (const auto &[counter, value] : samples.counters) {
        members.push_back(member(counter, number(value)));
    }
    return "    {" + joined(members, ", ") + "}";
}

std::string row_of(const Table::Row &row) {
    std::vector<std::string> ways;
    ways.reserve(row.ways.size());
    for (const std::string &way : row.ways) {
        ways.push_back(way_of(way, row.samples.at(way)));
    }
    const char *clock = row.work.clock == Clock::own ? "processor" : "wall";
    return "  {" +
           joined({member("name", quoted(row.work.name)), member("clock", quoted(clock)),
                   member("series", quoted(row.work.series)), member("x", number(row.work.x)),
                   member("ways", "[\n" + joined(ways, ",\n") + "]")},
                  ", ") +
           "}";
}

} // namespace

bool write_json(const std::string &path, const Setting &setting, const std::vector<Table::Row> &rows) {
    std::vector<std::string> texts;
    texts.reserve(rows.size());
    for (const Table::Row &row : rows) {
        texts.push_back(row_of(row));
    }
    const std::string whole =
        "{" +
        joined({member("bits", number(8 * sizeof(void *))), member("rounds", number(setting.rounds)),
                member("date", quoted(today())), member("kernel", quoted(kernel())),
                member("compiler", quoted(std::string("gcc ") + __VERSION__)), member("commit", quoted(setting.commit)),
                member("rows", "[\n" + joined(texts, ",\n") + "]")},
               ",\n") +
        "}\n";
    FILE *file = std::fopen(path.c_str(), "w");
    if (file == nullptr) {
        return false;
    }
    const bool written = std::fputs(whole.c_str(), file) >= 0;
    return std::fclose(file) == 0 && written;
}

} // namespace bench
