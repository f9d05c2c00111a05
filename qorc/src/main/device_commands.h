// SPDX-License-Identifier: Apache-2.0
// The sub-commands of qorc but the upgrade (upgrade_console.h). Each returns
// the exit status; exceptions pass to main, which reports them. Device
// operations address device 0.
#pragma once

#include <string>

#include "qor/client.h"

namespace qorc {

int fallback_ffh(qor::Client& client);
int fw_config_mode(qor::Client& client);
// "FW version: " and the version the board reports.
int fw_version(qor::Client& client);
int activate_talvex(qor::Client& client, const std::string& passcode);
// A path of "-" means standard input for psi_set and reset_imei, standard
// output for psi_get.
// Empty path: the JSON goes to standard output. 2 when the file cannot be
// written (the board has been asked already).
int psi_get(qor::Client& client, const std::string& path);
// 2, without asking the board, when the file cannot be read.
int psi_set(qor::Client& client, const std::string& path);
// 2 when the passcode file cannot be read, 1 when it has no record for the
// device's MAC.
int reset_imei(qor::Client& client, const std::string& path);
// The echo worker: two echoes per pass, once or forever. Kept as is: no
// path of main calls it.
void worker(const char* host, const char* port, bool loop, unsigned int number);

}  // namespace qorc
