// SPDX-License-Identifier: Apache-2.0
// The RPC engine: registry of transports, peers ("clients") and proxies,
// routing of incoming messages, and header stamping on send.
//
// Routing. Each peer (ClientInfo) has a queue and a turn (orvi/turn.h).
// A message from a peer, and finally its loss, join the peer's queue; the
// thread that holds the peer's turn routes what is queued, one at a time,
// in arrival order. The thread that delivered a message takes the turn when
// nobody holds it, and so routes on the spot: the transport's reader thread,
// or a caller that reads its connection while it waits for its answer (see
// caller_reads). A message that may start a handler that blocks (an opening
// message, or the loss, in an engine that serves commands) is not routed
// there: the turn is handed to a worker, which routes it and whatever queued
// behind it. Routing without the turn fails the -Wthread-safety build.
//
// Threads:
//  - the transports' own threads, through ProtocolTransportHandler
//    (new_client, delete_client, new_message), and routing as above;
//  - workers, started with the first turn handed to one;
//  - application threads (add/remove transports, create proxies, send,
//    wait, destroy), which route too while they read their connection.
// A lost peer stays in the client map, departing, until its loss is routed:
// its messages are still routed, but it takes no new proxies and gets no
// replies.
//
// Lock order (declared below, checked with -Wthread-safety-beta):
// m_clientsMutex -> m_transportsMutex -> ClientInfo::mutex;
// ClientInfo::mutex -> m_commandsMutex -> m_proxyIdMutex;
// a proxy's mutex -> m_clientsMutex. A peer's turn is taken and given back
// under its mutex, and held, with no mutex, while routing.
// Public header: includes only other public headers.
#pragma once

#include <atomic>
#include <list>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "orvi/exceptions.h"
#include "orvi/message.h"
#include "orvi/mutex.h"
#include "orvi/proxy.h"
#include "orvi/transport.h"
#include "orvi/turn.h"

namespace orvi {

class Header;
class Protocol;
class ProtocolTransportHandler;
class WorkerPool;
struct RoutingJob;

// Told when an engine goes away. The engine clears m_protocol, under its
// life-handler lock, before it calls on_protocol_destroyed; a handler
// destroyed first unregisters itself. A handler must not be destroyed while
// its engine is being destroyed on another thread.
class ProtocolLifeHandler {
  public:
    virtual ~ProtocolLifeHandler();
    virtual void on_protocol_destroyed(Protocol* protocol) = 0;

    // Written by the engine under its life-handler lock; atomic, as the
    // handler's destructor reads it without that lock.
    std::atomic<Protocol*> m_protocol{nullptr};
};

class Protocol {
  public:
    // One peer: its queue, its turn and its proxies.
    struct ClientInfo {
        ClientInfo(unsigned int client_id, std::weak_ptr<Transport> client_transport);
        ~ClientInfo();
        ClientInfo(const ClientInfo&) = delete;
        ClientInfo& operator=(const ClientInfo&) = delete;
        const unsigned int id;
        const std::weak_ptr<Transport> transport;
        Mutex mutex;
        // Whoever holds it routes what is queued; see above.
        Turn turn;
        std::list<RoutingJob> queue GUARDED_BY(mutex);
        // Lost, with the loss queued behind its messages.
        bool departing GUARDED_BY(mutex) = false;
        std::map<unsigned int, std::shared_ptr<Proxy>> proxy_map GUARDED_BY(mutex);
        // (remote id, local id) of every proxy in proxy_map whose peer is
        // known, so that an opening message finds its proxy without a scan.
        std::set<std::pair<unsigned int, unsigned int>> by_remote GUARDED_BY(mutex);
        size_t handlers GUARDED_BY(mutex) = 0;  // handler proxies in proxy_map
        bool cap_logged GUARDED_BY(mutex) = false;
    };

    // Up to `workers` threads, started when first needed; 0 is a
    // programming error.
    explicit Protocol(size_t workers);
    // Stops every transport, drops queued messages, joins the workers, then
    // tells the life handlers. Must not run on a worker thread, nor on a
    // transport's thread.
    ~Protocol();
    Protocol(const Protocol&) = delete;
    Protocol& operator=(const Protocol&) = delete;

    void add_transport(const std::shared_ptr<Transport>& transport);
    void remove_transport(const std::shared_ptr<Transport>& transport);
    std::weak_ptr<Transport> find_transport(Transport& transport);
    std::shared_ptr<Transport> get_proxy_transport(const ProxyInfo& info);
    void notify_fork(Fork fork);

    // Transport side (through ProtocolTransportHandler).
    unsigned int new_client(Transport& transport);
    void delete_client(unsigned int id);
    void new_message(unsigned int id, Message<BufferMutable>& message);

    unsigned int get_new_proxy_id();
    std::shared_ptr<ProxyInfo> create_client_proxy_info(unsigned int client, unsigned int proxy_id,
                                                        const std::string& name);
    void add_command(const std::string& name, const std::shared_ptr<ProxyFactory>& factory);
    void register_life_handler(ProtocolLifeHandler* handler);
    void unregister_life_handler(ProtocolLifeHandler* handler);

    // A client proxy of type T for the command `name` on the peer with the
    // lowest client id. Throws ProtocolException when no peer is connected.
    template <class T>
    std::shared_ptr<T> create_command_proxy(const char* name) {
        auto proxy = std::make_shared<T>(*this);
        bind_client_proxy(proxy, name);
        return proxy;
    }
    // The same for a proxy class that names its own command (T::kName).
    template <class T>
    std::shared_ptr<T> create_command_proxy() {
        return create_command_proxy<T>(T::kName);
    }

    // Proxy side.
    void send_message(ProxyInfo& info, MessageConst& message);
    void proxy_done(ProxyInfo& info);
    void forward_message_to_proxy(Proxy& proxy, const Message<BufferMutable>& message);

    // Whether a waiting caller may read its connection itself (see
    // Transport::read_until): only in an engine that serves no commands,
    // where every message is routed by the thread that reads it, so that
    // the caller's answer cannot end up on a worker.
    bool caller_reads() const { return !m_servesCommands.load(); }

    // Commands a peer may have open here at once. The opening message of one
    // more is answered as undeliverable (NO_HANDLER), so a peer that opens
    // commands and never finishes them cannot exhaust memory.
    void set_max_handlers_per_client(size_t n) { m_maxHandlersPerClient = n; }
    static constexpr size_t kDefaultMaxHandlersPerClient = 1024;

    // Test hook: counters that tests read to see what the engine did.
    struct Stats {
        std::atomic<unsigned> transports_added{0}, transports_active{0};
        std::atomic<unsigned> clients_created{0}, clients_active{0};
        std::atomic<unsigned> proxies_created{0}, proxies_active{0};
        std::atomic<unsigned> messages_sent{0}, messages_processed{0}, messages_no_handler{0};
    };
    const Stats& stats() const { return m_stats; }

  private:
    struct TransportInfo {
        std::shared_ptr<ProtocolTransportHandler> handler;
    };

    void bind_client_proxy(const std::shared_ptr<Proxy>& proxy, const char* name);
    // Records the peer of a proxy that has just learnt it.
    static void learn_remote(ClientInfo& client, ProxyInfo& info, unsigned int remote_id)
        REQUIRES(client.mutex);
    // Takes a proxy out of its client's maps.
    std::shared_ptr<Proxy> take_proxy(ClientInfo& client, unsigned int local_id)
        REQUIRES(client.mutex);
    // The peer with this id, connected or departing.
    std::shared_ptr<ClientInfo> find_client(unsigned int id) EXCLUDES(m_clientsMutex);
    // Queues `job` for its peer and routes the queue if the turn is free.
    void deliver(const std::shared_ptr<ClientInfo>& peer, RoutingJob job);
    // Routes the peer's queue until it is empty, then gives the turn back;
    // or hands the turn to a worker at a job that may block, unless this is
    // a worker already.
    void route_queue(const std::shared_ptr<ClientInfo>& peer, bool on_worker) RELEASE(peer->turn);
    void route(ClientInfo& peer, RoutingJob& job) REQUIRES(peer.turn);
    void process_message(ClientInfo& peer, const RoutingJob& job) REQUIRES(peer.turn);
    std::shared_ptr<Proxy> command_message(ClientInfo& client, const Header& header)
        REQUIRES(client.mutex);
    bool may_block(const RoutingJob& job) const;
    // Tells the proxies of a departed client that it is gone.
    void client_gone(ClientInfo& peer) REQUIRES(peer.turn);
    void reply_no_handler(const std::shared_ptr<Transport>& transport, unsigned int client,
                          const Header& incoming);

    Stats m_stats;

    Mutex m_commandsMutex ACQUIRED_BEFORE(m_proxyIdMutex);
    std::map<std::string, std::shared_ptr<ProxyFactory>> m_commandMap GUARDED_BY(m_commandsMutex);

    Mutex m_transportsMutex ACQUIRED_AFTER(m_clientsMutex);
    std::map<std::shared_ptr<Transport>, std::shared_ptr<TransportInfo>> m_transportMap
        GUARDED_BY(m_transportsMutex);
    // Every handler given out, also those of removed transports, whose
    // connection records may outlive this engine: all are cleared when it goes.
    std::vector<std::weak_ptr<ProtocolTransportHandler>> m_handlersGiven
        GUARDED_BY(m_transportsMutex);

    Mutex m_clientIdMutex;
    unsigned int m_nextClientId GUARDED_BY(m_clientIdMutex) = 1;

    Mutex m_clientsMutex;
    std::map<unsigned int, std::shared_ptr<ClientInfo>> m_clientMap GUARDED_BY(m_clientsMutex);

    // Route the peers whose turn was handed to them.
    const std::unique_ptr<WorkerPool> m_pool;
    std::atomic<size_t> m_maxHandlersPerClient{kDefaultMaxHandlersPerClient};
    // Set by the first add_command.
    std::atomic<bool> m_servesCommands{false};

    Mutex m_proxyIdMutex;
    unsigned int m_lastProxyId GUARDED_BY(m_proxyIdMutex) = 0;

    Mutex m_lifeMutex;
    std::vector<ProtocolLifeHandler*> m_lifeHandlers GUARDED_BY(m_lifeMutex);
};

}  // namespace orvi
