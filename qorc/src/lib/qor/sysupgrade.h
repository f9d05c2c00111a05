// SPDX-License-Identifier: Apache-2.0
// The system upgrade: stream the image, follow the reboot, check the result.
#pragma once

#include <atomic>
#include <cstdint>
#include <fstream>
#include <memory>
#include <string>
#include <thread>

#include "orvi/mutex.h"
#include "orvi/protocol.h"
#include "qor/commands.h"
#include "qor/protobuf/sysupgrade.pb.h"
#include "qor/sysupgrade_handler.h"

namespace qor {
namespace client {

// The upload command. The board paces it: each NEXT answer asks for one
// 4096-byte chunk, which is sent at once from where the answer is routed,
// so one chunk is in flight and the image is never held whole.
class Sysupgrade : public CommandProxy<catalogue::kSysupgrade, protobuf::sysupgrade::Request,
                                       protobuf::sysupgrade::Answer> {
  public:
    using CommandProxy::CommandProxy;
    ~Sysupgrade() override;

    // Throws orvi::ProxyCommandException when the image cannot be used or the
    // board fails the transfer before its last byte. A failure after the last
    // byte is the board rebooting: it is logged, not thrown.
    void execute(const std::string& fw, bool keep_config, bool no_keep,
                 const SysupgradeHandler& handler);
    // Body of the thread started after the last chunk. Kept as is: it is
    // started and joined as ever, and sends nothing.
    void worker_for_dummy_packets();

  protected:
    void process_message(const char* data, unsigned int size) override;

  private:
    orvi::Mutex m_mutex;
    const SysupgradeHandler* m_handler GUARDED_BY(m_mutex) = nullptr;

    // Everything below is used by the thread that routes the answers while
    // the transfer runs, and by execute after it; m_transferMutex keeps the
    // two apart.
    orvi::Mutex m_transferMutex;
    // execute is past wait(): late answers are dropped.
    bool m_finished GUARDED_BY(m_transferMutex) = false;
    std::ifstream m_file GUARDED_BY(m_transferMutex);
    uint32_t m_length GUARDED_BY(m_transferMutex) = 0;
    uint32_t m_lengthDone GUARDED_BY(m_transferMutex) = 0;
    // The image is read 64 KiB at a time, and sent from there a chunk at a
    // time: one read of the file for every 16 chunks.
    static constexpr size_t kReadBlock = 64 * 1024;
    std::unique_ptr<char[]> m_buffer GUARDED_BY(m_transferMutex);
    size_t m_bufferBegin GUARDED_BY(m_transferMutex) = 0;
    size_t m_bufferEnd GUARDED_BY(m_transferMutex) = 0;
    std::unique_ptr<std::thread> m_dummyWorker GUARDED_BY(m_transferMutex);
    std::atomic<bool> m_dummyRunning{false};
};

// Waits until the board reports the end of its boot (see boot_end.cpp).
// A board that answers its questions with failures is not waited for: it
// returns. Throws only when the connection is lost under it (what the
// command that met the loss threw: orvi::ProxyCommandException "Connection
// lost").
void _wait_system_boot_end(orvi::Protocol& protocol, const SysupgradeHandler* handler,
                           int first_count);

// Whether `proxy`'s command failed because the connection to the board is
// gone, rather than by the board's own answer.
bool connection_lost(orvi::Proxy& proxy);

// The whole upgrade; throws orvi::ProxyCommandException on failure. Holds the
// marker file with our pid from start to end, whatever the outcome. After the
// reboot it tries to reconnect once a second for `timeout` seconds.
void sysupgrade(orvi::Protocol& protocol, const std::string& fw, bool keep_config, bool no_keep,
                int timeout, const std::string& reboot_url, const SysupgradeHandler& handler);

// Removes the marker file if it holds this process's pid; leaves a file of
// another upgrade, a link or anything but a regular file alone.
// Async-signal-safe, so that a signal handler may call it.
void remove_sysupgrade_marker_if_ours();

}  // namespace client
}  // namespace qor
