// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// Expanding and matching shell patterns.
#include <components/platform/file_control.h>

#include <components/platform/internal/file_control_unit.h>
#include <msg/base/text.h>

#include <fnmatch.h>
#include <glob.h>

namespace {

const char *pattern_or_all(const char *pattern) {
    return pattern == nullptr || *pattern == '\0' ? "*" : pattern;
}

// Directory and pattern in one, in storage of the memory library.
char *join_pattern(const char *dir, const char *pattern) {
    const size_t length = strlen(dir);
    const char *separator = dir[length - 1] == '/' ? "" : "/";
    const size_t size = length + strlen(separator) + strlen(pattern) + 1;
    char *joined = zel::file_control::allocate_chars(size, __LINE__);
    zel::format_text({joined, size}, "%s%s%s", dir, separator, pattern);
    return joined;
}

} // namespace

int platform_glob(const char *dir, const char *pattern, PlatformFileList *list) {
    if (list == nullptr || dir == nullptr || *dir == '\0') {
        return 0;
    }
    char *joined = join_pattern(dir, pattern_or_all(pattern));
    auto *record = static_cast<glob_t *>(zel_malloc(sizeof(glob_t), "components/platform/file_control:808", "glob_t"));
    const int result = glob(joined, 0, nullptr, record);
    zel_free(joined);
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
