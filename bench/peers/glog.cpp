// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// glog: a line to a file, flushed, behind the prefix that it always writes.
#include "peers/peer.h"
#include "sample.h"

#include <glog/logging.h>

static void line(long iterations, char **arguments) {
    FLAGS_logbufsecs = 0;
    FLAGS_logbuflevel = -1; // each line is flushed
    FLAGS_timestamp_in_logfile_name = false;
    google::InitGoogleLogging("bench");
    google::SetLogDestination(google::GLOG_INFO, arguments[0]);
    google::SetLogSymlink(google::GLOG_INFO, "");
    sample_begin();
    for (long i = 0; i < iterations; ++i) {
        LOG(INFO) << "backup"
                  << ": " << 12 << " of " << 40 << " files, now in "
                  << "/home/guest";
    }
    sample_end(iterations);
}

const peer_work peer_works[] = {{"line", line}, {nullptr, nullptr}};
