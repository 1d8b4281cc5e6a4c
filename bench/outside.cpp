// Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
// Running contenders that are programs of their own.
#include "outside.h"

#include <array>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string_view>
#include <unistd.h>
#include <vector>

namespace bench {

namespace {

struct Peer {
    const char *name;
    const char *program;
    const char *before; // the command line in front of the program
    const char *works;  // with blanks around each
};

constexpr Peer kPeers[] = {
    {"spdlog", "zel_peer_spdlog", "", " line "},
    {"glog", "zel_peer_glog", "", " line "},
    {"GLib", "zel_peer_glib", "", " line value message-pair message-tcp start copy stamp glob "},
    {"libevent", "zel_peer_libevent", "", " message-pair message-tcp "},
    {"libuv", "zel_peer_libuv", "", " value start copy stamp "},
    {"ZeroMQ", "zel_peer_zeromq", "", " value message-pair message-tcp "},
    {"APR", "zel_peer_apr", "", " start copy stamp glob "},
    {"fold -s", "zel_peer_coreutils", "", " fold "},
    {"fmt", "zel_peer_coreutils", "", " fmt "},
    {"rm -rf", "zel_peer_coreutils", "", " rm "},
    {"cp", "zel_peer_coreutils", "", " cp "},
    {"nftw", "zel_peer_nftw", "", " nftw "},
    {"talloc", "zel_peer_talloc", "", " off "},
    {"mcheck", "zel_peer_mcheck", "LD_PRELOAD=libc_malloc_debug.so.0 ", " on check "},
    {"dmalloc", "zel_peer_dmalloc", "DMALLOC_OPTIONS=debug=0x400 ", " on "},
    {"dmalloc", "zel_peer_dmalloc", "DMALLOC_OPTIONS=debug=0x400 ", " check "},
    {"AddressSanitizer", "zel_peer_asan", "ASAN_OPTIONS=detect_leaks=0 ", " on "},
};

bool peers_are_used = false;

// A folder of this process alone: a child that ends by exit leaves it.
struct Scratch {
    Scratch() : path(beside("scratch-XXXXXX")), owner(getpid()) {
        if (mkdtemp(path.data()) == nullptr) {
            std::perror(path.c_str());
            std::_Exit(1);
        }
    }
    Scratch(const Scratch &) = delete;
    Scratch &operator=(const Scratch &) = delete;
    ~Scratch() {
        std::error_code ignored;
        if (getpid() == owner) {
            std::filesystem::remove_all(path, ignored);
        }
    }
    std::string path;
    pid_t owner;
};

std::string with_number(std::string line, int64_t iterations) {
    const size_t place = line.find("%n");
    return place == std::string::npos ? line : line.replace(place, 2, std::to_string(iterations));
}

// False when the command does not run so.
bool run(const std::string &line, std::array<double, 2> &seconds) {
    FILE *output = popen(line.c_str(), "r");
    if (output == nullptr) {
        return false;
    }
    const bool read = std::fscanf(output, "%lf %lf", &seconds[0], &seconds[1]) == 2;
    return pclose(output) == 0 && read && seconds[0] > 0;
}

// Marks the samples, so that a report can tell them from what was written by hand.
Body as_peer(Body body) {
    return [inner = std::move(body)](benchmark::State &state) {
        inner(state);
        state.counters["peer"] = 1;
    };
}

bool does(const Peer &peer, std::string_view work) {
    const std::string word = " " + std::string(work.substr(0, work.find(' '))) + " ";
    return std::string_view(peer.works).find(word) != std::string_view::npos;
}

} // namespace

std::string beside(const std::string &program) {
    return std::filesystem::read_symlink("/proc/self/exe").replace_filename(program).string();
}

const std::string &scratch() {
    static const Scratch folder;
    return folder.path;
}

Body command(const std::string &line, Clock clock) {
    return [line, clock](benchmark::State &state) {
        while (state.KeepRunningBatch(state.max_iterations)) {
            std::array<double, 2> seconds = {};
            const std::string whole = with_number(line, state.max_iterations);
            if (!run(whole, seconds)) {
                state.SkipWithError(("this did not run: " + whole).c_str());
                return;
            }
            state.counters["seconds"] = seconds[clock == Clock::own ? 0 : 1];
        }
    };
}

void use_peers() {
    peers_are_used = true;
    for (const Peer &peer : kPeers) {
        if (!std::filesystem::exists(beside(peer.program))) {
            std::fprintf(stderr, "zel_bench: %s is left out at%s: its package is not there for this target\n",
                         peer.name, peer.works);
        }
    }
}

std::vector<Way> with_peers(const std::string &work, Clock clock, std::vector<Way> ways) {
    for (const Peer &peer : kPeers) {
        const std::string program = beside(peer.program);
        if (peers_are_used && does(peer, work) && std::filesystem::exists(program)) {
            std::string line = peer.before;
            line.append("'").append(program).append("' %n ").append(work);
            ways.push_back({peer.name, as_peer(command(line, clock))});
        }
    }
    return ways;
}

} // namespace bench
