#include "qor/sysupgrade.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cassert>
#include <cstdio>
#include <ctime>
#include <iostream>

#include "orvi/transport_registry.h"
#include "qor/commands.h"
#include "qor/protobuf/sysupgrade.pb.h"

namespace qor {
namespace client {

namespace pb = qor::protobuf::sysupgrade;

Sysupgrade::~Sysupgrade() {
    if (m_dummyWorker && m_dummyWorker->joinable()) m_dummyWorker->join();
}

void Sysupgrade::worker_for_dummy_packets() {}

void Sysupgrade::execute(const std::string& fw, bool keep_config, bool no_keep,
                         const SysupgradeHandler& handler) {
    struct HandlerScope {
        Sysupgrade& self;
        HandlerScope(Sysupgrade& s, const SysupgradeHandler& h) : self(s) {
            std::lock_guard<std::mutex> lock(self.m_mutex);
            self.m_handler = &h;
        }
        ~HandlerScope() {
            std::lock_guard<std::mutex> lock(self.m_mutex);
            self.m_handler = nullptr;
        }
    } scope(*this, handler);

    pb::Request request;
    request.set_keep_config(keep_config);
    request.set_not_save_config(no_keep);

    {
        std::lock_guard<std::mutex> lock(m_transferMutex);
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
        m_buffer.reset(new char[kSysupgradeChunkSize]);
        m_finished = false;
    }
    request.set_fw_size(m_length);
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

    std::lock_guard<std::mutex> lock(m_transferMutex);
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
    pb::Answer answer;
    answer.ParseFromArray(data, static_cast<int>(size));

    if (answer.type() == pb::Answer::NEXT) {
        std::lock_guard<std::mutex> lock(m_transferMutex);
        if (m_finished) return;
        // clang-format off
        assert((m_length-m_lengthDone) > 0);
        // clang-format on
        m_file.read(m_buffer.get(), std::min<uint32_t>(m_length, kSysupgradeChunkSize));
        const auto chunk = static_cast<uint32_t>(m_file.gcount());
        m_lengthDone += chunk;
        send_message(m_buffer.get(), chunk);
        {
            std::lock_guard<std::mutex> handlerLock(m_mutex);
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
    } else if (answer.type() == pb::Answer::LOG) {
        std::lock_guard<std::mutex> lock(m_mutex);
        if (m_handler) m_handler->log(answer.log());
    }
}

unsigned int reconnect_pause(long elapsed) {
    if (elapsed <= 0) return 1;
    return 0;
}

namespace {

// Holds our pid in the marker file and removes the file on every way out.
class MarkerFile {
  public:
    MarkerFile() {
        std::FILE* f = std::fopen(kSysupgradeMarkerFile, "w");
        if (f == nullptr) {
            std::cerr << "Warning, failed to create file " << kSysupgradeMarkerFile << std::endl;
            return;
        }
        std::fprintf(f, "%d", static_cast<int>(getpid()));
        std::fclose(f);
    }
    ~MarkerFile() { std::remove(kSysupgradeMarkerFile); }
};

void read_version(orvi::Protocol& protocol, std::string& version, std::string& magic) {
    protocol.create_command_proxy<Version>(kVersionCommand)->execute(version, magic);
}

}  // namespace

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
    try {
        read_version(protocol, versionBefore, magicBefore);
        versionOk = true;
    } catch (...) {
    }
    handler.on_status_update(SysupgradeHandler::UPGRADING);

    auto upload = protocol.create_command_proxy<Sysupgrade>(kSysupgradeCommand);
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

    int remaining = timeout;
    time_t last = time(nullptr);
    for (;;) {
        remaining -= 1;
        if (remaining <= 0) break;
        try {
            transport->connect(1);
            break;
        } catch (const std::exception&) {
            handler.on_connect_retry(static_cast<unsigned int>(timeout - remaining));
            const time_t now = time(nullptr);
            sleep(reconnect_pause(static_cast<long>(now - last)));
            last = now;
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
    try {
        read_version(protocol, versionAfter, magicAfter);
        validated = true;
    } catch (const orvi::ProxyCommandException&) {
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
