// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// Random names.
#include <components/platform/file_services/unique_name.h>

#include <string_view>
#include <sys/random.h>

namespace zel {

namespace {

constexpr std::string_view kCharacters = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789";

} // namespace

// The name need not be a secret: it is taken with O_EXCL, or by mkdir. The first letters
// come up a little more often than the digits, which does no harm. The kernel delivers up
// to 256 bytes whole.
bool fill_randomly(std::span<char> text) {
    if (getrandom(text.data(), text.size(), GRND_NONBLOCK) == -1) {
        return false;
    }
    for (char &character : text) {
        character = kCharacters[static_cast<unsigned char>(character) % kCharacters.size()];
    }
    return true;
}

} // namespace zel
