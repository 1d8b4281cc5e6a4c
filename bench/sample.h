/* Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
 * What a program that is one sample tells of itself. */
#ifndef ZEL_BENCH_SAMPLE_H
#define ZEL_BENCH_SAMPLE_H

#ifdef __cplusplus
extern "C" {
#endif

/* The measured time begins. */
void sample_begin(void);

/* The measured time ends. Prints what one iteration took in seconds: of this process and of the children that it has
 * reaped, then by the clock on the wall. */
void sample_end(long iterations);

#ifdef __cplusplus
}
#endif

#endif
