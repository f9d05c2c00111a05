// The RPC engine: registry of transports, peers ("clients") and proxies,
// routing of incoming messages (through a worker pool, or directly on the
// transport's thread), and header stamping on send.
//
// Threads:
//  - workers (routing and every proxy's new_message);
//  - the transports' own threads, through ProtocolTransportHandler
//    (new_client, delete_client, new_message);
//  - application threads (add/remove transports, create proxies, send,
//    wait, destroy).
// A peer's loss is queued behind the messages already received from it and
// handled by a worker in that order: a peer that answers and hangs up has
// its answer processed first. Until then the peer is "departing": its
// messages are still routed, but it takes no new proxies and gets no
// replies.
//
// Direct dispatch (set_direct_dispatch): a transport's thread routes a
// message itself, instead of queueing it, when nothing of that peer is
// queued or being routed. Either way a peer's messages are routed one at a
// time, in the order they arrived. Worker threads start with the first
// message that has to be queued.
//
// Lock order: m_clientsMutex -> m_transportsMutex -> ClientInfo::mutex;
// ClientInfo::mutex -> m_commandsMutex -> m_proxyIdMutex;
// a proxy's mutex -> m_clientsMutex. Each field below names its lock, and
// clang's -Wthread-safety checks that it is held.
// Public header: includes only other public headers.
#pragma once

#include <atomic>
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

// Which messages a transport's thread may route itself (see above).
enum class DirectDispatch {
    kNever,     // every message goes through the workers
    kFollowOn,  // messages to a proxy that exists already: a board, whose
                // opening messages may start commands that block
    kAlways,    // every message and a peer's loss: a client, whose proxies
                // never block the thread that feeds them
};

class Protocol {
  public:
    struct ClientInfo {
        ClientInfo(unsigned int client_id, std::weak_ptr<Transport> client_transport)
            : id(client_id), transport(std::move(client_transport)) {}
        const unsigned int id;
        const std::weak_ptr<Transport> transport;
        Mutex mutex;
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

    // Routing of one received message; runs on a worker.
    void process_message(unsigned int client, const Message<BufferMutable>& message);
    std::shared_ptr<Proxy> command_message(ClientInfo& client, Header& header)
        REQUIRES(client.mutex);

    // Set before the first transport is added.
    void set_direct_dispatch(DirectDispatch mode) { m_direct = mode; }
    // Whether a waiting caller may read its connection itself (see
    // Transport::read_until): only where every message is routed on the
    // thread that reads it, so that its answer cannot end up elsewhere.
    bool caller_reads() const { return m_direct.load() == DirectDispatch::kAlways; }

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
    // A connected or departing client.
    std::shared_ptr<ClientInfo> find_client_locked(unsigned int id, bool* departing = nullptr)
        REQUIRES(m_clientsMutex);
    // The same, its mutex locked hand over hand (the clients lock first,
    // let go once the client's own is held), so that it cannot leave the
    // maps in between. The caller takes the lock over with
    // MutexLock(client->mutex, kAdoptUnseen).
    std::shared_ptr<ClientInfo> lock_client(unsigned int id, bool* departing = nullptr)
        EXCLUDES(m_clientsMutex);
    // Routes `job` on this thread when the dispatch mode allows it and the
    // pool has nothing of its peer under way; false (and nothing done)
    // otherwise.
    bool route_directly(RoutingJob& job);
    void route(RoutingJob& job);
    // Tells the proxies of a departed client that it is gone.
    void client_gone(unsigned int id);
    void reply_no_handler(const std::shared_ptr<Transport>& transport, unsigned int client,
                          const Header& incoming);

    Stats m_stats;

    Mutex m_commandsMutex;
    std::map<std::string, std::shared_ptr<ProxyFactory>> m_commandMap GUARDED_BY(m_commandsMutex);

    Mutex m_transportsMutex;
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
    // Lost, with their loss still queued behind their messages.
    std::map<unsigned int, std::shared_ptr<ClientInfo>> m_departingMap GUARDED_BY(m_clientsMutex);

    // Routes what a transport's thread does not route itself.
    const std::unique_ptr<WorkerPool> m_pool;
    std::atomic<size_t> m_maxHandlersPerClient{kDefaultMaxHandlersPerClient};
    std::atomic<DirectDispatch> m_direct{DirectDispatch::kNever};

    Mutex m_proxyIdMutex;
    unsigned int m_lastProxyId GUARDED_BY(m_proxyIdMutex) = 0;

    Mutex m_lifeMutex;
    std::vector<ProtocolLifeHandler*> m_lifeHandlers GUARDED_BY(m_lifeMutex);
};

}  // namespace orvi
