/* Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
 * Work on files as one would write it by hand. Each returns 1, or 0 when a step fails. */
#ifndef ZEL_BENCH_FILES_BY_HAND_H
#define ZEL_BENCH_FILES_BY_HAND_H

#include <glob.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

enum { STAMP_WORDS = 11 };

/* Copies in pieces of 8 KiB, as cp did for long. */
int copy_by_hand(const char *from, const char *to);

/* The words of a FileStamp in their order. */
int stamp_by_hand(const char *path, uint32_t *words);

/* The list is released by globfree. */
int glob_by_hand(const char *dir, const char *pattern, glob_t *list);

/* Makes a folder, which must not exist, and so many empty files in it. */
int make_folder(const char *path, int files);

/* Removes a folder of files alone, and the files in it. */
int remove_by_hand(const char *path);

#ifdef __cplusplus
}
#endif

#endif
