// SPDX-License-Identifier: Apache-2.0
#include "qor/sysupgrade.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cassert>
#include <chrono>
#include <iostream>

#include "orvi/transport_registry.h"

namespace qor {
namespace client {

Sysupgrade::~Sysupgrade() {
    if (m_dummyWorker && m_dummyWorker->joinable()) m_dummyWorker->join();
}

void Sysupgrade::worker_for_dummy_packets() {}

void Sysupgrade::execute(const std::string& fw, bool keep_config, bool no_keep,
                         const SysupgradeHandler& handler) {
    struct HandlerScope {
        Sysupgrade& self;
        HandlerScope(Sysupgrade& s, const SysupgradeHandler& h) : self(s) {
            orvi::MutexLock lock(self.m_mutex);
            self.m_handler = &h;
        }
        ~HandlerScope() {
            orvi::MutexLock lock(self.m_mutex);
            self.m_handler = nullptr;
        }
    } scope(*this, handler);

    Request request;
    request.set_keep_config(keep_config);
    request.set_not_save_config(no_keep);

    {
        orvi::MutexLock lock(m_transferMutex);
        m_file.open(fw, std::ios::binary);
        // A directory opens as a stream on Linux, but it is no image.
        struct stat st;
        if (!m_file.is_open() || (stat(fw.c_str(), &st) == 0 && S_ISDIR(st.st_mode))) {
            throw orvi::ProxyCommandException("Failed to open file");
        }
        m_file.seekg(0, std::ios::end);
        const std::streamoff size = m_file.tellg();
        m_file.seekg(0, std::ios::beg);
        // The board is told the size in 32 bits.
        if (size > static_cast<std::streamoff>(UINT32_MAX)) {
            throw orvi::ProxyCommandException("Error, file is larger than 4 GiB!");
        }
        m_length = static_cast<uint32_t>(size);
        if (m_length == 0) throw orvi::ProxyCommandException("Error, file is empty!");
        m_lengthDone = 0;
        // Ready before the request leaves: the first NEXT may come back at once.
        m_buffer.reset(new char[kReadBlock]);
        m_bufferBegin = m_bufferEnd = 0;
        m_finished = false;
        request.set_fw_size(m_length);
    }
    send_request(*this, request);

    std::string error;
    bool failed = false;
    try {
        wait();
    } catch (const std::exception& e) {
        failed = true;
        error = e.what();
    } catch (...) {
        failed = true;
        error = "unknown exception";
    }

    orvi::MutexLock lock(m_transferMutex);
    m_finished = true;
    if (m_dummyWorker) {
        m_dummyRunning = false;
        m_dummyWorker->join();
    }
    if (!failed) return;
    if (m_lengthDone < m_length) throw orvi::ProxyCommandException(error);
    // The board breaks the connection when it reboots into the new image.
    handler.log("Skipped error as everything has been sent: " + error);
}

void Sysupgrade::process_message(const char* data, unsigned int size) {
    const auto answer = parse(data, size);

    if (answer.type() == Answer::NEXT) {
        orvi::MutexLock lock(m_transferMutex);
        // A NEXT after the whole image has been sent asks for nothing.
        if (m_finished || m_lengthDone >= m_length) return;
        if (m_bufferBegin == m_bufferEnd) {
            // Never more than announced, even from a file that grows meanwhile.
            m_file.read(m_buffer.get(), std::min<uint32_t>(m_length - m_lengthDone, kReadBlock));
            m_bufferBegin = 0;
            m_bufferEnd = static_cast<size_t>(m_file.gcount());
        }
        const auto chunk = static_cast<uint32_t>(
            std::min<size_t>(m_bufferEnd - m_bufferBegin, catalogue::kSysupgradeChunkSize));
        m_lengthDone += chunk;
        send_message(m_buffer.get() + m_bufferBegin, chunk);
        m_bufferBegin += chunk;
        {
            orvi::MutexLock handlerLock(m_mutex);
            if (m_handler) {
                m_handler->progression(static_cast<float>(m_lengthDone) /
                                       static_cast<float>(m_length) * 100.0f);
            }
        }
        if (m_lengthDone == m_length) {
            assert(!m_dummyWorker);
            m_dummyRunning = true;
            m_dummyWorker.reset(new std::thread(&Sysupgrade::worker_for_dummy_packets, this));
        }
    } else if (answer.type() == Answer::LOG) {
        orvi::MutexLock lock(m_mutex);
        if (m_handler) m_handler->log(answer.log());
    }
}

namespace {

// Holds our pid in the marker file and, on every way out, removes the file
// if it still holds our pid: another upgrade from this host keeps its own.
// The file is opened only as a regular file and never through a link.
class MarkerFile {
  public:
    MarkerFile() {
        const int fd = open(catalogue::kSysupgradeMarkerFile,
                            O_WRONLY | O_CREAT | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC, 0666);
        struct stat st;
        if (fd < 0 || fstat(fd, &st) != 0 || !S_ISREG(st.st_mode) || ftruncate(fd, 0) != 0) {
            if (fd >= 0) close(fd);
            std::cerr << "Warning, failed to create file " << catalogue::kSysupgradeMarkerFile
                      << std::endl;
            return;
        }
        const std::string pid = std::to_string(getpid());
        [[maybe_unused]] ssize_t written = ::write(fd, pid.data(), pid.size());
        close(fd);
    }
    ~MarkerFile() { remove_sysupgrade_marker_if_ours(); }
};

}  // namespace

void remove_sysupgrade_marker_if_ours() {
    // Only async-signal-safe calls from here on: this also runs in a
    // signal handler.
    char ours[16];
    size_t n = 0;
    for (unsigned long pid = static_cast<unsigned long>(getpid()); n == 0 || pid != 0; pid /= 10) {
        ours[n++] = static_cast<char>('0' + pid % 10);
    }
    for (size_t i = 0; i < n / 2; ++i) {
        const char c = ours[i];
        ours[i] = ours[n - 1 - i];
        ours[n - 1 - i] = c;
    }
    const int fd =
        open(catalogue::kSysupgradeMarkerFile, O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC);
    if (fd < 0) return;
    char held[sizeof ours + 1];
    struct stat st;
    const bool regular = fstat(fd, &st) == 0 && S_ISREG(st.st_mode);
    const ssize_t got = regular ? ::read(fd, held, sizeof held) : -1;
    close(fd);
    if (got != static_cast<ssize_t>(n)) return;
    for (size_t i = 0; i < n; ++i) {
        if (held[i] != ours[i]) return;
    }
    unlink(catalogue::kSysupgradeMarkerFile);
}

void sysupgrade(orvi::Protocol& protocol, const std::string& fw, bool keep_config, bool no_keep,
                int timeout, const std::string& reboot_url, const SysupgradeHandler& handler) {
    MarkerFile marker;
    // Made now, not after the upload: an address no transport can serve
    // must stop us before the board is flashed.
    auto transport = std::dynamic_pointer_cast<orvi::TransportClient>(
        orvi::detail::make_transport(orvi::detail::get_client_factory_map(), reboot_url));
    if (!transport) throw orvi::ProxyCommandException("Unsupported reboot url " + reboot_url);

    _wait_system_boot_end(protocol, nullptr, 0);

    std::string versionBefore, magicBefore;
    bool versionOk = false;
    std::shared_ptr<Version> before;
    try {
        before = protocol.create_command_proxy<Version>();
        before->execute(versionBefore, magicBefore);
        versionOk = true;
    } catch (...) {
        // A board without the version service is upgraded all the same; one
        // that is gone is not.
        if (before && connection_lost(*before)) throw;
    }
    handler.on_status_update(SysupgradeHandler::UPGRADING);

    auto upload = protocol.create_command_proxy<Sysupgrade>();
    try {
        upload->execute(fw, keep_config, no_keep, handler);
    } catch (const orvi::ProxyCommandException&) {
        handler.on_status_update(SysupgradeHandler::UPGRADE_FAILED);
        throw;
    }

    // The board is rebooting: drop the old connection.
    if (std::shared_ptr<orvi::Transport> transportPtr = upload->get_transport()) {
        assert(transportPtr->is_client());
        std::static_pointer_cast<orvi::TransportClient>(transportPtr)->disconnect();
        protocol.remove_transport(transportPtr);
    }
    upload.reset();

    handler.on_status_update(SysupgradeHandler::REBOOTING);
    sleep(5);

    // One attempt a second, each bounded by that second (the connection and
    // the handshake answer), so that the time-out counts seconds of waiting.
    int remaining = timeout;
    for (;;) {
        remaining -= 1;
        if (remaining <= 0) break;
        const auto attempt = std::chrono::steady_clock::now();
        try {
            transport->connect(1);
            break;
        } catch (const std::exception&) {
            handler.on_connect_retry(static_cast<unsigned int>(timeout - remaining));
            std::this_thread::sleep_until(attempt + std::chrono::seconds(1));
        }
    }
    if (remaining == 0) {
        handler.on_status_update(SysupgradeHandler::REBOOT_FAILED);
        throw orvi::ProxyCommandException("board failed to reboot");
    }

    protocol.add_transport(transport);
    _wait_system_boot_end(protocol, &handler, timeout - remaining);
    handler.on_status_update(SysupgradeHandler::REBOOT_DONE);

    std::string versionAfter, magicAfter;
    bool validated = false;
    std::shared_ptr<Version> after;
    try {
        after = protocol.create_command_proxy<Version>();
        after->execute(versionAfter, magicAfter);
        validated = true;
    } catch (const orvi::ProxyCommandException&) {
        // Gone again before it could say what it runs: not a success.
        if (connection_lost(*after)) throw;
    } catch (const orvi::ProxyCommandNoHandler&) {
        // A board that has no version service at all is not a failure either.
    }
    if (!validated) {
        if (!versionOk) {
            handler.log(
                "Warning: system upgrade validation failed, firmwares do not support version "
                "service\n");
        }
    } else if (versionOk && magicAfter == magicBefore) {
        handler.on_status_update(SysupgradeHandler::UPGRADE_FAILED);
        throw orvi::ProxyCommandException("Failed to upgrade board");
    } else {
        handler.log("Upgraded to " + versionAfter + "\n");
    }
    handler.on_status_update(SysupgradeHandler::UPGRADE_DONE);
}

}  // namespace client
}  // namespace qor
