// SPDX-License-Identifier: Apache-2.0
#include "arguments.h"

#include <cstdlib>
#include <cstring>
#include <iostream>

#include "local_files.h"

namespace qorc {

namespace {

// Messages of the scan: standard error, no help text, status 1.
int scan_error(const std::string& message) {
    std::cerr << message << std::endl;
    return 1;
}

// Messages of the check: standard error, then the help text, status 1.
int check_error(const std::string& message, const char* program) {
    std::cerr << message << std::endl;
    usage(program);
    return 1;
}

// A free argument goes to the first sub-command that takes one. `raw` is
// its entry in argv.
int take_free_argument(Arguments& a, char* raw) {
    const std::string arg = raw;
    const std::string unexpected = "unexpected argument \"" + arg + "\"";
    if (a.sysupgrade) {
        if (!a.fw.empty()) return scan_error(unexpected);
        a.fw = arg;
    } else if (a.psi_set || a.psi_get) {
        if (!a.path.empty()) return scan_error(unexpected);
        a.path = arg;
    } else if (a.reset_imei) {
        if (!a.path.empty()) return scan_error(unexpected);
        a.path = arg;
        a.psi_set = a.psi_get = a.sysupgrade = false;
    } else if (a.activate) {
        if (!a.passcode.empty()) return scan_error(unexpected);
        a.passcode = arg;
        a.psi_set = a.psi_get = a.sysupgrade = false;
        // ps and /proc/PID/cmdline read argv from our memory: from now on
        // they show x's in its place.
        if (!is_stdio(arg)) std::memset(raw, 'x', arg.size());
    } else {
        return scan_error("unknown command \"" + arg + "\"");
    }
    return -1;
}

int scan(int argc, char** argv, Arguments& a) {
    for (int i = 1; i < argc; ++i) {
        const std::string arg = argv[i];
        if (arg == "fallback_ffh") {
            a.fallback_ffh = true;
        } else if (arg == "fw_config_mode") {
            a.fw_config_mode = true;
        } else if (arg == "sysupgrade") {
            a.sysupgrade = true;
        } else if (arg == "psi_get") {
            a.psi_get = true;
        } else if (arg == "psi_set") {
            a.psi_set = true;
        } else if (arg == "discover") {
            a.discover = true;
        } else if (arg == "reset_imei") {
            a.reset_imei = true;
        } else if (arg == "activate") {
            a.activate = true;
        } else if (arg == "fw_version") {
            a.fw_version = true;
        } else if (arg == "--url" || arg == "-u") {
            if (++i >= argc) return scan_error("--url|-u option require an argument");
            a.url = argv[i];
        } else if (arg == "--bind") {
            if (++i >= argc) return scan_error("--bind option require an argument");
            a.bind = argv[i];
        } else if (arg == "--version") {
            print_version();
            return 0;
        } else if (arg == "--timeout" || arg == "-t") {
            if (++i >= argc) return scan_error("--timeout|-t option require an argument");
            a.timeout = static_cast<int>(std::strtol(argv[i], nullptr, 10));
            if (a.timeout < 1) return scan_error("--timeout|-t option require a value > 0");
        } else if (arg == "--reboot-url") {
            // Deliberately loose: a trailing --reboot-url reads the vector's
            // terminating null entry, taken here as an empty value.
            if (++i > argc) return scan_error("--reboot-url option require an argument");
            a.reboot_url = argv[i] ? argv[i] : "";
        } else if (arg == "-c") {
            a.keep_config = true;
        } else if (arg == "-n") {
            a.no_keep = true;
        } else if (arg == "-h") {
            usage(argv[0]);
            return 0;
        } else if (arg.size() > 1 && arg[0] == '-') {
            // A lone "-" is no option but an operand: standard input or output.
            return scan_error("unknown option \"" + arg + "\"");
        } else {
            const int status = take_free_argument(a, argv[i]);
            if (status >= 0) return status;
        }
    }
    return -1;
}

int check(int argc, char** argv, Arguments& a) {
    const bool any = a.fallback_ffh || a.fw_config_mode || a.sysupgrade || a.psi_get || a.psi_set ||
                     a.discover || a.fw_version;
    if (argc < 2 || (!any && !a.activate && !a.reset_imei)) {
        return check_error("Error: expecting sub command", argv[0]);
    }
    if (a.sysupgrade && a.fw.empty()) return check_error("Error: fw path is required", argv[0]);
    if (a.psi_set && a.path.empty()) return check_error("Error: json path is required", argv[0]);
    if (a.reset_imei && a.path.empty()) {
        return check_error("Error: file path is required", argv[0]);
    }
    // Read before connecting: a passcode that is not there must not cost a
    // connection to the board.
    if (a.activate && is_stdio(a.passcode) && !read_stdin_line(a.passcode)) {
        return file_failed("to read", kStdioPath);
    }
    if (a.activate && a.passcode.empty()) {
        return check_error("Error: TALVEX passcode is required", argv[0]);
    }
    return -1;
}

}  // namespace

int parse_arguments(int argc, char** argv, Arguments& args) {
    const int status = scan(argc, argv, args);
    if (status >= 0) return status;
    return check(argc, argv, args);
}

void split_address(const std::string& url, std::string& host, std::string& port) {
    const size_t colon = url.find(':');
    host = url.substr(0, colon);
    port = colon == std::string::npos ? std::string() : url.substr(colon + 1);
    if (port.empty()) port = kDefaultPort;
}

}  // namespace qorc
