// SPDX-License-Identifier: Apache-2.0
// The command line of qorc: scan, check and address forming.
#pragma once

#include <string>

namespace qorc {

constexpr const char* kDefaultUrl = "192.168.15.1:7000";
constexpr const char* kDefaultPort = "7000";
constexpr int kDefaultRebootTimeout = 180;

struct Arguments {
    std::string url = kDefaultUrl;
    std::string bind;
    std::string fw;
    std::string path;  // shared by psi_get, psi_set and reset_imei
    std::string reboot_url;
    std::string passcode;
    int timeout = -1;  // not given
    bool keep_config = false;
    bool no_keep = false;

    bool fallback_ffh = false;
    bool fw_config_mode = false;
    bool sysupgrade = false;
    bool psi_get = false;
    bool psi_set = false;
    bool discover = false;
    bool reset_imei = false;
    bool activate = false;
    bool fw_version = false;
};

// Scans and checks argv, printing every message itself. Returns -1 when a
// sub-command is to run, otherwise the exit status to stop with ("-h" and
// "--version" stop with 0, an unreadable standard input with 2, every other
// error with 1). A passcode is overwritten with 'x' in argv as soon as it is
// copied, so that the process list never shows it; a passcode of "-" is
// replaced by the first line of standard input, read here.
int parse_arguments(int argc, char** argv, Arguments& args);

// Splits "host[:port]" at its first ':'; an empty port becomes 7000.
void split_address(const std::string& url, std::string& host, std::string& port);

void usage(const char* program);
void print_version();

}  // namespace qorc
