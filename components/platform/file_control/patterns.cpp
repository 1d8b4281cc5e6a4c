// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// Expanding and matching shell patterns.
#include <components/platform/file_control.h>

#include <components/platform/base/allocation.h>
#include <malloc/zel_malloc.h>
#include <msg/base/text.h>

#include <fnmatch.h>
#include <glob.h>

namespace {

// An empty or null pattern stands for all names.
const char *pattern_or_all(const char *pattern) {
    return pattern == nullptr || *pattern == '\0' ? "*" : pattern;
}

// Joins directory and pattern. The text comes from malloc: it is no allocation of the
// program.
char *join_pattern(const char *dir, const char *pattern) {
    const size_t length = strlen(dir);
    const char *separator = dir[length - 1] == '/' ? "" : "/";
    const size_t size = length + strlen(separator) + strlen(pattern) + 1;
    auto *joined = static_cast<char *>(zel::allocate_or_end(size, "platform_glob"));
    zel::format_text({joined, size}, "%s%s%s", dir, separator, pattern);
    return joined;
}

} // namespace

int platform_glob(const char *dir, const char *pattern, PlatformFileList *list) {
    if (list == nullptr || dir == nullptr || *dir == '\0') {
        return 0;
    }
    // DELIBERATE: the number 808 is part of the description. Test:
    // Glob.TheRecordIsAskedForUnderItsOwnName.
    auto *record = static_cast<glob_t *>(zel_malloc(sizeof(glob_t), "components/platform/file_control:808", "glob_t"));
    if (record == nullptr) {
        return 0; // as a failure handler decided
    }
    *record = {}; // globfree below also gets a record that a failed glob has not set up
    char *joined = join_pattern(dir, pattern_or_all(pattern));
    const int result = glob(joined, 0, nullptr, record);
    free(joined);
    if (result != 0) {
        globfree(record);
        zel_free(record);
        return 0;
    }
    *list = {.count = static_cast<uint32_t>(record->gl_pathc), .paths = record->gl_pathv, .glob_record = record};
    return 1;
}

void platform_glob_free(PlatformFileList *list) {
    if (list == nullptr || list->glob_record == nullptr) {
        return;
    }
    globfree(static_cast<glob_t *>(list->glob_record));
    zel_free(list->glob_record);
    *list = {};
}

int platform_match(const char *name, const char *pattern) {
    return name != nullptr && fnmatch(pattern_or_all(pattern), name, 0) == 0 ? 1 : 0;
}
