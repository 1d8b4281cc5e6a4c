// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// A file that is written beside another, and takes its place when it is complete.
#ifndef ZEL_COMPONENTS_PLATFORM_FILE_SERVICES_SUCCESSOR_H
#define ZEL_COMPONENTS_PLATFORM_FILE_SERVICES_SUCCESSOR_H

#include <components/platform/file_services/place.h>

#include <cstddef>

namespace zel {

// A successor that has not taken its place is removed where its scope ends. errno is
// kept.
struct Successor {
    Successor() = default;
    Successor(const Successor &) = delete;
    Successor &operator=(const Successor &) = delete;
    ~Successor();
    Place place;
    int file = -1;                                          // while it is open
    bool is_beside = false;                                 // whether it has its own name
    std::array<char, sizeof ".zel-123456789012"> name = {}; // until it takes its place
};

// Creates the file, for its owner alone, in the directory of the place. Returns false
// with errno.
bool create_beside(Successor &successor);

// Writes all bytes at the end of the file. Returns false with errno.
bool append(const Successor &successor, const void *data, size_t length);

// Closes the file and gives it the name of its place. Returns false with errno.
bool take_place(Successor &successor);

} // namespace zel

#endif
