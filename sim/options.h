// SPDX-License-Identifier: Apache-2.0
// Command line of qord-sim.
#pragma once

#include <map>
#include <set>
#include <string>

namespace qord_sim {

struct Options {
    std::string listen_host = "127.0.0.1";
    std::string listen_port = "7000";
    std::string reboot_host;  // where the board comes back; empty: where it was
    std::string reboot_port;
    std::string state_path;
    std::string image_out;  // every received image is written here
    int reboot_delay_ms = 1000;
    int reboot_grace_ms = 300;
    int boot_time_ms = 0;
    int workers = 4;
    bool nodelay = false;
    bool split_frames = false;
    int handshake_version = 1;

    // Misbehaviour, for tests.
    std::set<std::string> refused;                // commands answered as unknown
    std::map<std::string, std::string> failures;  // command -> exception text
    std::set<std::string> dropped;                // commands whose connection breaks
    std::set<std::string> stalled;                // commands never answered
    unsigned long refuse_chunk = 0;               // 1-based; 0: never
    bool drop_after_last_chunk = false;
    bool never_return = false;
    bool no_version = false;
    bool only_wait_boot_end = false;
};

// Returns -1 to run, else an exit status (help: 0, bad usage: 2). Prints its
// own messages.
int parse_options(int argc, char** argv, Options& options);

// Expands a short command name ("psi.get") to the full one.
std::string full_command_name(const std::string& name);

}  // namespace qord_sim
