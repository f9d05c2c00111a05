// SPDX-License-Identifier: Apache-2.0
// The engine's routing of incoming messages: each joins its peer's queue,
// which the holder of the peer's turn routes, to the proxy it is for or a
// new handler proxy.
#include <climits>
#include <string>

#include "envelope/header.pb.h"
#include "orvi/log_line.h"
#include "orvi/protocol.h"
#include "routing_job.h"
#include "worker_pool.h"

namespace orvi {

void Protocol::new_message(unsigned int id, Message<BufferMutable>& message) {
    std::shared_ptr<ClientInfo> peer = find_client(id);
    if (!peer) return;
    RoutingJob job;
    job.message = std::move(message);
    // Parsed here, once. Parse failures are not checked: what could be read
    // is routed as is.
    if (job.message.size() != 0) {
        const BufferMutable& first = job.message[0];
        if (first.size <= INT_MAX)
            job.header.ParseFromArray(first.data, static_cast<int>(first.size));
    }
    deliver(peer, std::move(job));
}

void Protocol::deliver(const std::shared_ptr<ClientInfo>& peer, RoutingJob job) {
    {
        MutexLock lock(peer->mutex);
        peer->queue.push_back(std::move(job));
        // Busy: the holder routes it after what it has.
        if (!peer->turn.try_take()) return;
    }
    route_queue(peer, false);
}

bool Protocol::may_block(const RoutingJob& job) const {
    // An engine that serves no commands runs no handler.
    if (!m_servesCommands.load()) return false;
    return job.lost || (job.message.size() != 0 && job.header.message_type() == Header::COMMAND &&
                        !job.header.has_proxy_dest());
}

void Protocol::route_queue(const std::shared_ptr<ClientInfo>& peer, bool on_worker) {
    for (;;) {
        RoutingJob job;
        {
            MutexLock lock(peer->mutex);
            if (peer->queue.empty()) {
                peer->turn.give_back();
                return;
            }
            if (!on_worker && may_block(peer->queue.front())) {
                // The worker routes this job and what queues behind it.
                peer->turn.hand_off();
                lock.unlock();
                std::shared_ptr<ClientInfo> handed = peer;
                m_pool->submit([this, handed]() {
                    handed->turn.resume();
                    route_queue(handed, true);
                });
                return;
            }
            job = std::move(peer->queue.front());
            peer->queue.pop_front();
        }
        route(*peer, job);
    }
}

void Protocol::route(ClientInfo& peer, RoutingJob& job) {
    try {
        if (job.lost) {
            client_gone(peer);
        } else {
            process_message(peer, job);
        }
    } catch (const std::exception& e) {
        log_error("Exception while processing message for client " + std::to_string(peer.id) +
                  ": " + e.what());
    } catch (...) {
        log_error("Unknown exception while processing message for client " +
                  std::to_string(peer.id));
    }
}

void Protocol::forward_message_to_proxy(Proxy& proxy, const Message<BufferMutable>& message) {
    proxy.new_message(message.begin() + 1, message.end());
}

void Protocol::process_message(ClientInfo& client, const RoutingJob& job) {
    ++m_stats.messages_processed;
    const Message<BufferMutable>& message = job.message;
    if (message.size() == 0) return;
    const Header& header = job.header;
    MutexLock clientLock(client.mutex);

    if (header.message_type() == Header::COMMAND) {
        std::shared_ptr<Proxy> proxy = command_message(client, header);
        if (proxy) {
            learn_remote(client, *proxy->info(), header.proxy_source());
            clientLock.unlock();
            forward_message_to_proxy(*proxy, message);
            return;
        }
    } else if (header.message_type() == Header::NO_HANDLER) {
        auto it = client.proxy_map.find(header.proxy_dest());
        if (it != client.proxy_map.end()) {
            std::shared_ptr<Proxy> proxy = it->second;
            clientLock.unlock();
            proxy->set_no_handler();
        }
        return;
    }
    // A departed peer cannot be answered.
    if (client.departing) return;
    // Sent with no lock held: a send may release the connection and so
    // reach delete_client, which takes the clients lock.
    std::shared_ptr<Transport> transport = client.transport.lock();
    clientLock.unlock();
    reply_no_handler(transport, client.id, header);
}

std::shared_ptr<Proxy> Protocol::command_message(ClientInfo& client, const Header& header) {
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
    auto info = std::make_shared<ProxyInfo>(this, ProxyInfo::HANDLER, client.id, header.name(), id);
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
