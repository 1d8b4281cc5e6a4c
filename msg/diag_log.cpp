// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// The diagnostic log file. It uses the environment services, which stand above this
// folder: the one include that points up.
#include <msg/diag_log.h>

#include <components/platform/environment.h>
#include <msg/base/log_file.h>
#include <msg/base/text.h>
#include <msg/base/variables.h>
#include <msg/msg.h>

#include <array>
#include <unistd.h>

namespace {

constexpr size_t kDirectorySize = 4096;
constexpr size_t kLoginSize = 257;

struct State {
    std::array<char, kDirectorySize> directory; // of the last call; empty at first
    std::array<char, kLoginSize> login;         // set once, when a login name is known
};

constinit State state = {};

using LogPath = std::array<char, kDirectorySize>;

// DELIBERATE: a variable that is set but empty wins over the later ones: no log is
// opened. Test: DiagLog.EveryCombinationOfTheVariablesIsDecidedByTheFirstThatIsSet.
const char *directory_from_environment() {
    return zel::first_set({"ZEL_DIAG_DIR", "ZEL_DIAGNOSTICS_PATH", "ZEL_TMPDIR"}, "/tmp");
}

// The text may be the stored one. A text that does not fit is refused whole: a path that
// was cut could name another directory.
void store_directory(const char *directory) {
    const size_t size = strlen(directory) + 1;
    if (size > state.directory.size()) {
        state.directory.front() = '\0';
        return;
    }
    memmove(state.directory.data(), directory, size);
}

const char *login_name() {
    if (state.login.front() == '\0') {
        const char *name = getlogin();
        zel::format_text(state.login, "%s", name == nullptr ? "" : name);
    }
    return state.login.data();
}

void attach_log() {
    LogPath path;
    if (!zel::format_text(path, "%s/zel%d%s.log", state.directory.data(), getpid(), login_name())) {
        return;
    }
    FILE *file = zel::open_log_file(path.data());
    if (file != nullptr) {
        msg_add_stream(MSG_DIAG, file);
    }
}

} // namespace

const char *msg_open_diag_log(const char *dir) {
    const bool given = dir != nullptr && *dir != '\0';
    store_directory(given ? dir : directory_from_environment());
    msg_clear_streams(MSG_DIAG);
    const char *directory = state.directory.data();
    if (*directory != '\0' && platform_is_writable_dir(directory) != 0) {
        attach_log();
    }
    return directory;
}

const char *msg_get_diag_dir() {
    return state.directory.front() != '\0' ? state.directory.data() : directory_from_environment();
}

const char *msg_get_tmpdir() {
    return zel::first_set({"ZEL_TMPDIR"}, "/tmp");
}
