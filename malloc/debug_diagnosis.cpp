// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// The texts of the findings: the diagnosis of a pointer, and the context of a call. Every
// sentence is promised to the letter, the two blanks after a full stop as well.
#include <malloc/internal/debug_diagnosis.h>

#include <malloc/internal/debug_block.h>
#include <malloc/internal/debug_records.h>
#include <malloc/internal/pointer.h>
#include <msg/base/text.h>

#include <array>

namespace zel::memory {

namespace {

// DELIBERATE: a diagnosis is cut at 416 characters with its NUL. Test:
// DebugHeapDiagnosis.ALongPurposeIsCutAtTheEndOfTheBuffer.
constexpr size_t kDiagnosisSize = 416;
constexpr size_t kContextSize = 1024;

// The last text of each kind. A message is written before the next text is composed.
struct Texts {
    std::array<char, kDiagnosisSize> diagnosis;
    std::array<char, kContextSize> context;
};

constinit Texts texts = {};

// The free part of a text's buffer.
struct Sentences {
    std::span<char> rest;
};

// Appends to a text, and cuts it at the end of its buffer.
__attribute__((format(printf, 2, 3))) void append(Sentences &text, const char *format, ...) {
    va_list args;
    va_start(args, format);
    vformat_text(text.rest, format, args);
    va_end(args);
    text.rest = text.rest.subspan(strlen(text.rest.data()));
}

// The findings on a pointer, from which its sentences are composed.
struct Findings {
    Header header; // zero when it cannot be read
    bool header_readable;
    const Record *indexed; // the record of the header's index, or null
    const Record *owner;   // the record of the allocation, or null
    bool indexed_is_owner; // the indexed record is that of this pointer
    bool trailer_intact;   // of the owner's block; true without an owner or a live magic
};

// The record that the header names, or null.
const Record *indexed_record(const Findings &findings) {
    const int32_t index = findings.header.index;
    return findings.header_readable && has_record(index) ? &debug_heap.records[index] : nullptr;
}

// Looks at the header, its record and the trailer. Memory that cannot be read is not
// touched.
Findings look_at(const void *pointer, const Record *known) {
    const Reach reach = heap_reach();
    Findings findings = {};
    findings.header_readable = has_readable_header(pointer, reach);
    findings.header = findings.header_readable ? header_of(pointer) : Header{};
    findings.indexed = indexed_record(findings);
    findings.indexed_is_owner = findings.indexed != nullptr && findings.indexed->pointer == pointer &&
                                (known == nullptr || known == findings.indexed);
    findings.owner = findings.indexed_is_owner ? findings.indexed : known;
    findings.trailer_intact = findings.header.magic != kLiveMagic || findings.owner == nullptr ||
                              has_intact_trailer(findings.owner->pointer, findings.owner->length, reach);
    return findings;
}

// The verdict on a pointer. The first of these faults decides: the magic of a release,
// any other wrong magic, a wrong trailer, an index without a record, a record of another
// pointer or not in use.
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

// DELIBERATE: no blanks follow a purpose without a function. Test:
// DebugHeapDiagnosis.APurposeAloneIsNotFollowedByBlanks.
void append_place(Sentences &text, const Caller &caller) {
    const char *purpose = caller.purpose_or_file;
    const char *function = function_of(caller);
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

// Who allocated the storage, and how much.
void append_owner(Sentences &text, const Record &owner, bool released) {
    append(text, "%s", released ? "  Before being free'd, the " : "  The ");
    append(text, "pointer was allocated by %s with a length of %ld.  ", caller_of(owner).name,
           static_cast<long>(owner.length));
    append_place(text, caller_of(owner));
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
    const char *function = function_of(caller);
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
