// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// The sizes that a build with small constants shrinks: its tests see tables grow, and
// texts formatted more than once.
#ifndef ZEL_MSG_BASE_LIMITS_H
#define ZEL_MSG_BASE_LIMITS_H

#include <cstddef>
#include <cstdint>

namespace zel {

#ifdef ZEL_SMALL_CONSTANTS
inline constexpr bool kSmall = true;
#else
inline constexpr bool kSmall = false;
#endif

// First size of the text of a message, and the size of the fixed area for it.
inline constexpr size_t kFirstTextSize = kSmall ? 8 : 10000;

// Characters of a message that are gathered before its stream gets them.
inline constexpr size_t kGatheredSize = kSmall ? 8 : 1024;

// Bytes that a log of limited size collects of a line. The C library collects nothing in
// a buffer of less than 128.
inline constexpr size_t kLogBufferSize = kSmall ? 128 : 8192;

// Bytes of a line that reach a function or the system log at once.
inline constexpr size_t kSinkLineSize = kSmall ? 512 : 16384;

// Slots by which a stream list grows.
inline constexpr int32_t kStreamListStep = kSmall ? 1 : 5;

// First size of a text that the memory library formats.
inline constexpr size_t kFirstFormattedSize = kSmall ? 1 : 16;

// Records by which the table of the debug heap grows.
inline constexpr uint32_t kRecordTableStep = kSmall ? 1 : 1024;

// Owners for which a table of owners has room at first; a power of 2.
inline constexpr uint32_t kFirstOwners = kSmall ? 1 : 64;

// Bytes taken from a socket in one receive of the message loop.
inline constexpr size_t kReceiveSize = kSmall ? 3 : 8192;

// Entries of a line table that needs no memory: the starts of the lines, and a null at
// the end.
inline constexpr int32_t kLineTableSize = kSmall ? 1 : 64;

// Bytes of the area in which the lines of an outgoing message are framed. A longer line
// is framed in storage of its own.
inline constexpr size_t kFramingSize = kSmall ? 8 : 8192;

// Bytes that the kernel copies from file to file in one call.
inline constexpr size_t kCopyPart = kSmall ? 4096 : size_t{8} << 20;

// Bytes of a file that are copied through the process at a time.
inline constexpr size_t kCopyBufferSize = kSmall ? 512 : 65536;

// Directories that the removal of a tree holds open at a time: the innermost ones. It
// opens an outer one again on its way back.
inline constexpr size_t kHeldLevels = kSmall ? 2 : 32;

// Killed companions that are remembered until their handle is closed. Each handle holds a
// descriptor, and the customary limit of descriptors is 1024.
inline constexpr size_t kKnownEnds = kSmall ? 2 : 1024;

// Handles whose companions can leave the error with which they could not be executed.
inline constexpr size_t kExecReports = kSmall ? 2 : 1024;

// Receive buffers whose bytes are known to be of one descriptor. A program that has a
// buffer for each of its connections has as many as descriptors.
inline constexpr size_t kKnownBuffers = kSmall ? 4 : 1024;

// Lines of a message that leave in one system call. Each is two pieces, its text and its
// end, and the system takes 1024.
inline constexpr int32_t kLinesAtOnce = kSmall ? 2 : 512;

} // namespace zel

#endif
