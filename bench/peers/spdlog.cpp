// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// spdlog: a line to a file, flushed.
#include "peers/peer.h"
#include "sample.h"

#include <spdlog/sinks/basic_file_sink.h>
#include <spdlog/spdlog.h>

static void line(long iterations, char **arguments) {
    const auto logger = spdlog::basic_logger_st("bench", arguments[0], true);
    logger->set_pattern("bench: %v");
    logger->flush_on(spdlog::level::info);
    sample_begin();
    for (long i = 0; i < iterations; ++i) {
        logger->info("{}: {} of {} files, now in {}", "backup", 12, 40, "/home/guest");
    }
    sample_end(iterations);
}

const peer_work peer_works[] = {{"line", line}, {nullptr, nullptr}};
