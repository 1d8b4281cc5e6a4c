// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// A JSON text.
#include <malloc/internal/json_text.h>

#include <msg/base/text.h>

#include <array>

namespace zel::memory {

namespace {

// The first bytes of characters, and which second bytes they may have. All further bytes
// are from 80 to BF.
struct Form {
    unsigned char first_low;
    unsigned char first_high;
    unsigned char second_low;
    unsigned char second_high;
    unsigned char length;
};

// Without the long forms of short characters, the surrogates, and what is above 10FFFF.
constexpr std::array<Form, 8> kForms = {{{0xC2, 0xDF, 0x80, 0xBF, 2},
                                         {0xE0, 0xE0, 0xA0, 0xBF, 3},
                                         {0xE1, 0xEC, 0x80, 0xBF, 3},
                                         {0xED, 0xED, 0x80, 0x9F, 3},
                                         {0xEE, 0xEF, 0x80, 0xBF, 3},
                                         {0xF0, 0xF0, 0x90, 0xBF, 4},
                                         {0xF1, 0xF3, 0x80, 0xBF, 4},
                                         {0xF4, 0xF4, 0x80, 0x8F, 4}}};

unsigned char byte_at(const char *text, size_t place) {
    return static_cast<unsigned char>(text[place]);
}

bool is_between(unsigned char byte, unsigned char low, unsigned char high) {
    return byte >= low && byte <= high;
}

// Whether a character of that form begins at the text. A NUL ends it early: no byte
// behind the NUL is read.
bool has_form(const char *text, const Form &form) {
    if (!is_between(byte_at(text, 0), form.first_low, form.first_high) ||
        !is_between(byte_at(text, 1), form.second_low, form.second_high)) {
        return false;
    }
    for (size_t place = 2; place < form.length; ++place) {
        if (!is_between(byte_at(text, place), 0x80, 0xBF)) {
            return false;
        }
    }
    return true;
}

// The length of the character of several bytes at the text; 0 when it is not valid.
size_t long_character(const char *text) {
    for (const Form &form : kForms) {
        if (has_form(text, form)) {
            return form.length;
        }
    }
    return 0;
}

// Puts a character of one byte: a string holds no quote, backslash or control as it is.
void put_ascii(JsonText &json, char character) {
    if (character == '"' || character == '\\') {
        put(json, "\\");
    } else if (static_cast<unsigned char>(character) < ' ') {
        std::array<char, 8> escape;
        format_text(escape, "\\u%04x", static_cast<unsigned>(character));
        put(json, escape.data());
        return;
    }
    put(json, {&character, 1});
}

// Puts the character at the text. Returns how many bytes it has there.
size_t put_character(JsonText &json, const char *text) {
    if (byte_at(text, 0) < 0x80) {
        put_ascii(json, *text);
        return 1;
    }
    const size_t length = long_character(text);
    if (length == 0) {
        put(json, "\\ufffd");
        return 1;
    }
    put(json, {text, length});
    return length;
}

} // namespace

void put(JsonText &json, std::string_view text) {
    if (json.length < json.storage.size()) {
        copy_part(json.storage.subspan(json.length), text);
    }
    json.length += text.size();
}

void put_number(JsonText &json, long long number) {
    std::array<char, 24> digits;
    format_text(digits, "%lld", number);
    put(json, digits.data());
}

void put_string(JsonText &json, const char *text) {
    if (text == nullptr) {
        put(json, "null");
        return;
    }
    put(json, "\"");
    while (*text != '\0') {
        text += put_character(json, text);
    }
    put(json, "\"");
}

} // namespace zel::memory
