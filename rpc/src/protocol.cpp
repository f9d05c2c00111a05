#include "orvi/protocol.h"

#include <algorithm>
#include <cassert>
#include <climits>
#include <string>

#include "header.pb.h"
#include "orvi/log_line.h"
#include "protocol_workers.h"

namespace orvi {

namespace {
// Destroyed at exit, after every message object of the program is gone.
ProtoBufCleanup protoBufCleanup;
}  // namespace

Protocol::Protocol(size_t workers) : m_workerCount(workers) {
    assert(workers != 0);
}

Protocol::~Protocol() {
    std::map<std::shared_ptr<Transport>, std::shared_ptr<TransportInfo>> transports;
    std::vector<std::weak_ptr<ProtocolTransportHandler>> given;
    {
        std::lock_guard<std::mutex> lock(m_transportsMutex);
        transports.swap(m_transportMap);
        given.swap(m_handlersGiven);
    }
    // Once the handlers are cleared nothing new reaches the queue, so the
    // workers can be told to stop now and wind down while the transports'
    // threads are joined. Handlers of removed transports are cleared too:
    // their connection records may report a lost client later.
    for (auto& weak : given) {
        if (auto handler = weak.lock()) handler->clear();
    }
    m_stopping = true;
    std::vector<std::thread> workers;
    {
        std::lock_guard<std::mutex> lock(m_queueMutex);
        m_running = false;
        m_queue.clear();
        m_queued.store(0, std::memory_order_release);
        workers.swap(m_workers);
    }
    m_queueCond.notify_all();
    for (auto& entry : transports) entry.first->stop_serve();
    transports.clear();
    for (std::thread& w : workers) w.join();

    std::vector<ProtocolLifeHandler*> handlers;
    {
        std::lock_guard<std::mutex> lock(m_lifeMutex);
        handlers.swap(m_lifeHandlers);
        for (ProtocolLifeHandler* h : handlers) h->m_protocol = nullptr;
    }
    for (ProtocolLifeHandler* h : handlers) h->on_protocol_destroyed(this);
}

void Protocol::add_transport(const std::shared_ptr<Transport>& transport) {
    ++m_stats.transportsAdded;
    ++m_stats.transportsActive;
    std::shared_ptr<ProtocolTransportHandler> handler;
    {
        std::lock_guard<std::mutex> lock(m_transportsMutex);
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
    --m_stats.transportsActive;
    {
        std::lock_guard<std::mutex> lock(m_transportsMutex);
        if (m_transportMap.find(transport) == m_transportMap.end()) return;
    }
    transport->stop_serve();
    std::lock_guard<std::mutex> lock(m_transportsMutex);
    m_transportMap.erase(transport);
}

std::weak_ptr<Transport> Protocol::find_transport(Transport& transport) {
    std::lock_guard<std::mutex> lock(m_transportsMutex);
    for (auto& entry : m_transportMap) {
        if (entry.first.get() == &transport) return entry.first;
    }
    return {};
}

std::shared_ptr<Transport> Protocol::get_proxy_transport(const ProxyInfo& info) {
    std::lock_guard<std::mutex> clients(m_clientsMutex);
    auto it = m_clientMap.find(info.client_id);
    if (it == m_clientMap.end()) return nullptr;
    std::lock_guard<std::mutex> transports(m_transportsMutex);
    std::lock_guard<std::mutex> client(it->second->mutex);
    return it->second->transport.lock();
}

void Protocol::notify_fork(Fork fork) {
    std::lock_guard<std::mutex> lock(m_transportsMutex);
    for (auto& entry : m_transportMap) entry.first->notify_fork(fork);
}

unsigned int Protocol::new_client(Transport& transport) {
    unsigned int id;
    {
        std::lock_guard<std::mutex> lock(m_clientIdMutex);
        id = m_nextClientId++;
    }
    auto client = std::make_shared<ClientInfo>();
    client->id = id;
    client->transport = find_transport(transport);
    {
        std::lock_guard<std::mutex> lock(m_clientsMutex);
        m_clientMap[id] = client;
    }
    ++m_stats.clientsCreated;
    ++m_stats.clientsActive;
    return id;
}

void Protocol::delete_client(unsigned int id) {
    --m_stats.clientsActive;
    {
        std::lock_guard<std::mutex> lock(m_clientsMutex);
        auto it = m_clientMap.find(id);
        if (it == m_clientMap.end()) return;
        // It takes no new proxies from now on, but what it sent before it
        // went is still routed: the loss is handled behind it, by a worker.
        m_departingMap[id] = std::move(it->second);
        m_clientMap.erase(it);
    }
    ClientMessage loss{id, Message<BufferMutable>(), true};
    if (!route_directly(loss)) enqueue(std::move(loss));
}

void Protocol::client_gone(unsigned int id) {
    std::shared_ptr<ClientInfo> client;
    {
        std::lock_guard<std::mutex> lock(m_clientsMutex);
        auto it = m_departingMap.find(id);
        if (it == m_departingMap.end()) return;
        client = std::move(it->second);
        m_departingMap.erase(it);
    }
    // Out of both maps, so nobody else can reach its proxies. They are told
    // with no lock held: client_lost ends in proxy_done, which takes the
    // clients lock.
    std::map<unsigned int, std::shared_ptr<Proxy>> proxies;
    {
        std::lock_guard<std::mutex> lock(client->mutex);
        proxies.swap(client->proxyMap);
        client->byRemote.clear();
        client->handlers = 0;
    }
    for (auto& entry : proxies) {
        --m_stats.proxiesActive;
        entry.second->client_lost("Connection lost");
    }
}

std::shared_ptr<Protocol::ClientInfo> Protocol::find_client_locked(unsigned int id,
                                                                   bool* departing) {
    auto it = m_clientMap.find(id);
    if (it != m_clientMap.end()) {
        if (departing) *departing = false;
        return it->second;
    }
    auto gone = m_departingMap.find(id);
    if (gone == m_departingMap.end()) return nullptr;
    if (departing) *departing = true;
    return gone->second;
}

unsigned int Protocol::get_new_proxy_id() {
    std::lock_guard<std::mutex> lock(m_proxyIdMutex);
    return ++m_lastProxyId;
}

std::shared_ptr<ProxyInfo> Protocol::create_client_proxy_info(unsigned int client,
                                                              unsigned int proxy_id,
                                                              const std::string& name) {
    auto info = std::make_shared<ProxyInfo>();
    info->protocol = this;
    info->kind = ProxyInfo::CLIENT;
    info->client_id = client;
    info->name = name;
    info->local_id = proxy_id;
    return info;
}

void Protocol::add_command(const std::string& name, const std::shared_ptr<ProxyFactory>& factory) {
    std::lock_guard<std::mutex> lock(m_commandsMutex);
    m_commandMap[name] = factory;
}

void Protocol::register_life_handler(ProtocolLifeHandler* handler) {
    std::lock_guard<std::mutex> lock(m_lifeMutex);
    handler->m_protocol = this;
    m_lifeHandlers.push_back(handler);
}

void Protocol::unregister_life_handler(ProtocolLifeHandler* handler) {
    std::lock_guard<std::mutex> lock(m_lifeMutex);
    for (auto it = m_lifeHandlers.begin(); it != m_lifeHandlers.end(); ++it) {
        if (*it == handler) {
            m_lifeHandlers.erase(it);
            break;
        }
    }
    handler->m_protocol = nullptr;
}

void Protocol::bind_client_proxy(const std::shared_ptr<Proxy>& proxy, const char* name) {
    std::lock_guard<std::mutex> lock(m_clientsMutex);
    const size_t n = m_clientMap.size();
    if (n != 1) {
        const std::string text = "clientMap.size() == " + std::to_string(n);
        log_error((n == 0 ? "Error: " : "Warning: ") + text);
        if (n == 0) throw ProtocolException(text);
    }
    ClientInfo& client = *m_clientMap.begin()->second;
    const unsigned int id = get_new_proxy_id();
    proxy->attach(create_client_proxy_info(client.id, id, name));
    {
        std::lock_guard<std::mutex> clientLock(client.mutex);
        client.proxyMap[id] = proxy;
    }
    ++m_stats.proxiesCreated;
    ++m_stats.proxiesActive;
}

void Protocol::send_message(ProxyInfo& info, MessageConst& message) {
    std::lock_guard<std::mutex> sendLock(info.send_mutex);
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
        std::lock_guard<std::mutex> state(info.state_mutex);
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
        ++m_stats.messagesSent;
        transport->send_message(info.client_id, message);
    }
}

void Protocol::proxy_done(ProxyInfo& info) {
    note_proxy_finished();
    {
        std::lock_guard<std::mutex> state(info.state_mutex);
        info.done = true;
    }
    std::shared_ptr<ClientInfo> client;
    std::unique_lock<std::mutex> clientLock;
    {
        std::lock_guard<std::mutex> lock(m_clientsMutex);
        client = find_client_locked(info.client_id);
        if (!client) return;
        clientLock = std::unique_lock<std::mutex>(client->mutex);
    }
    std::shared_ptr<Proxy> leaving = take_proxy(*client, info.local_id);
    clientLock.unlock();
    // `leaving` may be the last owner; it goes after the lock is released.
}

std::shared_ptr<Proxy> Protocol::take_proxy(ClientInfo& client, unsigned int local_id) {
    auto it = client.proxyMap.find(local_id);
    if (it == client.proxyMap.end()) return nullptr;
    std::shared_ptr<Proxy> proxy = std::move(it->second);
    client.proxyMap.erase(it);
    --m_stats.proxiesActive;
    ProxyInfo& info = *proxy->info();
    if (info.kind == ProxyInfo::HANDLER) --client.handlers;
    std::lock_guard<std::mutex> state(info.state_mutex);
    if (info.remote_known) client.byRemote.erase({info.remote_id, local_id});
    return proxy;
}

void Protocol::learn_remote(ClientInfo& client, ProxyInfo& info, unsigned int remote_id) {
    std::lock_guard<std::mutex> state(info.state_mutex);
    if (info.remote_known) return;
    info.remote_id = remote_id;
    info.remote_known = true;
    client.byRemote.insert({remote_id, info.local_id});
}

void Protocol::forward_message_to_proxy(Proxy& proxy, const Message<BufferMutable>& message) {
    proxy.new_message(message.begin() + 1, message.end());
}

void Protocol::process_message(unsigned int id, const Message<BufferMutable>& message) {
    ++m_stats.messagesProcessed;
    std::shared_ptr<ClientInfo> client;
    std::unique_lock<std::mutex> clientLock;
    bool departing = false;
    {
        std::lock_guard<std::mutex> lock(m_clientsMutex);
        if (message.size() == 0) return;
        client = find_client_locked(id, &departing);
        if (!client) return;
        clientLock = std::unique_lock<std::mutex>(client->mutex);
    }

    // Parse failures are not checked: what could be read is routed as is.
    Header header;
    const BufferMutable& first = message[0];
    if (first.size <= INT_MAX) header.ParseFromArray(first.data, static_cast<int>(first.size));

    if (header.message_type() == Header::COMMAND) {
        std::shared_ptr<Proxy> proxy = command_message(*client, header);
        if (proxy) {
            learn_remote(*client, *proxy->info(), header.proxy_source());
            clientLock.unlock();
            forward_message_to_proxy(*proxy, message);
            return;
        }
    } else if (header.message_type() == Header::NO_HANDLER) {
        auto it = client->proxyMap.find(header.proxy_dest());
        if (it != client->proxyMap.end()) {
            std::shared_ptr<Proxy> proxy = it->second;
            clientLock.unlock();
            proxy->set_no_handler();
        }
        return;
    }
    // A departed peer cannot be answered.
    if (departing) return;
    // Sent with no lock held: a send may release the connection and so
    // reach delete_client, which takes the clients lock.
    std::shared_ptr<Transport> transport = client->transport.lock();
    clientLock.unlock();
    reply_no_handler(transport, id, header);
}

std::shared_ptr<Proxy> Protocol::command_message(ClientInfo& client, Header& header) {
    if (header.has_proxy_dest()) {
        auto it = client.proxyMap.find(header.proxy_dest());
        if (it != client.proxyMap.end()) return it->second;
        ++m_stats.messagesNoHandler;
        return nullptr;
    }
    // A repeated opening message from the same remote proxy; the lowest
    // local id wins when several share that peer.
    auto known = client.byRemote.lower_bound({header.proxy_source(), 0});
    if (known != client.byRemote.end() && known->first == header.proxy_source()) {
        return client.proxyMap.at(known->second);
    }

    std::lock_guard<std::mutex> commands(m_commandsMutex);
    auto factory = m_commandMap.find(header.name());
    if (factory == m_commandMap.end()) {
        log_error(std::to_string(client.id) + ": there is no command handler for \"" +
                  header.name() + "\"");
        ++m_stats.messagesNoHandler;
        return nullptr;
    }
    if (client.handlers >= m_maxHandlersPerClient.load()) {
        if (!client.capLogged) {
            client.capLogged = true;
            log_error(std::to_string(client.id) + ": refusing \"" + header.name() + "\": " +
                      std::to_string(client.handlers) + " commands are open, the most allowed");
        }
        ++m_stats.messagesNoHandler;
        return nullptr;
    }
    const unsigned int id = get_new_proxy_id();
    std::shared_ptr<Proxy> proxy = (*factory->second)(*this);
    auto info = std::make_shared<ProxyInfo>();
    info->protocol = this;
    info->kind = ProxyInfo::HANDLER;
    info->client_id = client.id;
    info->name = header.name();
    info->local_id = id;
    info->remote_known = true;
    info->remote_id = header.proxy_source();
    proxy->attach(info);
    client.proxyMap[id] = proxy;
    client.byRemote.insert({info->remote_id, id});
    ++client.handlers;
    ++m_stats.proxiesCreated;
    ++m_stats.proxiesActive;
    return proxy;
}

void Protocol::reply_no_handler(const std::shared_ptr<Transport>& transport, unsigned int client,
                                const Header& incoming) {
    Header reply;
    reply.set_message_type(Header::NO_HANDLER);
    reply.set_proxy_dest(incoming.proxy_source());
    std::string bytes;
    if (!reply.SerializeToString(&bytes))
        throw ProtocolException("failed to serialize error header");
    MessageConst message;
    message.push_back(BufferConst(bytes.data(), bytes.size()));
    if (transport) {
        ++m_stats.messagesSent;
        transport->send_message(client, message);
    }
}

}  // namespace orvi
