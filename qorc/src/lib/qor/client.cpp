#include "qor/client.h"

#include "orvi/transport_simple_socket_client.h"
#include "qor/commands.h"
#include "qor/sysupgrade.h"

namespace qor {

Client::Client() : m_protocol(new orvi::Protocol(1)) {}

Client::~Client() {
    m_transport.reset();
    delete m_protocol;
}

void Client::connect(const std::string& host, const std::string& port, const std::string& bind,
                     int timeout) {
    auto transport = std::make_shared<orvi::TransportSimpleSocketClient>(host, port);
    transport->m_bind = bind;
    transport->set_idle_reader(m_idleWatch);
    transport->connect(timeout);
    m_transport = transport;
    m_protocol->add_transport(m_transport);
}

void Client::disconnect() {
    m_protocol->remove_transport(m_transport);
    m_transport.reset();
}

void Client::echo(const std::string& payload, std::string& reply) {
    auto proxy = m_protocol->create_command_proxy<client::Echo>();
    std::string answer = proxy->execute(payload);
    reply = std::move(answer);
}

void Client::fallback_ffh() {
    m_protocol->create_command_proxy<client::FallbackFfh>()->execute();
}

void Client::fw_config_mode(bool& is_fff) {
    m_protocol->create_command_proxy<client::FwConfigMode>()->execute(is_fff);
}

client::Device Client::get_device(unsigned int id) {
    return client::get_device(*m_protocol, id);
}

void Client::sysupgrade(const std::string& fw, bool keep_config, bool no_keep, int timeout,
                        const std::string& reboot_url, const client::SysupgradeHandler& handler) {
    client::sysupgrade(*m_protocol, fw, keep_config, no_keep, timeout, reboot_url, handler);
}

}  // namespace qor
