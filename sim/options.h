// Command line of qord-sim.
#pragma once

#include <map>
#include <set>
#include <string>

namespace qord_sim {

struct Options {
    std::string listenHost = "127.0.0.1";
    std::string listenPort = "7000";
    std::string rebootHost;  // where the board comes back; empty: where it was
    std::string rebootPort;
    std::string statePath;
    std::string imageOut;  // every received image is written here
    int rebootDelayMs = 1000;
    int rebootGraceMs = 300;
    int bootTimeMs = 0;
    int workers = 4;
    bool nodelay = false;
    bool splitFrames = false;
    int handshakeVersion = 1;

    // Misbehaviour, for tests.
    std::set<std::string> refused;                // commands answered as unknown
    std::map<std::string, std::string> failures;  // command -> exception text
    std::set<std::string> dropped;                // commands whose connection breaks
    std::set<std::string> stalled;                // commands never answered
    unsigned long refuseChunk = 0;                // 1-based; 0: never
    bool dropAfterLastChunk = false;
    bool neverReturn = false;
    bool noVersion = false;
    bool onlyWaitBootEnd = false;
};

// Returns -1 to run, else an exit status (help: 0, bad usage: 2). Prints its
// own messages.
int parse_options(int argc, char** argv, Options& options);

// Expands a short command name ("psi.get") to the full one.
std::string full_command_name(const std::string& name);

}  // namespace qord_sim
