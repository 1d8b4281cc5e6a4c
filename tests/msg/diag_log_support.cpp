// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// Helpers of the tests of the diagnostic log.
#include "diag_log_support.h"

#include <msg/msg.h>

#include <cstdlib>
#include <unistd.h>

namespace zel::test {

void set_variable(const char *name, const Value &value) {
    if (value.has_value()) {
        setenv(name, value->c_str(), 1);
    } else {
        unsetenv(name);
    }
}

void set_variables(const Value &first, const Value &second, const Value &third) {
    set_variable(kVariables[0], first);
    set_variable(kVariables[1], second);
    set_variable(kVariables[2], third);
}

std::string log_in(const std::string &folder) {
    const char *login = getlogin();
    return folder + "/zel" + std::to_string(getpid()) + (login == nullptr ? "" : login) + ".log";
}

bool exists(const std::string &path) {
    return access(path.c_str(), F_OK) == 0;
}

int diagnostic_streams() {
    return _msg_get_stream_desc(MSG_DIAG)->count;
}

std::string lengthened(std::string folder, size_t length) {
    folder.append(length - folder.size(), '/');
    return folder;
}

} // namespace zel::test
