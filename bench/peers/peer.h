/* Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
 * A peer's program: PROGRAM ITERATIONS WORK [ARGUMENT...], one sample of one work; see sample.h. */
#ifndef ZEL_BENCH_PEERS_PEER_H
#define ZEL_BENCH_PEERS_PEER_H

#ifdef __cplusplus
extern "C" {
#endif

/* One work: prepares, calls sample_begin, does it so many times, calls sample_end. Ends by peer_fail when a step fails.
 */
struct peer_work {
    const char *name;
    void (*run)(long iterations, char **arguments);
};

/* Defined by the peer, a record without a name behind the last. */
extern const struct peer_work peer_works[];

/* Names the step that failed and ends the process. */
void peer_fail(const char *step) __attribute__((noreturn));

/* Fails unless the step went well. */
void peer_require(int well, const char *step);

#ifdef __cplusplus
}
#endif

#endif
