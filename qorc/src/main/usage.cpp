// SPDX-License-Identifier: Apache-2.0
#include <iostream>

#include "arguments.h"
#include "qor/version.h"

namespace qorc {

namespace {

// Kept exactly as users have always seen it, "<seconds" included.
const char* const kHelp =
    " [--url|-u <address>[:<port>] ] [--bind <bind address>] [-h] <sub-command>\n"
    "\n"
    "Global options:\n"
    "\t-h: Displays this help\n"
    "\t--url|-u <address>[:port]: URL to contact qord, default is 192.168.15.1:7000\n"
    "\t--bind <bind address>: Local IP interface to bind to before connecting to device.\n"
    "\t                       Use this option when there is more than one device on the\n"
    "\t                       host.\n"
    "\n"
    "Sub-commands:\n"
    "\tsysupgrade [-c] [-n] [--timeout|-t <seconds] [--reboot-url <url>] <fw>\n"
    "\t\tDescription:\n"
    "\t\t\tUpgrade device system with the <fw> image (*.zpk). By default it\n"
    "\t\t\tkeeps files defined in device /etc/sysupgrade.conf\n"
    "\n"
    "\t\tOptions:\n"
    "\t\t\t-c: Keep configuration, all files in /etc are kept during system\n"
    "\t\t\t    upgrade.\n"
    "\t\t\t-n: Do not keep files defined in device /etc/sysupgrade.conf\n"
    "\t\t\t--timeout|-t <seconds>: maximum time to wait target for reboot.\n"
    "\t\t\t                        Default is 180s.\n"
    "\t\t\t--reboot-url: url to contact qord after upgrade reboot. Useful when IP\n"
    "\t\t\t              changes after upgrade.\n"
    "\n"
    "\n"
    "\tactivate <passcode>\n"
    "\t\tDescription:\n"
    "\t\t\tActivate TALVEX mode on device.\n"
    "\n"
    "\n"
    "\tfallback_ffh\n"
    "\t\tDescription:\n"
    "\t\t\tPut device in Firmware From Host (FFH) mode.\n"
    "\t\t\tBeware: be sure to have at least a korvaned installed on host\n"
    "\t\t\t        with correct FFH (*.fw) firmware.\n"
    "\n"
    "\n"
    "\tfw_config_mode\n"
    "\t\tDescription:\n"
    "\t\t\tReturns FFH or FFF if device gets the Firmware from Flash or from Host\n"
    "\n"
    "\n"
    "\tpsi_get [json_path]\n"
    "\t\tDescription:\n"
    "\t\t\tReturns device Platform Specific Information (PSI) settings in json format.\n"
    "\t\t\tDefault is to return json to stdout unless a json_path is specified.\n"
    "\n"
    "\n"
    "\tpsi_set <json_path>\n"
    "\t\tDescription:\n"
    "\t\t\tAmend the device Platform Specific Information (PSI) settings from a json\n"
    "\t\t\tfile.\n";

}  // namespace

void usage(const char* program) {
    std::cerr << "Usage:\n";
    // Inserting a null text marks the stream bad, as the standard insertion does.
    if (program == nullptr) {
        std::cerr.setstate(std::ios::badbit);
    } else {
        std::cerr << program;
    }
    std::cerr << kHelp << std::endl;
}

void print_version() {
    // The library's version, then the build of this release.
    std::cout << "qorc " QORC_VERSION_STRING "-41112" << std::endl;
}

}  // namespace qorc
