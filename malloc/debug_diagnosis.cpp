// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// What the debug heap says of a pointer, and of what it was doing.
#include <malloc/internal/debug_diagnosis.h>

#include <malloc/internal/debug_block.h>
#include <malloc/internal/pointer.h>
#include <msg/base/text.h>

#include <array>

namespace zel::memory {

namespace {

constexpr size_t kDiagnosisSize = 416;
constexpr size_t kContextSize = 1024;

// Both texts are overwritten by the next of their kind: a message is written before another is composed.
struct Texts {
    std::array<char, kDiagnosisSize> diagnosis;
    std::array<char, kContextSize> context;
};

constinit Texts texts = {};

// A text that is appended to, cut at the end of its buffer.
struct Sentences {
    std::span<char> rest;
};

__attribute__((format(printf, 2, 3))) void append(Sentences &text, const char *format, ...) {
    va_list args;
    va_start(args, format);
    vformat_text(text.rest, format, args);
    va_end(args);
    text.rest = text.rest.subspan(strlen(text.rest.data()));
}

// What is known of a pointer when its sentences are composed.
struct Findings {
    Header header;
    bool header_readable;
    const Record *indexed; // the record that the header names, or null
    const Record *owner;   // the record that the pointer belongs to, or null
    bool indexed_is_owner; // the header names the pointer's own record
    bool trailer_intact;   // of the owner; true when it does not count, or there is none
};

Findings look_at(const void *pointer, const Record *known) {
    const Reach reach = heap_reach();
    Findings findings = {};
    findings.header_readable = read_header(pointer, reach, &findings.header);
    findings.indexed = findings.header_readable ? record_at(findings.header.index) : nullptr;
    findings.indexed_is_owner = findings.indexed != nullptr && findings.indexed->pointer == pointer &&
                                (known == nullptr || known == findings.indexed);
    findings.owner = findings.indexed_is_owner ? findings.indexed : known;
    findings.trailer_intact = findings.header.magic != kLiveMagic || findings.owner == nullptr ||
                              has_intact_trailer(findings.owner->pointer, findings.owner->length, reach);
    return findings;
}

void append_verdict(Sentences &text, const Findings &findings, bool in_release) {
    if (findings.header.magic == kReleasedMagic) {
        append(text, in_release ? "was referenced after it was free'd." : "referenced free'd data.");
        return;
    }
    const bool live = findings.header.magic == kLiveMagic;
    if (live && findings.trailer_intact && findings.indexed != nullptr) {
        const bool valid = findings.indexed_is_owner && is_in_use(*findings.indexed);
        append(text, valid ? "referenced valid data." : "had invalid debugging information (possible internal error).");
        return;
    }
    append(text, "referenced data that was corrupted %s.", findings.trailer_intact ? "at the beginning" : "at the end");
}

// DELIBERATE: a purpose without a function is not followed by the two blanks of the other forms: the sentence is the
// last one, and logs are compared by it. Held by the test DebugHeapDiagnosis.APurposeAloneIsNotFollowedByBlanks.
void append_place(Sentences &text, const Caller &caller) {
    const char *function = caller.place.function;
    const char *purpose = caller.purpose_or_file;
    if (caller.method == Method::file_line) {
        append(text, "The storage was allocated in %s, line %d.  ", purpose, caller.place.line);
    } else if (function != nullptr && purpose != nullptr) {
        append(text, "The storage was allocated in the function %s for %s.  ", function, purpose);
    } else if (function != nullptr) {
        append(text, "The storage was allocated in the function %s.  ", function);
    } else if (purpose != nullptr) {
        append(text, "The storage was allocated for %s.", purpose);
    }
}

void append_owner(Sentences &text, const Record &owner, bool released) {
    append(text, "%s", released ? "  Before being free'd, the " : "  The ");
    append(text, "pointer was allocated by %s with a length of %ld.  ", owner.caller.name,
           static_cast<long>(owner.length));
    append_place(text, owner.caller);
}

} // namespace

const char *diagnose(const void *pointer, const Record *known, bool in_release) {
    Sentences text = {.rest = texts.diagnosis};
    append(text, "The pointer 0x%0*lX ", kPointerDigits, reinterpret_cast<unsigned long>(pointer));
    if (!is_aligned(pointer)) {
        append(text, "was not valid on this platform (should be a multiple of %d).  ",
               static_cast<int>(kPointerAlignment));
        return texts.diagnosis.data();
    }
    const Findings findings = look_at(pointer, known);
    append_verdict(text, findings, in_release);
    if (findings.owner != nullptr) {
        append_owner(text, *findings.owner, findings.header.magic == kReleasedMagic);
    }
    return texts.diagnosis.data();
}

const char *context_text(const Caller &caller) {
    const std::span<char> text = texts.context;
    const char *function = caller.place.function;
    const char *purpose = caller.purpose_or_file;
    text.front() = '\0';
    if (caller.method == Method::file_line) {
        format_text(text, "(Currently inside of %s at %s line %d)", caller.name, purpose, caller.place.line);
    } else if (function != nullptr && purpose != nullptr) {
        format_text(text, "(Currently inside of %s, allocating storage for %s)", function, purpose);
    } else if (function != nullptr) {
        format_text(text, "(Currently inside of %s)", function);
    } else if (purpose != nullptr) {
        format_text(text, "(Currently allocating storage for %s)", purpose);
    }
    return texts.context.data();
}

} // namespace zel::memory
