// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// Names that nobody else has taken.
#ifndef ZEL_COMPONENTS_PLATFORM_FILE_SERVICES_UNIQUE_NAME_H
#define ZEL_COMPONENTS_PLATFORM_FILE_SERVICES_UNIQUE_NAME_H

#include <cerrno>
#include <span>

namespace zel {

// Fills the text with random letters and digits. Returns false with errno.
bool fill_randomly(std::span<char> text);

// Makes something under a name whose end is random. A name that is taken is changed, up
// to a hundred times.
// - random: the end of the name.
// - make: makes the thing. Returns -1 with errno when that fails.
// - Returns the result of make, or -1 with errno.
template <typename Make>
int make_unique(std::span<char> random, Make make) {
    constexpr int kMostNames = 100;
    int made = -1;
    errno = EEXIST;
    for (int names = 0; names < kMostNames && made == -1 && errno == EEXIST; ++names) {
        made = fill_randomly(random) ? make() : -1;
    }
    return made;
}

} // namespace zel

#endif
