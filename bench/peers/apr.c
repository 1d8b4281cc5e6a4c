/* Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
 * The Apache Portable Runtime: starting a program, files. */
#include "peers/peer.h"
#include "sample.h"

#include <apr_file_info.h>
#include <apr_file_io.h>
#include <apr_fnmatch.h>
#include <apr_general.h>
#include <apr_strings.h>
#include <apr_thread_proc.h>

#include <stdlib.h>

static apr_pool_t *new_pool(void) {
    apr_pool_t *pool = NULL;
    peer_require(apr_initialize() == APR_SUCCESS && apr_pool_create(&pool, NULL) == APR_SUCCESS, "apr_pool_create");
    return pool;
}

static void start(long iterations, char **arguments) {
    const char *const argv[] = {arguments[0], "exit", NULL};
    apr_pool_t *pool = new_pool();
    sample_begin();
    for (long i = 0; i < iterations; ++i) {
        apr_procattr_t *attributes;
        apr_proc_t process;
        int code = -1;
        apr_exit_why_e why;
        apr_pool_clear(pool);
        apr_procattr_create(&attributes, pool);
        apr_procattr_cmdtype_set(attributes, APR_PROGRAM);
        apr_procattr_io_set(attributes, APR_NO_FILE, APR_NO_FILE, APR_NO_FILE);
        peer_require(apr_proc_create(&process, arguments[0], argv, NULL, attributes, pool) == APR_SUCCESS, "start");
        apr_proc_wait(&process, &code, &why, APR_WAIT);
        peer_require(code == 0, "status");
    }
    sample_end(iterations);
}

static void copy(long iterations, char **arguments) {
    apr_pool_t *pool = new_pool();
    sample_begin();
    for (long i = 0; i < iterations; ++i) {
        apr_pool_clear(pool);
        peer_require(apr_file_copy(arguments[0], arguments[1], APR_FILE_SOURCE_PERMS, pool) == APR_SUCCESS, "copy");
    }
    sample_end(iterations);
}

static void stamp(long iterations, char **arguments) {
    apr_pool_t *pool = new_pool();
    sample_begin();
    for (long i = 0; i < iterations; ++i) {
        apr_finfo_t status;
        apr_pool_clear(pool);
        peer_require(apr_stat(&status, arguments[0], APR_FINFO_MIN, pool) == APR_SUCCESS, "stat");
    }
    sample_end(iterations);
}

/* The names come in the order of the directory and without it. */
static void glob(long iterations, char **arguments) {
    apr_pool_t *pool = new_pool();
    const char *pattern = apr_pstrcat(pool, arguments[0], "/", arguments[1], NULL);
    apr_pool_t *each;
    apr_pool_create(&each, pool);
    sample_begin();
    for (long i = 0; i < iterations; ++i) {
        apr_array_header_t *names;
        apr_pool_clear(each);
        peer_require(apr_match_glob(pattern, &names, each) == APR_SUCCESS, "glob");
    }
    sample_end(iterations);
}

const struct peer_work peer_works[] = {
    {"start", start}, {"copy", copy}, {"stamp", stamp}, {"glob", glob}, {NULL, NULL}};
