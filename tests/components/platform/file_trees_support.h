// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// What the tests of trees share.
#ifndef ZEL_TESTS_COMPONENTS_PLATFORM_FILE_TREES_SUPPORT_H
#define ZEL_TESTS_COMPONENTS_PLATFORM_FILE_TREES_SUPPORT_H

#include "file_support.h"

#include <map>
#include <string>

namespace zel::test {

// Tests that make trees in a folder of their own. Names are those in the folder.
struct Trees : Files {
    void make_folder(const std::string &name) const;
    void make_file(const std::string &name, const std::string &text = "text") const;
    void make_link(const std::string &target, const std::string &name) const;
    // A tree with every kind of entry under every name that a careless program trips over.
    void make_tree(const std::string &name) const;
    // Folders "d" in one another below a folder. In the upper five the files "a" and "later" stand beside the next.
    void make_chain(const std::string &name, int levels) const;
    // A link that points nowhere exists too.
    bool exists(const std::string &name) const;
};

// What a tree holds: each entry's name, and its text, its target or its kind.
std::map<std::string, std::string> contents_of(const std::string &root);

} // namespace zel::test

#endif
