// SPDX-License-Identifier: Apache-2.0
#include "options.h"
#include "qor/protobuf/catalogue.h"

#include <cstdlib>
#include <iostream>

namespace qord_sim {

namespace {

const char* const kHelp = R"(Usage: qord-sim [options]

A simulated board for qorc: serves every qord command on a TCP address,
keeps the board's state in an optional JSON file, and reboots like a board.

Options:
  --listen HOST:PORT        Address to serve on (default 127.0.0.1:7000).
                            Port 0 picks a free port. The first line printed
                            is "qord-sim listening on HOST:PORT".
  --state FILE              Board state (devices, PSI, passcodes, firmware).
                            Every accepted change is written back atomically.
  --reboot-delay-ms N       How long a reboot keeps the board away (1000).
  --reboot-grace-ms N       Pause between the answer that starts a reboot
                            and the drop of every connection (300).
  --reboot-listen HOST[:PORT]
                            Come back at another address after a reboot
                            (by default on the same port as before).
  --boot-time-ms N          After coming back (or at start, when the state
                            says "boot_done": false), report the boot as
                            unfinished for N ms (0).
  --image-out FILE          Write every received upgrade image to FILE.
  --workers N               Engine worker threads (4).
  --nodelay                 Set TCP_NODELAY on client sockets (a board does not).
  --split-frames            Write every piece of a frame (count, each length,
                            each data block) with a write of its own, as some
                            boards do. The bytes on the wire are the same.
  -h, --help                This help.
  --version                 Print the version and exit.

Misbehaviour, for tests (may be repeated; NAME is a command name such as
"psi.get" or "com.korvane.command.device.psi.get"):
  --refuse NAME             Answer NAME as an unknown command.
  --fail NAME=TEXT          Answer NAME with an exception carrying TEXT.
  --drop NAME               Break the connection in the middle of NAME.
  --stall NAME              Never answer NAME.
  --handshake-version N     Answer the handshake with version N.
  --refuse-chunk N          Refuse the upgrade image at its N-th chunk.
  --drop-after-last-chunk   Break the connection right after the last chunk.
  --never-return            Do not come back after a reboot.
  --no-version              Offer no version service.
  --only-wait-boot-end      Offer only the blocking boot-end command.
)";

const std::set<std::string> kValueOptions = {"--listen",
                                             "--reboot-listen",
                                             "--state",
                                             "--image-out",
                                             "--refuse",
                                             "--drop",
                                             "--stall",
                                             "--fail",
                                             "--reboot-delay-ms",
                                             "--reboot-grace-ms",
                                             "--boot-time-ms",
                                             "--workers",
                                             "--handshake-version",
                                             "--refuse-chunk"};

bool split_address(const std::string& text, std::string& host, std::string& port) {
    const size_t colon = text.rfind(':');
    if (colon == std::string::npos || colon + 1 == text.size()) return false;
    host = text.substr(0, colon);
    port = text.substr(colon + 1);
    return true;
}

bool to_int(const char* text, int& out) {
    char* end = nullptr;
    const long v = std::strtol(text, &end, 10);
    if (end == text || *end != '\0' || v < 0 || v > 1000000000) return false;
    out = static_cast<int>(v);
    return true;
}

int bad(const std::string& message) {
    std::cerr << "qord-sim: " << message << "\nTry 'qord-sim --help'." << std::endl;
    return 2;
}

}  // namespace

std::string full_command_name(const std::string& name) {
    const std::string prefix = qor::catalogue::kCommandPrefix;
    if (name.compare(0, prefix.size(), prefix) == 0) return name;
    // Short device names as users type them: "psi.get" -> "device.psi.get".
    static const std::set<std::string> device = {"get",     "identities.get", "psi.get",
                                                 "psi.set", "imei.reset",     "activate"};
    if (device.count(name)) return prefix + "device." + name;
    return prefix + name;
}

int parse_options(int argc, char** argv, Options& o) {
    for (int i = 1; i < argc; ++i) {
        const std::string arg = argv[i];
        const bool hasValue = i + 1 < argc;
        const char* value = hasValue ? argv[i + 1] : "";
        auto needs = [&]() -> bool { return hasValue && (++i, true); };
        int n = 0;
        if (arg == "-h" || arg == "--help") {
            std::cout << kHelp;
            return 0;
        } else if (arg == "--version") {
            std::cout << "qord-sim " QORD_SIM_VERSION << std::endl;
            return 0;
        } else if (arg == "--nodelay") {
            o.nodelay = true;
        } else if (arg == "--split-frames") {
            o.split_frames = true;
        } else if (arg == "--drop-after-last-chunk") {
            o.drop_after_last_chunk = true;
        } else if (arg == "--never-return") {
            o.never_return = true;
        } else if (arg == "--no-version") {
            o.no_version = true;
        } else if (arg == "--only-wait-boot-end") {
            o.only_wait_boot_end = true;
        } else if (kValueOptions.count(arg) == 0) {
            return bad(arg[0] == '-' ? "unknown option: " + arg : "unexpected argument: " + arg);
        } else if (!needs()) {
            return bad(arg + " needs a value");
        } else if (arg == "--listen") {
            if (!split_address(value, o.listen_host, o.listen_port)) {
                return bad("--listen takes HOST:PORT, not " + std::string(value));
            }
        } else if (arg == "--reboot-listen") {
            if (!split_address(value, o.reboot_host, o.reboot_port)) o.reboot_host = value;
        } else if (arg == "--state") {
            o.state_path = value;
        } else if (arg == "--image-out") {
            o.image_out = value;
        } else if (arg == "--refuse") {
            o.refused.insert(full_command_name(value));
        } else if (arg == "--drop") {
            o.dropped.insert(full_command_name(value));
        } else if (arg == "--stall") {
            o.stalled.insert(full_command_name(value));
        } else if (arg == "--fail") {
            const std::string v = value;
            const size_t eq = v.find('=');
            if (eq == std::string::npos) return bad("--fail takes NAME=TEXT");
            o.failures[full_command_name(v.substr(0, eq))] = v.substr(eq + 1);
        } else if (!to_int(value, n)) {
            return bad(arg + " takes a whole number, not " + std::string(value));
        } else if (arg == "--reboot-delay-ms") {
            o.reboot_delay_ms = n;
        } else if (arg == "--reboot-grace-ms") {
            o.reboot_grace_ms = n;
        } else if (arg == "--boot-time-ms") {
            o.boot_time_ms = n;
        } else if (arg == "--workers") {
            if (n < 1) return bad("--workers takes at least 1");
            o.workers = n;
        } else if (arg == "--handshake-version") {
            if (n > 255) return bad("--handshake-version takes 0 to 255");
            o.handshake_version = n;
        } else if (arg == "--refuse-chunk") {
            o.refuse_chunk = static_cast<unsigned long>(n);
        } else {
            return bad("unknown option: " + arg);
        }
    }
    return -1;
}

}  // namespace qord_sim
