// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// Building what a spawned child needs: the paths of its program, its arguments for a
// shell and its environment.
#include <components/platform/pair/spawn_plan.h>

#include <components/platform/pair/start.h>
#include <components/platform/process_info.h>
#include <msg/base/errno_kept.h>
#include <msg/base/text.h>

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <sys/mman.h>
#include <unistd.h>

namespace zel::pair {

namespace {

constexpr size_t kStackSize = 65536;
constexpr size_t kAddressSize = 64;
constexpr const char *kShell = "/bin/sh";
constexpr const char *kHybridSuffix = "_HYBRID";
constexpr uint32_t kKnownFlags = PLATFORM_PAIR_SPAWN_NON_BLOCKING | PLATFORM_PAIR_SPAWN_IGNORE_SIGPIPE |
                                 PLATFORM_PAIR_SPAWN_DEFAULT_SIGNALS | PLATFORM_PAIR_SPAWN_CLOSE_OTHERS;

// What the lists and the texts take. 64 bits hold each sum of sizes that are in memory.
struct Needs {
    uint64_t candidates;
    uint64_t shell_arguments;
    uint64_t entries;
    uint64_t text;
};

size_t count(const char *const *list) {
    size_t length = 0;
    while (list != nullptr && list[length] != nullptr) {
        ++length;
    }
    return length;
}

// ---- The paths of the program ---------------------------------------------------------------------------------------

bool is_path(std::string_view file) {
    return file.find('/') != std::string_view::npos;
}

// Without the variable it is the path of execvp.
std::string_view search_path() {
    const char *path = getenv("PATH");
    return path == nullptr ? "/bin:/usr/bin" : path;
}

// Takes the first directory off the path. An empty one is the working directory.
std::string_view take_directory(std::string_view &path, bool &more) {
    const size_t colon = path.find(':');
    const std::string_view directory = first_part(path, colon);
    more = colon != std::string_view::npos;
    path = more ? part_from(path, colon + 1) : "";
    return directory;
}

void count_candidates(std::string_view file, Needs &needs) {
    std::string_view path = is_path(file) ? "" : search_path();
    for (bool more = true; more;) {
        const std::string_view directory = take_directory(path, more);
        needs.candidates += 1;
        needs.text += directory.size() + 1 + file.size() + 1;
    }
}

// ---- The environment ------------------------------------------------------------------------------------------------

std::string_view name_of(std::string_view entry) {
    return first_part(entry, entry.find('='));
}

bool names_pair(std::string_view name, std::string_view env_name) {
    const std::string_view suffix = part_from(name, env_name.size());
    return first_part(name, env_name.size()) == env_name && (suffix.empty() || suffix == kHybridSuffix);
}

bool holds_name(const char *const *entries, std::string_view name) {
    for (; entries != nullptr && *entries != nullptr; ++entries) {
        if (name_of(*entries) == name) {
            return true;
        }
    }
    return false;
}

// ---- Filling the memory ---------------------------------------------------------------------------------------------

// The rest of the memory: lists are taken first, then texts.
struct Room {
    char *next;
};

const char **take_list(Room &room, uint64_t length) {
    auto *list = reinterpret_cast<const char **>(room.next);
    room.next += length * sizeof *list;
    return list;
}

void put(Room &room, std::string_view text) {
    memcpy(room.next, text.data(), text.size());
    room.next += text.size();
}

const char *put_candidate(Room &room, std::string_view directory, std::string_view file) {
    const char *path = room.next;
    put(room, directory);
    put(room, directory.empty() ? "" : "/");
    put(room, file);
    put(room, std::string_view("\0", 1));
    return path;
}

void fill_candidates(Room &room, std::string_view file, const char **list) {
    std::string_view path = is_path(file) ? "" : search_path();
    for (bool more = true; more;) {
        const std::string_view directory = take_directory(path, more);
        *list++ = put_candidate(room, directory, file);
    }
    *list = nullptr;
}

// The shell gets the path of the script and the arguments behind the first one.
void fill_shell_arguments(char *const *argv, const char **list) {
    list[0] = kShell;
    list[1] = nullptr;
    size_t length = 2;
    for (size_t place = 1; argv[0] != nullptr && argv[place] != nullptr; ++place) {
        list[length++] = argv[place];
    }
    list[length] = nullptr;
}

const char *put_pair_entry(Room &room, const char *env_name, int child_end) {
    const char *entry = room.next;
    put(room, env_name);
    put(room, "=");
    format_address({room.next, kAddressSize}, platform_getpid(), child_end);
    return entry;
}

void fill_environment(Room &room, const SpawnRequest &request, int child_end, const char **list) {
    const char *const *further = request.options.environment;
    for (char **entry = environ; entry != nullptr && *entry != nullptr; ++entry) {
        const std::string_view name = name_of(*entry);
        if (!names_pair(name, request.env_name) && !holds_name(further, name)) {
            *list++ = *entry;
        }
    }
    for (; further != nullptr && *further != nullptr; ++further) {
        const std::string_view name = name_of(*further);
        if (!names_pair(name, request.env_name) && !holds_name(further + 1, name)) {
            *list++ = *further;
        }
    }
    *list++ = put_pair_entry(room, request.env_name, child_end);
    *list = nullptr;
}

// ---- The memory -----------------------------------------------------------------------------------------------------

Needs needs_of(const SpawnRequest &request) {
    Needs needs = {.candidates = 1, .shell_arguments = 3, .entries = 2, .text = 0};
    count_candidates(request.file, needs);
    needs.shell_arguments += count(request.argv);
    needs.entries += count(environ) + count(request.options.environment);
    needs.text += strlen(request.env_name) + 1 + kAddressSize;
    return needs;
}

// An overrun of the stack meets the guard page.
bool map_memory(const Needs &needs, SpawnMemory &memory) {
    const auto page = static_cast<size_t>(sysconf(_SC_PAGESIZE));
    const uint64_t lists = (needs.candidates + needs.shell_arguments + needs.entries) * sizeof(char *);
    const uint64_t size = page + kStackSize + lists + needs.text;
    if (size > PTRDIFF_MAX) {
        errno = ENOMEM;
        return false;
    }
    void *start = mmap(nullptr, static_cast<size_t>(size), PROT_READ | PROT_WRITE,
                       MAP_PRIVATE | MAP_ANONYMOUS | MAP_STACK, -1, 0);
    if (start == MAP_FAILED) {
        return false;
    }
    memory = {
        .start = start, .size = static_cast<size_t>(size), .stack_end = static_cast<char *>(start) + page + kStackSize};
    if (mprotect(start, page, PROT_NONE) == -1) {
        release(memory);
        return false;
    }
    return true;
}

} // namespace

// The limit of a name's length is that of execvp: a longer one is not searched for.
int check_request(const SpawnRequest &request) {
    if (request.options.size != sizeof request.options || (request.options.flags & ~kKnownFlags) != 0) {
        return EINVAL;
    }
    const char *const *entry = request.options.environment;
    for (; entry != nullptr && *entry != nullptr; ++entry) {
        if (strchr(*entry, '=') == nullptr) {
            return EINVAL;
        }
    }
    if (*request.file == '\0') {
        return ENOENT;
    }
    return !is_path(request.file) && strlen(request.file) > NAME_MAX ? ENAMETOOLONG : 0;
}

bool build_plan(const SpawnRequest &request, int child_end, SpawnPlan &plan, SpawnMemory &memory) {
    const Needs needs = needs_of(request);
    if (!map_memory(needs, memory)) {
        return false;
    }
    Room room = {.next = memory.stack_end};
    plan.candidates = take_list(room, needs.candidates);
    plan.shell_argv = take_list(room, needs.shell_arguments);
    plan.environment = take_list(room, needs.entries);
    fill_candidates(room, request.file, plan.candidates);
    fill_shell_arguments(request.argv, plan.shell_argv);
    fill_environment(room, request, child_end, plan.environment);
    return true;
}

void release(const SpawnMemory &memory) {
    const ErrnoKept kept;
    if (memory.start != nullptr) {
        munmap(memory.start, memory.size);
    }
}

} // namespace zel::pair
