// SPDX-License-Identifier: Apache-2.0
#include "orvi/protocol.h"

#include <algorithm>
#include <cassert>
#include <climits>
#include <string>

#include "envelope/header.pb.h"
#include "orvi/log_line.h"
#include "protocol_transport_handler.h"
#include "routing_job.h"
#include "worker_pool.h"

namespace orvi {

ProtocolLifeHandler::~ProtocolLifeHandler() {
    if (Protocol* protocol = m_protocol.load()) protocol->unregister_life_handler(this);
}

namespace {
// Destroyed at exit, after every message object of the program is gone.
ProtoBufCleanup protoBufCleanup;
}  // namespace

Protocol::ClientInfo::ClientInfo(unsigned int client_id, std::weak_ptr<Transport> client_transport)
    : id(client_id), transport(std::move(client_transport)) {}

Protocol::ClientInfo::~ClientInfo() = default;

Protocol::Protocol(size_t workers) : m_pool(new WorkerPool(workers)) {}

Protocol::~Protocol() {
    std::map<std::shared_ptr<Transport>, std::shared_ptr<TransportInfo>> transports;
    std::vector<std::weak_ptr<ProtocolTransportHandler>> given;
    {
        MutexLock lock(m_transportsMutex);
        transports.swap(m_transportMap);
        given.swap(m_handlersGiven);
    }
    // Once the handlers are cleared nothing new reaches a queue, so the
    // workers can be told to stop now and wind down while the transports'
    // threads are joined. Handlers of removed transports are cleared too:
    // their connection records may report a lost client later.
    for (auto& weak : given) {
        if (auto handler = weak.lock()) handler->clear();
    }
    m_pool->close();
    for (auto& entry : transports) entry.first->stop_serve();
    transports.clear();
    m_pool->join();

    std::vector<ProtocolLifeHandler*> handlers;
    {
        MutexLock lock(m_lifeMutex);
        handlers.swap(m_lifeHandlers);
        for (ProtocolLifeHandler* h : handlers) h->m_protocol = nullptr;
    }
    for (ProtocolLifeHandler* h : handlers) h->on_protocol_destroyed(this);
}

void Protocol::add_transport(const std::shared_ptr<Transport>& transport) {
    ++m_stats.transports_added;
    ++m_stats.transports_active;
    std::shared_ptr<ProtocolTransportHandler> handler;
    {
        MutexLock lock(m_transportsMutex);
        auto info = std::make_shared<TransportInfo>();
        info->handler = std::make_shared<ProtocolTransportHandler>(this);
        handler = info->handler;
        m_transportMap[transport] = info;
        // Kept short: handlers whose records are all gone are dropped.
        m_handlersGiven.erase(std::remove_if(m_handlersGiven.begin(), m_handlersGiven.end(),
                                             [](const std::weak_ptr<ProtocolTransportHandler>& w) {
                                                 return w.expired();
                                             }),
                              m_handlersGiven.end());
        m_handlersGiven.push_back(handler);
    }
    transport->start_serve(handler);
}

void Protocol::remove_transport(const std::shared_ptr<Transport>& transport) {
    --m_stats.transports_active;
    {
        MutexLock lock(m_transportsMutex);
        if (m_transportMap.find(transport) == m_transportMap.end()) return;
    }
    transport->stop_serve();
    MutexLock lock(m_transportsMutex);
    m_transportMap.erase(transport);
}

std::weak_ptr<Transport> Protocol::find_transport(Transport& transport) {
    MutexLock lock(m_transportsMutex);
    for (auto& entry : m_transportMap) {
        if (entry.first.get() == &transport) return entry.first;
    }
    return {};
}

std::shared_ptr<Transport> Protocol::get_proxy_transport(const ProxyInfo& info) {
    MutexLock clients(m_clientsMutex);
    auto it = m_clientMap.find(info.client_id);
    if (it == m_clientMap.end()) return nullptr;
    MutexLock transports(m_transportsMutex);
    MutexLock client(it->second->mutex);
    // A departed peer gets nothing more.
    if (it->second->departing) return nullptr;
    return it->second->transport.lock();
}

void Protocol::notify_fork(Fork fork) {
    MutexLock lock(m_transportsMutex);
    for (auto& entry : m_transportMap) entry.first->notify_fork(fork);
}

unsigned int Protocol::new_client(Transport& transport) {
    unsigned int id;
    {
        MutexLock lock(m_clientIdMutex);
        id = m_nextClientId++;
    }
    auto client = std::make_shared<ClientInfo>(id, find_transport(transport));
    {
        MutexLock lock(m_clientsMutex);
        m_clientMap[id] = client;
    }
    ++m_stats.clients_created;
    ++m_stats.clients_active;
    return id;
}

void Protocol::delete_client(unsigned int id) {
    std::shared_ptr<ClientInfo> peer = find_client(id);
    if (!peer) return;
    {
        MutexLock lock(peer->mutex);
        // Told twice (by the reader, then by the record's release): once counts.
        if (peer->departing) return;
        // It takes no new proxies from now on, but what it sent before it
        // went is still routed: the loss is handled behind it.
        peer->departing = true;
    }
    --m_stats.clients_active;
    RoutingJob loss;
    loss.lost = true;
    deliver(peer, std::move(loss));
}

void Protocol::client_gone(ClientInfo& peer) {
    {
        MutexLock lock(m_clientsMutex);
        m_clientMap.erase(peer.id);
    }
    // Out of the map, so nobody else can reach its proxies. They are told
    // with no lock held: client_lost ends in proxy_done, which takes the
    // clients lock.
    std::map<unsigned int, std::shared_ptr<Proxy>> proxies;
    {
        MutexLock lock(peer.mutex);
        proxies.swap(peer.proxy_map);
        peer.by_remote.clear();
        peer.handlers = 0;
    }
    for (auto& entry : proxies) {
        --m_stats.proxies_active;
        entry.second->client_lost("Connection lost");
    }
}

std::shared_ptr<Protocol::ClientInfo> Protocol::find_client(unsigned int id) {
    MutexLock clients(m_clientsMutex);
    auto it = m_clientMap.find(id);
    return it == m_clientMap.end() ? nullptr : it->second;
}

unsigned int Protocol::get_new_proxy_id() {
    MutexLock lock(m_proxyIdMutex);
    return ++m_lastProxyId;
}

std::shared_ptr<ProxyInfo> Protocol::create_client_proxy_info(unsigned int client,
                                                              unsigned int proxy_id,
                                                              const std::string& name) {
    return std::make_shared<ProxyInfo>(this, ProxyInfo::CLIENT, client, name, proxy_id);
}

void Protocol::add_command(const std::string& name, const std::shared_ptr<ProxyFactory>& factory) {
    MutexLock lock(m_commandsMutex);
    m_commandMap[name] = factory;
    m_servesCommands = true;
}

void Protocol::register_life_handler(ProtocolLifeHandler* handler) {
    MutexLock lock(m_lifeMutex);
    handler->m_protocol = this;
    m_lifeHandlers.push_back(handler);
}

void Protocol::unregister_life_handler(ProtocolLifeHandler* handler) {
    MutexLock lock(m_lifeMutex);
    for (auto it = m_lifeHandlers.begin(); it != m_lifeHandlers.end(); ++it) {
        if (*it == handler) {
            m_lifeHandlers.erase(it);
            break;
        }
    }
    handler->m_protocol = nullptr;
}

void Protocol::bind_client_proxy(const std::shared_ptr<Proxy>& proxy, const char* name) {
    MutexLock lock(m_clientsMutex);
    // Departing peers do not count: they take no new proxies.
    ClientInfo* first = nullptr;
    size_t n = 0;
    for (auto& entry : m_clientMap) {
        MutexLock peerLock(entry.second->mutex);
        if (entry.second->departing) continue;
        if (!first) first = entry.second.get();
        ++n;
    }
    if (n != 1) {
        // Kept as is: the text that users have always been shown.
        const std::string text = "clientMap.size() == " + std::to_string(n);
        log_error((n == 0 ? "Error: " : "Warning: ") + text);
        if (n == 0) throw ProtocolException(text);
    }
    ClientInfo& client = *first;
    const unsigned int id = get_new_proxy_id();
    proxy->attach(create_client_proxy_info(client.id, id, name));
    {
        MutexLock clientLock(client.mutex);
        client.proxy_map[id] = proxy;
    }
    ++m_stats.proxies_created;
    ++m_stats.proxies_active;
}

void Protocol::send_message(ProxyInfo& info, MessageConst& message) {
    MutexLock sendLock(info.send_mutex);
    Header header;
    switch (info.kind) {
        case ProxyInfo::HANDLER:
        case ProxyInfo::CLIENT:
            header.set_message_type(Header::COMMAND);
            break;
        case ProxyInfo::RESERVED:
            header.set_message_type(Header::RESERVED);
            break;
        case ProxyInfo::INVALID:
            assert(false);
            break;
        default:
            break;
    }
    {
        MutexLock state(info.state_mutex);
        if (!info.remote_known) {
            header.set_name(info.name);
        } else {
            header.set_proxy_dest(info.remote_id);
        }
    }
    header.set_proxy_source(info.local_id);

    std::string bytes;
    if (!header.IsInitialized() || !header.SerializeToString(&bytes)) {
        throw ProtocolException("missing required field(s) in header");
    }
    message.push_back(BufferConst(bytes.data(), bytes.size()));

    if (auto transport = get_proxy_transport(info)) {
        ++m_stats.messages_sent;
        transport->send_message(info.client_id, message);
    }
}

void Protocol::proxy_done(ProxyInfo& info) {
    {
        MutexLock state(info.state_mutex);
        info.done = true;
    }
    std::shared_ptr<ClientInfo> client = find_client(info.client_id);
    if (!client) return;
    MutexLock clientLock(client->mutex);
    std::shared_ptr<Proxy> leaving = take_proxy(*client, info.local_id);
    clientLock.unlock();
    // `leaving` may be the last owner; it goes after the lock is released.
}

std::shared_ptr<Proxy> Protocol::take_proxy(ClientInfo& client, unsigned int local_id) {
    auto it = client.proxy_map.find(local_id);
    if (it == client.proxy_map.end()) return nullptr;
    std::shared_ptr<Proxy> proxy = std::move(it->second);
    client.proxy_map.erase(it);
    --m_stats.proxies_active;
    ProxyInfo& info = *proxy->info();
    if (info.kind == ProxyInfo::HANDLER) --client.handlers;
    MutexLock state(info.state_mutex);
    if (info.remote_known) client.by_remote.erase({info.remote_id, local_id});
    return proxy;
}

void Protocol::learn_remote(ClientInfo& client, ProxyInfo& info, unsigned int remote_id) {
    MutexLock state(info.state_mutex);
    if (info.remote_known) return;
    info.remote_id = remote_id;
    info.remote_known = true;
    client.by_remote.insert({remote_id, info.local_id});
}

}  // namespace orvi
