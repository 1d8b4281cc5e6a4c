// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// Streams to the system log. The calls of the C library are replaced: the log of the
// machine stays untouched.
#include "msg_support.h"
#include "sinks_support.h"

#include <support/interpose.h>

#include <cerrno>
#include <cstdlib>
#include <syslog.h>

using namespace zel::test;

namespace {

// What reached the log, "IDENT/OPTIONS PRIORITY:TEXT;" for each entry.
struct WatchedLog {
    std::string said;
    std::string ident = "none";
    Interposed<void(const char *, int, int)> opening;
    Interposed<void(int, const char *, int, const char *)> writing;
    Interposed<void()> closing;

    WatchedLog()
        : opening(hook::openlog,
                  [this](const char *name, int options, int facility) {
                      ident = std::string(name) + "/" + std::to_string(options) + "/" + std::to_string(facility);
                  }),
          writing(hook::syslog,
                  [this](int priority, const char *format, int length, const char *text) {
                      EXPECT_STREQ(format, "%.*s");
                      said += ident + " " + std::to_string(priority) + ":" +
                              std::string(text, static_cast<size_t>(length)) + ";";
                  }),
          closing(hook::closelog, [this] {
              ident = "none";
              said += "closed;";
          }) {}
};

// The name of a stream, as the watched log shows it.
std::string shown(const std::string &name) {
    return name + "/" + std::to_string(LOG_PID) + "/" + std::to_string(LOG_USER);
}

} // namespace

TEST(SystemLog, EachLineIsOneEntryOfTheGivenNameAndPriority) {
    WatchedLog log;
    std::string name = "server";
    FILE *stream = msg_open_syslog(name.c_str(), LOG_DAEMON | LOG_WARNING);
    name = "gone!!";
    fputs("50% ", stream);
    fputs("done\n\nnext %n\n", stream);
    fclose(stream);
    const std::string entry = shown("server") + " " + std::to_string(LOG_DAEMON | LOG_WARNING) + ":";
    EXPECT_EQ(log.said, entry + "50% done;" + entry + "next %n;closed;");
}

TEST(SystemLog, TwoStreamsKeepTheirNamesApart) {
    WatchedLog log;
    FILE *one = msg_open_syslog("one", LOG_INFO);
    FILE *two = msg_open_syslog("two", LOG_ERR);
    fputs("a\n", one);
    fputs("b\n", two);
    fputs("c\n", one);
    fclose(one);
    fputs("d\n", two);
    fclose(two);
    EXPECT_EQ(log.said, shown("one") + " 6:a;" + shown("two") + " 3:b;" + shown("one") + " 6:c;closed;" + shown("two") +
                            " 3:d;closed;");
    EXPECT_EQ(log.ident, "none");
}

TEST(SystemLog, MessagesArriveAsTheirLines) {
    const Outcome outcome = run_messages([] {
        WatchedLog log;
        FILE *stream = msg_open_syslog("server", LOG_ERR);
        msg_clear_streams(MSG_ERROR);
        msg_add_stream(MSG_ERROR, stream);
        msg_set_width_limit(12);
        msg_error("one two");
        fputs(log.said.c_str(), stdout);
        msg_clear_streams(MSG_ERROR);
        fclose(stream);
    });
    EXPECT_EQ(outcome.out, shown("server") + " 3:Error: one;" + shown("server") + " 3:       two;");
}

TEST(SystemLog, ALineWithoutItsEndIsAnEntryOfTheClose) {
    WatchedLog log;
    FILE *stream = msg_open_syslog("server", LOG_INFO);
    fputs("end", stream);
    EXPECT_EQ(log.said, "");
    fclose(stream);
    EXPECT_EQ(log.said, shown("server") + " 6:end;closed;");
}

TEST(SystemLog, ANullNameAndAPriorityOfOtherBitsAreRefused) {
    for (const int priority : {-1, LOG_INFO | 0x1000}) {
        errno = 0;
        EXPECT_EQ(msg_open_syslog("server", priority), nullptr);
        EXPECT_EQ(errno, EINVAL);
    }
    errno = 0;
    EXPECT_EQ(msg_open_syslog(nullptr, LOG_INFO), nullptr);
    EXPECT_EQ(errno, EINVAL);
}

TEST(SystemLog, AnOpeningThatFailsLeavesNothing) {
    int failures = 0;
    FILE *stream = nullptr;
    for (; stream == nullptr && failures < 10; ++failures) {
        const Interposed failing(hook::malloc, fail_nth(hook::malloc, failures, ENOMEM, nullptr));
        errno = 0;
        stream = msg_open_syslog("server", LOG_INFO);
        EXPECT_TRUE(stream != nullptr || errno == ENOMEM);
    }
    EXPECT_EQ(failures, 3);
    const WatchedLog log;
    fclose(stream);
    const Interposed failing(hook::fopencookie, fail_always(hook::fopencookie, ENOMEM, nullptr));
    EXPECT_EQ(msg_open_syslog("server", LOG_INFO), nullptr);
    EXPECT_EQ(errno, ENOMEM);
}
