// SPDX-License-Identifier: Apache-2.0
// Prints where a board takes its firmware from: FFF (flash) or FFH (host).
// Usage: board_mode HOST PORT
#include <exception>
#include <iostream>

#include "qor/client.h"
#include "qor/version.h"

int main(int argc, char** argv) {
    if (argc != 3) {
        std::cerr << "usage: board_mode HOST PORT (qorc library " QORC_VERSION_STRING ")\n";
        return 2;
    }
    try {
        qor::Client client;
        client.connect(argv[1], argv[2], "", 5);
        bool fromFlash = false;
        client.fw_config_mode(fromFlash);
        std::cout << (fromFlash ? "FFF" : "FFH") << std::endl;
    } catch (const std::exception& e) {
        std::cerr << "board_mode: " << e.what() << std::endl;
        return 1;
    }
    return 0;
}
