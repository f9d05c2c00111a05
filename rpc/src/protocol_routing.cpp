// The engine's routing of incoming messages: on the transport's thread when
// the peer has nothing under way (direct dispatch), otherwise through the
// worker pool; then to the proxy they are for, or a new handler proxy.
#include <climits>
#include <string>

#include "envelope/header.pb.h"
#include "orvi/log_line.h"
#include "orvi/protocol.h"
#include "worker_pool.h"

namespace orvi {

void Protocol::new_message(unsigned int id, Message<BufferMutable>& message) {
    RoutingJob job{id, std::move(message)};
    if (!route_directly(job)) m_pool->submit(std::move(job));
}

bool Protocol::route_directly(RoutingJob& item) {
    const DirectDispatch mode = m_direct.load();
    if (mode == DirectDispatch::kNever) return false;
    if (mode == DirectDispatch::kFollowOn) {
        // Only a message to a proxy that exists: an opening message may
        // start a command that blocks its thread, and a loss may reach one.
        if (item.lost || item.message.size() == 0) return false;
        Header header;
        const BufferMutable& first = item.message[0];
        if (first.size > INT_MAX ||
            !header.ParseFromArray(first.data, static_cast<int>(first.size)) ||
            header.message_type() != Header::COMMAND || !header.has_proxy_dest()) {
            return false;
        }
        MutexLock clients(m_clientsMutex);
        std::shared_ptr<ClientInfo> client = find_client_locked(item.peer);
        if (!client) return false;
        MutexLock lock(client->mutex);
        if (client->proxy_map.count(header.proxy_dest()) == 0) return false;
    }
    return m_pool->run_here(item);
}

void Protocol::route(RoutingJob& item) {
    try {
        if (item.lost) {
            client_gone(item.peer);
        } else {
            process_message(item.peer, item.message);
        }
    } catch (const std::exception& e) {
        log_error("Exception while processing message for client " + std::to_string(item.peer) +
                  ": " + e.what());
    } catch (...) {
        log_error("Unknown exception while processing message for client " +
                  std::to_string(item.peer));
    }
    item.message = Message<BufferMutable>();
}

void Protocol::forward_message_to_proxy(Proxy& proxy, const Message<BufferMutable>& message) {
    proxy.new_message(message.begin() + 1, message.end());
}

void Protocol::process_message(unsigned int id, const Message<BufferMutable>& message) {
    ++m_stats.messages_processed;
    if (message.size() == 0) return;
    bool departing = false;
    std::shared_ptr<ClientInfo> client = lock_client(id, &departing);
    if (!client) return;
    MutexLock clientLock(client->mutex, kAdoptUnseen);

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
        auto it = client->proxy_map.find(header.proxy_dest());
        if (it != client->proxy_map.end()) {
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
        auto it = client.proxy_map.find(header.proxy_dest());
        if (it != client.proxy_map.end()) return it->second;
        ++m_stats.messages_no_handler;
        return nullptr;
    }
    // A repeated opening message from the same remote proxy; the lowest
    // local id wins when several share that peer.
    auto known = client.by_remote.lower_bound({header.proxy_source(), 0});
    if (known != client.by_remote.end() && known->first == header.proxy_source()) {
        return client.proxy_map.at(known->second);
    }

    MutexLock commands(m_commandsMutex);
    auto factory = m_commandMap.find(header.name());
    if (factory == m_commandMap.end()) {
        log_error(std::to_string(client.id) + ": there is no command handler for \"" +
                  header.name() + "\"");
        ++m_stats.messages_no_handler;
        return nullptr;
    }
    if (client.handlers >= m_maxHandlersPerClient.load()) {
        if (!client.cap_logged) {
            client.cap_logged = true;
            log_error(std::to_string(client.id) + ": refusing \"" + header.name() + "\": " +
                      std::to_string(client.handlers) + " commands are open, the most allowed");
        }
        ++m_stats.messages_no_handler;
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
    {
        // Nobody else sees it yet; locked all the same, as the rule says.
        MutexLock state(info->state_mutex);
        info->remote_known = true;
        info->remote_id = header.proxy_source();
    }
    proxy->attach(info);
    client.proxy_map[id] = proxy;
    client.by_remote.insert({header.proxy_source(), id});
    ++client.handlers;
    ++m_stats.proxies_created;
    ++m_stats.proxies_active;
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
        ++m_stats.messages_sent;
        transport->send_message(client, message);
    }
}

}  // namespace orvi
