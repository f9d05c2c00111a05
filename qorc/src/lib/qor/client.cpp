// SPDX-License-Identifier: Apache-2.0
#include "qor/client.h"

#include "orvi/protocol.h"
#include "orvi/transport_simple_socket_client.h"
#include "qor/commands.h"
#include "qor/device/device_manager.h"
#include "qor/sysupgrade.h"

namespace qor {

// What the session owns: the engine, and the transport it was connected with.
struct Client::Engine {
    Engine() : m_protocol(1) {}
    // Our reference to the transport goes first; the engine then stops
    // every transport still attached and joins its threads.
    ~Engine() { m_transport.reset(); }

    orvi::Protocol m_protocol;
    std::shared_ptr<orvi::Transport> m_transport;
    bool m_idleWatch = true;
};

Client::Client() : m_engine(new Engine) {}

Client::~Client() = default;

void Client::connect(const std::string& host, const std::string& port, const std::string& bind,
                     int timeout) {
    auto transport = std::make_shared<orvi::TransportSimpleSocketClient>(host, port);
    transport->m_bind = bind;
    transport->set_idle_reader(m_engine->m_idleWatch);
    transport->connect(timeout);
    connect(std::move(transport));
}

void Client::connect(std::shared_ptr<orvi::Transport> transport) {
    m_engine->m_transport = std::move(transport);
    m_engine->m_protocol.add_transport(m_engine->m_transport);
}

void Client::disconnect() {
    m_engine->m_protocol.remove_transport(m_engine->m_transport);
    m_engine->m_transport.reset();
}

void Client::set_idle_watch(bool on) {
    m_engine->m_idleWatch = on;
}

void Client::echo(const std::string& payload, std::string& reply) {
    auto proxy = m_engine->m_protocol.create_command_proxy<client::Echo>();
    std::string answer = proxy->execute(payload);
    reply = std::move(answer);
}

void Client::fallback_ffh() {
    m_engine->m_protocol.create_command_proxy<client::FallbackFfh>()->execute();
}

void Client::fw_config_mode(bool& is_fff) {
    m_engine->m_protocol.create_command_proxy<client::FwConfigMode>()->execute(is_fff);
}

void Client::version(std::string& version, std::string& magic) {
    m_engine->m_protocol.create_command_proxy<client::Version>()->execute(version, magic);
}

client::Device Client::get_device(unsigned int id) {
    return client::get_device(m_engine->m_protocol, id);
}

void Client::sysupgrade(const std::string& fw, bool keep_config, bool no_keep, int timeout,
                        const std::string& reboot_url, const client::SysupgradeHandler& handler) {
    client::sysupgrade(m_engine->m_protocol, fw, keep_config, no_keep, timeout, reboot_url,
                       handler);
}

}  // namespace qor
