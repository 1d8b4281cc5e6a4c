// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// The public header beside those of the system.
#include <support/child.h>
#include <support/files.h>

using namespace zel::test;

// Each program is one order of the two headers in one language. It checks that MSG_INFO
// is the message type.
TEST(MsgHeader, BesideTheSystemsMessageQueuesMsgInfoIsTheMessageType) {
    for (const std::string order : {"first", "last"}) {
        for (const std::string language : {"c11_OFF", "c11_ON", "cpp17_OFF"}) {
            const Outcome outcome = run_program({companion_path("sys_msg_" + order + "_" + language)});
            EXPECT_EQ(outcome.status, 0) << order << " " << language;
        }
    }
}
