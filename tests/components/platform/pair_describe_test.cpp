// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// A handle as one line of text.
#include "pair_support.h"

#include <array>

using namespace zel::test;

namespace {

constexpr size_t kDescriptionSize = 2048;

std::string description_of(PairHandle ph) {
    ph.self = &ph;
    std::array<char, kDescriptionSize> buffer;
    EXPECT_EQ(platform_pair_describe(&ph, buffer.data()), buffer.data());
    return buffer.data();
}

std::string corrupt_description(const void *handle, const void *self) {
    std::array<char, 128> text;
    snprintf(text.data(), text.size(), "handle corrupt 0x%08lx != 0x%08lx; ", reinterpret_cast<unsigned long>(handle),
             reinterpret_cast<unsigned long>(self));
    return text.data();
}

} // namespace

TEST(PairDescribe, AParentsHandle) {
    EXPECT_EQ(description_of(sample_record(1)),
              "handle intact; parent side; companion pid 4711; reads block; read FD 15; write FD 16; child status 256; "
              "term signal 9; errno 2; zel: None");
}

TEST(PairDescribe, ACompanionsHandleHasNoChildStatus) {
    EXPECT_EQ(description_of(sample_record(0)),
              "handle intact; child side; companion pid 4711; reads block; read FD 15; write FD 16; term signal 9; "
              "errno 2; zel: None");
}

TEST(PairDescribe, ReadsThatDoNotBlock) {
    PairHandle ph = sample_record(0);
    ph.blocking = 0;
    EXPECT_NE(description_of(ph).find("; reads non-blocking; "), std::string::npos);
    ph.blocking = -3;
    EXPECT_NE(description_of(ph).find("; reads block; "), std::string::npos);
}

TEST(PairDescribe, NegativeNumbersAreShownAsSuch) {
    PairHandle ph = sample_record(1);
    ph.companion_pid = INT32_MIN;
    ph.rx_fd = ph.tx_fd = ph.error_number = -1;
    EXPECT_EQ(description_of(ph),
              "handle intact; parent side; companion pid -2147483648; reads block; read FD -1; write FD -1; "
              "child status 256; term signal 9; errno -1; zel: None");
}

TEST(PairDescribe, AnErrorTextReplacesEverythingElse) {
    PairHandle ph = sample_record(1);
    ph.error_text = "fork failed";
    EXPECT_EQ(description_of(ph), "zel: fork failed");
    ph.parent = 0;
    ph.error_text = "";
    EXPECT_EQ(description_of(ph), "zel: ");
}

TEST(PairDescribe, AnErrorTextIsNoFormat) {
    PairHandle ph = sample_record(1);
    ph.error_text = "100%d of %s";
    EXPECT_EQ(description_of(ph), "zel: 100%d of %s");
}

TEST(PairDescribe, ADamagedHandleShowsBothAddresses) {
    PairHandle ph = sample_record(1);
    ph.error_text = "fork failed";
    for (PairHandle *self : {static_cast<PairHandle *>(nullptr), &ph + 1}) {
        ph.self = self;
        std::array<char, kDescriptionSize> buffer;
        EXPECT_EQ(platform_pair_describe(&ph, buffer.data()), corrupt_description(&ph, self));
    }
}

TEST(PairDescribe, ANullHandleIsACorruptOneWithoutAddresses) {
    EXPECT_STREQ(platform_pair_describe(nullptr, nullptr), "handle corrupt 0x00000000 != 0x00000000; ");
    std::array<char, kDescriptionSize> buffer;
    EXPECT_STREQ(platform_pair_describe(nullptr, buffer.data()), "handle corrupt 0x00000000 != 0x00000000; ");
}

TEST(PairDescribe, WithoutABufferTheOneOfTheLibraryIsOverwritten) {
    PairHandle ph = sample_record(1);
    ph.self = &ph;
    const char *first = platform_pair_describe(&ph, nullptr);
    ASSERT_NE(first, nullptr);
    EXPECT_EQ(std::string(first), description_of(ph));
    ph.error_text = "fork failed";
    EXPECT_EQ(platform_pair_describe(&ph, nullptr), first);
    EXPECT_STREQ(first, "zel: fork failed");
}

TEST(PairDescribe, ABufferOfTheCallersLeavesTheOneOfTheLibraryAlone) {
    const char *own = platform_pair_describe(nullptr, nullptr);
    const std::string before = own;
    EXPECT_EQ(description_of(sample_record(1)).substr(0, 13), "handle intact");
    EXPECT_EQ(std::string(own), before);
}

TEST(PairDescribe, ALongTextIsCutToTheBuffer) {
    const std::string text(3000, 'x');
    PairHandle ph = sample_record(1);
    ph.error_text = text.c_str();
    ph.self = &ph;
    std::array<char, kDescriptionSize + 1> buffer;
    buffer.back() = '!';
    platform_pair_describe(&ph, buffer.data());
    EXPECT_EQ(std::string(buffer.data()), "zel: " + std::string(kDescriptionSize - 6, 'x'));
    EXPECT_EQ(buffer.back(), '!');
    EXPECT_EQ(std::string(platform_pair_describe(&ph, nullptr)).size(), kDescriptionSize - 1);
}

TEST(PairDescribe, OpenHandlesOfBothOutcomes) {
    PairHandle *ph = start();
    const std::string fd = std::to_string(ph->rx_fd);
    EXPECT_EQ(std::string(platform_pair_describe(ph, nullptr)),
              "handle intact; parent side; companion pid " + std::to_string(ph->companion_pid) +
                  "; reads block; read FD " + fd + "; write FD " + fd +
                  "; child status 256; term signal 0; errno 0; zel: None");
    EXPECT_EQ(finish(ph), kServed);
    ph = start_without_sockets();
    EXPECT_STREQ(platform_pair_describe(ph, nullptr), "zel: socketpair create failed");
    platform_pair_close(ph);
}
