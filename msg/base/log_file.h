// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// Opening a log file under a name that others can foresee.
#ifndef ZEL_MSG_BASE_LOG_FILE_H
#define ZEL_MSG_BASE_LOG_FILE_H

#include <cstdio>

namespace zel {

// Creates the file, or empties one that is there. Returns a stream that writes to it, or
// null. A file that is there is taken only when it is a regular file of the effective
// user with one link. Nothing else under the name is followed, waited for or changed. The
// descriptor is above the standard ones and close-on-exec. The stream stays open until
// the process ends. The buffers of this process's earlier log streams are written out
// first: they would reach the emptied file otherwise. Text that cannot be written is
// discarded.
FILE *open_log_file(const char *path);

// Moves the descriptor of a log above the standard ones; -1 stays. At 0, 1 or 2 the log
// would be taken for the program's own input or output. Returns its number, or -1 with
// errno: the descriptor is closed then.
int log_above_standard(int fd);

// Whether the descriptor leads to a regular file of the effective user with one link.
bool is_own_file(int fd);

} // namespace zel

#endif
