/* Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
 * A program that uses message queues of the system beside message streams. MSG_INFO is
 * the message type, in whichever order the two headers were included: its sync flag is
 * set at first, those of the types 4 and 8 are not. */
#ifndef ZEL_TESTS_MSG_SYS_MSG_H
#define ZEL_TESTS_MSG_SYS_MSG_H

#ifdef MSG_INFO
#error MSG_INFO is a macro
#endif

static inline int finds_the_message_type(void) {
    struct msqid_ds queue;
    const int none = msgctl(-1, IPC_STAT, &queue);
    const int sync = msg_sync_mode(MSG_INFO, -1);
    return MSG_INFO == 1 && sync == 1 && none == -1;
}

#endif
