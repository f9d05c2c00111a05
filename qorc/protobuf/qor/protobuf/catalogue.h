// SPDX-License-Identifier: Apache-2.0
// The board's commands, and the values that both ends of a command agree on,
// in one place beside the schemas: the client library, the front end, the
// simulator and the benchmark harness take them from here.
#pragma once

#include <cstdint>

// A command's full name from its short one, as the board registers it.
#define QOR_COMMAND(short_name) "com.korvane.command." short_name

namespace qor {
namespace catalogue {

// Arrays, not pointers, so that a proxy class can take one as a template
// argument (client::CommandProxy).
inline constexpr char kCommandPrefix[] = QOR_COMMAND("");
inline constexpr char kEcho[] = QOR_COMMAND("echo");
inline constexpr char kFallbackFfh[] = QOR_COMMAND("fallback_ffh");
inline constexpr char kFwConfigMode[] = QOR_COMMAND("fw_config_mode");
inline constexpr char kSystemBootEnd[] = QOR_COMMAND("system_boot_end");
inline constexpr char kWaitSystemBootEnd[] = QOR_COMMAND("wait_system_boot_end");
inline constexpr char kVersion[] = QOR_COMMAND("version");
inline constexpr char kSysupgrade[] = QOR_COMMAND("sysupgrade");
inline constexpr char kDeviceGet[] = QOR_COMMAND("device.get");
inline constexpr char kDeviceIdentitiesGet[] = QOR_COMMAND("device.identities.get");
inline constexpr char kDevicePsiGet[] = QOR_COMMAND("device.psi.get");
inline constexpr char kDevicePsiSet[] = QOR_COMMAND("device.psi.set");
inline constexpr char kDeviceResetImei[] = QOR_COMMAND("device.imei.reset");
inline constexpr char kDeviceActivate[] = QOR_COMMAND("device.activate");

// The PSI documents that psi_get reads and psi_set amends.
inline constexpr char kPsiReadPath[] = "/boot/psi";
inline constexpr char kPsiAmendPath[] = "/update/psi/amend";

// An upgrade streams the image in chunks of this many bytes, one for each
// NEXT the board sends.
inline constexpr uint32_t kSysupgradeChunkSize = 4096;
// Exists while an upgrade runs on this host, holding the upgrading
// process's id.
inline constexpr char kSysupgradeMarkerFile[] = "/tmp/qor_sysupgrade";

}  // namespace catalogue
}  // namespace qor
