// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// A companion as somebody writes it on the first day. "add" adds numbers that stand in the
// lines of its message, "sum" adds values that follow its message, "silent" answers nothing.
#include "companion.h"

#include <components/platform/message_lines.h>
#include <components/platform/pair_control.h>

#include <cstdlib>
#include <string>
#include <vector>

namespace {

PairHandle *pair;

int32_t number_in(const PlatformLine &line) {
    return atoi(std::string(line.text, line.length).c_str());
}

int send_total(int32_t total) {
    return static_cast<int>(platform_pair_send_all(pair, &total, sizeof total, -1, nullptr) == PLATFORM_PAIR_DONE);
}

int add_lines(const PlatformMessage &message) {
    int32_t total = 0;
    for (int32_t line = 1; line < message.count; ++line) {
        total += number_in(message.lines[line]);
    }
    return send_total(total);
}

int sum_values(const PlatformMessage &message) {
    std::vector<int32_t> values(static_cast<size_t>(number_in(message.lines[1])));
    const auto size = static_cast<int32_t>(values.size() * sizeof(int32_t));
    if (platform_pair_recv_all(pair, values.data(), size, -1, nullptr) != PLATFORM_PAIR_DONE) {
        return 0;
    }
    int32_t total = 0;
    for (const int32_t value : values) {
        total += value;
    }
    return send_total(total);
}

int on_message(int /*socket*/, const PlatformMessage *message, void * /*user*/) {
    const std::string what(message->lines[0].text, message->lines[0].length);
    if (what == "silent") {
        return 1;
    }
    return what == "add" ? add_lines(*message) : sum_values(*message);
}

} // namespace

int main() {
    pair = zel::test::open_or_exit(0, 1);
    platform_msgbuf_set(platform_msgbuf_create(65536));
    while (platform_message_wait(platform_pair_rx_fd(pair), on_message, nullptr, -1) == PLATFORM_MESSAGE_HANDLED) {
    }
    return zel::test::kServed;
}
