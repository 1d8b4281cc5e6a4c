// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// What the tests of the environment services share.
#include "environment_support.h"

#include <cstdlib>

namespace zel::test {

Outcome run_with(const Variables &variables, const std::function<void()> &body) {
    return run_in_child([&] {
        for (const char *name : {"ZEL_PERROR", "ZEL_DIAGNOSTICS_PATH", "ZEL_TMPDIR", "TMP", "TEMP", "ZEL_DIST"}) {
            unsetenv(name);
        }
        setenv("TZ", "UTC0", 1);
        for (const auto &[name, value] : variables) {
            setenv(name.c_str(), value.c_str(), 1);
        }
        body();
    });
}

std::string opening(const std::string &directory, const std::string &name) {
    return "sleep 1\nopen " + directory + "/zel" + kTuesdayStamp + name + ".log\n";
}

} // namespace zel::test
