// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// A second layout of messages, character by character as the rules read, without regard
// to speed. Generated messages are compared with the output of the library.
#ifndef ZEL_TESTS_MSG_MSG_REFERENCE_H
#define ZEL_TESTS_MSG_MSG_REFERENCE_H

#include <optional>
#include <string>
#include <vector>

namespace zel::test {

class MsgReference {
public:
    // The settings, as the setters of the library change them.
    long width = 78;
    std::string mp_prefix;
    bool primary = true;

    // One message as the core writer has it. Types 1 and 2 go to standard output, 4 and 8
    // to standard error.
    void message(int type, int fmt_type, bool primary_only, bool continuation, const std::string &prefix,
                 const std::string &text);

    // A continuation of the last message.
    void cont(const std::string &text);

    // The contents of standard output and standard error so far.
    std::string out;
    std::string err;

    // The pieces of the messages so far, in order. No text: a flush.
    std::vector<std::optional<std::string>> pieces;

private:
    struct Last {
        int type = 0;
        int fmt_type = 0;
        bool primary_only = false;
        std::string prefix;
    };

    void write(const std::string &piece);
    void write_up_to(size_t end);
    void open_line();
    void cut_raw();
    void cut_wrapped(bool just_opened);
    size_t line_end() const;
    size_t break_point(long room) const;
    size_t break_point_behind_blanks(long room, size_t blanks) const;
    bool is_blank(size_t place) const;

    long column_ = 0;
    Last last_;

    // The message at hand.
    int type_ = 0;
    bool primary_only_ = false;
    std::string indentation_;
    std::string lead_;
    long lead_length_ = 0;
    std::string text_;
    size_t position_ = 0;
};

} // namespace zel::test

#endif
