// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// A handle as one line of text.
#include <components/platform/zel_pair_connection.h>

#include <msg/base/text.h>

#include <array>

namespace {

constexpr size_t kDescriptionSize = 2048;
using Description = std::span<char, kDescriptionSize>;

constinit std::array<char, kDescriptionSize> description = {}; // overwritten by every call without a buffer

unsigned long address_of(const PairHandle *ph) {
    return reinterpret_cast<unsigned long>(ph);
}

void describe_corrupt(Description text, const PairHandle *ph) {
    const PairHandle *self = ph == nullptr ? nullptr : ph->self;
    zel::format_text(text, "handle corrupt 0x%08lx != 0x%08lx; ", address_of(ph), address_of(self));
}

void describe_intact(Description text, const PairHandle *ph) {
    std::array<char, 32> status = {};
    if (ph->parent != 0) {
        zel::format_text(status, "child status %d; ", ph->child_exit_status);
    }
    zel::format_text(text,
                     "handle intact; %s side; companion pid %ld; reads %s; read FD %d; write FD %d; %sterm signal %d; "
                     "errno %d; zel: None",
                     ph->parent != 0 ? "parent" : "child", static_cast<long>(ph->companion_pid),
                     ph->blocking != 0 ? "block" : "non-blocking", ph->rx_fd, ph->tx_fd, status.data(),
                     ph->child_term_signal, ph->error_number);
}

} // namespace

// DELIBERATE: an error text replaces the whole description. Test:
// PairDescribe.AnErrorTextReplacesEverythingElse.
char *platform_pair_describe(const PairHandle *ph, char *buffer) {
    const Description text(buffer == nullptr ? description.data() : buffer, kDescriptionSize);
    if (platform_pair_valid(ph) == 0) {
        describe_corrupt(text, ph);
    } else if (ph->error_text != nullptr) {
        zel::format_text(text, "zel: %s", ph->error_text);
    } else {
        describe_intact(text, ph);
    }
    return text.data();
}
