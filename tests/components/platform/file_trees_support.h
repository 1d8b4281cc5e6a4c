// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// What the tests of trees share.
#ifndef ZEL_TESTS_COMPONENTS_PLATFORM_FILE_TREES_SUPPORT_H
#define ZEL_TESTS_COMPONENTS_PLATFORM_FILE_TREES_SUPPORT_H

#include "file_support.h"

#include <support/interpose.h>

#include <map>
#include <string>

namespace zel::test {

// Tests that make trees in a folder of their own. Names are those in the folder. A removal outside the folder ends the
// program before it happens, also in a child, and also under a replacement that calls the real function: a walk that is
// broken may be on its way to anywhere.
struct Trees : Files {
    Trees();
    ~Trees() override;
    Trees(const Trees &) = delete;
    Trees &operator=(const Trees &) = delete;
    void make_folder(const std::string &name) const;
    void make_file(const std::string &name, const std::string &text = "text") const;
    void make_link(const std::string &target, const std::string &name) const;
    // A tree with every kind of entry under every name that a careless program trips over.
    void make_tree(const std::string &name) const;
    // Folders "d" in one another below a folder. In the upper five the files "a" and "later" stand beside the next.
    void make_chain(const std::string &name, int levels) const;
    // A link that points nowhere exists too.
    bool exists(const std::string &name) const;

private:
    const Interposed<int(int, const char *, int)> guard_;
};

// The contents of a tree: each entry's name, and its text, its target or its kind.
std::map<std::string, std::string> contents_of(const std::string &root);

} // namespace zel::test

#endif
