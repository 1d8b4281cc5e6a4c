// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// A second layout of messages.
#include "msg_reference.h"

namespace zel::test {

void MsgReference::message(int type, int fmt_type, bool primary_only, bool continuation, const std::string &prefix,
                           const std::string &text) {
    if (primary_only && !primary) {
        return;
    }
    type_ = type;
    primary_only_ = primary_only;
    indentation_ = std::string(prefix.size() < 49 ? prefix.size() : 49, ' ');
    lead_ = prefix;
    lead_length_ = static_cast<long>(prefix.size()) + (primary_only ? 0 : static_cast<long>(mp_prefix.size()));
    text_ = text;
    position_ = 0;
    bool first = true;
    do {
        const bool keeps_line = first && continuation;
        if (!keeps_line && column_ != 0) {
            write("\n");
            column_ = 0;
            if (first) {
                pieces.emplace_back(std::nullopt);
            }
        }
        first = false;
        const bool opens = column_ == 0;
        if (opens) {
            open_line();
        }
        if (width == 0 || fmt_type == 0) {
            cut_raw();
        } else {
            cut_wrapped(opens);
        }
    } while (position_ < text_.size());
    if (fmt_type == 2) {
        write("\n");
        column_ = 0;
        pieces.emplace_back(std::nullopt);
    }
    last_ = {type, fmt_type, primary_only, lead_};
}

void MsgReference::cont(const std::string &text) {
    const Last last = last_;
    message(last.type, last.fmt_type, last.primary_only, true, last.prefix, text);
}

void MsgReference::write(const std::string &piece) {
    pieces.emplace_back(piece);
    if (type_ == 1 || type_ == 2) {
        out += piece;
    } else {
        err += piece;
    }
}

void MsgReference::write_up_to(size_t end) {
    write(text_.substr(position_, end - position_));
    column_ += static_cast<long>(end - position_);
    position_ = end;
}

void MsgReference::open_line() {
    if (!primary_only_) {
        write(mp_prefix);
    }
    write(lead_);
    column_ += lead_length_;
    lead_ = indentation_;
}

void MsgReference::cut_raw() {
    const size_t end = line_end();
    if (end == text_.size()) {
        write_up_to(end);
        return;
    }
    write_up_to(end + 1);
    column_ = 0;
}

void MsgReference::cut_wrapped(bool just_opened) {
    long room = width - column_;
    // A line that begins has room for a word, however long its lead text.
    if (just_opened && room < 0) {
        room = 0;
    }
    write_up_to(break_point(room));
    while (position_ < text_.size() && is_blank(position_)) {
        ++position_;
    }
    if (position_ < text_.size() && text_[position_] == '\n') {
        write("\n");
        ++position_;
        column_ = 0;
    }
}

size_t MsgReference::line_end() const {
    size_t place = position_;
    while (place < text_.size() && text_[place] != '\n') {
        ++place;
    }
    return place;
}

size_t MsgReference::break_point(long room) const {
    const size_t end = line_end();
    if (static_cast<long>(end - position_) <= room) {
        return end;
    }
    size_t blanks = 0;
    while (position_ + blanks < text_.size() && is_blank(position_ + blanks)) {
        ++blanks;
    }
    if (position_ + blanks == text_.size()) {
        return position_;
    }
    if (static_cast<long>(blanks) > room) {
        return position_;
    }
    return break_point_behind_blanks(room, blanks);
}

size_t MsgReference::break_point_behind_blanks(long room, size_t blanks) const {
    for (long back = room; back >= static_cast<long>(blanks); --back) {
        if (is_blank(position_ + static_cast<size_t>(back))) {
            return position_ + static_cast<size_t>(back);
        }
    }
    if (blanks != 0) {
        return position_;
    }
    size_t word_end = position_;
    while (word_end < text_.size() && !is_blank(word_end) && word_end < line_end()) {
        ++word_end;
    }
    return word_end;
}

bool MsgReference::is_blank(size_t place) const {
    return text_[place] == ' ' || text_[place] == '\t';
}

} // namespace zel::test
