/* Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
 * Work on files by hand. */
#include "files_by_hand.h"

#include <dirent.h>
#include <fcntl.h>
#include <stdio.h>
#include <sys/stat.h>
#include <unistd.h>

enum { PIECE = 8192, CHECK_PATTERN = 0x404040 };

int copy_by_hand(const char *from, const char *to) {
    char piece[PIECE];
    ssize_t count;
    const int source = open(from, O_RDONLY | O_CLOEXEC);
    const int target = open(to, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0666);
    if (source == -1 || target == -1) {
        return 0;
    }
    while ((count = read(source, piece, sizeof piece)) > 0 && write(target, piece, (size_t) count) == count) {
    }
    close(source);
    return close(target) == 0 && count == 0;
}

int stamp_by_hand(const char *path, uint32_t *words) {
    struct stat status;
    if (stat(path, &status) != 0) {
        return 0;
    }
    words[0] = status.st_gid;
    words[1] = (uint32_t) status.st_ctime;
    words[2] = (uint32_t) status.st_mtime;
    words[3] = (uint32_t) status.st_atime;
    words[4] = (uint32_t) status.st_dev;
    words[5] = (uint32_t) status.st_ino;
    words[6] = status.st_mode;
    words[7] = (uint32_t) status.st_size;
    words[8] = (uint32_t) ((uint64_t) status.st_size >> 32);
    words[9] = words[7] ^ CHECK_PATTERN;
    words[10] = 0;
    return 1;
}

int glob_by_hand(const char *dir, const char *pattern, glob_t *list) {
    char joined[4096];
    snprintf(joined, sizeof joined, "%s/%s", dir, pattern);
    return glob(joined, 0, NULL, list) == 0;
}

static int make_file(int folder, int number) {
    char name[32];
    snprintf(name, sizeof name, "file-%d", number);
    const int file = openat(folder, name, O_WRONLY | O_CREAT | O_CLOEXEC, 0666);
    return file != -1 && close(file) == 0;
}

int make_folder(const char *path, int files) {
    if (mkdir(path, 0777) != 0) {
        return 0;
    }
    const int folder = open(path, O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    int made = 0;
    while (made < files && make_file(folder, made)) {
        ++made;
    }
    return close(folder) == 0 && made == files;
}

static int remove_entries(DIR *dir) {
    const struct dirent *entry;
    while ((entry = readdir(dir)) != NULL) {
        const int is_link = entry->d_name[0] == '.'; /* "." and ".."; no other name begins so */
        if (!is_link && unlinkat(dirfd(dir), entry->d_name, 0) != 0) {
            return 0;
        }
    }
    return 1;
}

int remove_by_hand(const char *path) {
    DIR *dir = opendir(path);
    if (dir == NULL) {
        return 0;
    }
    const int removed = remove_entries(dir);
    closedir(dir);
    return removed && rmdir(path) == 0;
}
