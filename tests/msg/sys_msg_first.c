// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// The system's header first.
#include <sys/msg.h>

#include <msg/msg.h>

#include "sys_msg.h"

int main(void) {
    return finds_the_message_type() ? 0 : 1;
}
