// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// Opening a log file under a name that others can foresee.
#ifndef ZEL_MSG_BASE_LOG_FILE_H
#define ZEL_MSG_BASE_LOG_FILE_H

#include <cstdio>

namespace zel {

// Creates the file, or empties one that is there, and returns a stream that writes to it, or null. A file that is there
// is taken only when it is a regular file of the effective user with one link: nothing that somebody planted under the
// name is followed, waited for or changed.
// The descriptor is above the standard ones and close-on-exec. The stream stays open until the process ends.
// What the streams that this process opened before still hold is written out first, so that it cannot land in the file
// afterwards; what cannot be written is discarded.
FILE *open_log_file(const char *path);

} // namespace zel

#endif
