// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// Composing the path that leads from one absolute path to another.
#include <components/platform/file_control/relative_path.h>

#include <msg/base/text.h>

#include <algorithm>

namespace zel {

namespace {

// The position of the last "/" in the part that both paths have in common.
size_t last_common_slash(std::string_view base, std::string_view target) {
    const auto differ = std::mismatch(base.begin(), base.end(), target.begin(), target.end());
    const auto common = static_cast<size_t>(differ.first - base.begin());
    return first_part(base, common).rfind('/');
}

} // namespace

bool compose_relative_path(std::string_view base, std::string_view target, std::span<char> result) {
    constexpr std::string_view kUp = "../";
    if (base == target) {
        return format_text(result, ".");
    }
    const size_t slash = last_common_slash(base, target);
    const std::string_view steps = part_from(base, slash);
    const std::string_view rest = part_from(target, slash + 1);
    const auto ups = static_cast<size_t>(std::count(steps.begin(), steps.end(), '/'));
    if (ups * kUp.size() + rest.size() >= result.size()) {
        return false;
    }
    // The result may overlap the target. So the rest of the target is moved before the
    // steps up are written.
    char *const after_ups = result.data() + ups * kUp.size();
    memmove(after_ups, rest.data(), rest.size());
    after_ups[rest.size()] = '\0';
    for (size_t up = 0; up < ups; ++up) {
        copy_part(result.subspan(up * kUp.size()), kUp);
    }
    return true;
}

} // namespace zel
