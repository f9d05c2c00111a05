// SPDX-License-Identifier: Apache-2.0
// Proxies: one end of one command exchange.
//
// Threads: new_message, set_no_handler and client_lost run on whichever
// thread holds the peer's turn (orvi/protocol.h): the connection's reader
// thread, a caller that reads while it waits, or a worker; one message of a
// peer at a time. wait() and the sends of a client proxy run on the
// application thread. Proxies are always held by std::shared_ptr and are not
// copyable.
// Public header: includes only other public headers.
#pragma once

#include <atomic>
#include <memory>
#include <string>

#include "orvi/message.h"
#include "orvi/proxy_info.h"

namespace orvi {

class Protocol;
class Transport;
class CommandHeader;

class Proxy {
  public:
    using const_iterator = Message<BufferMutable>::const_iterator;

    explicit Proxy(Protocol& protocol) : m_protocol(&protocol) {}
    virtual ~Proxy() = default;
    Proxy(const Proxy&) = delete;
    Proxy& operator=(const Proxy&) = delete;

    virtual void new_message(const_iterator first, const_iterator last) = 0;
    // Marks the proxy done and takes it out of its client's map.
    virtual void set_done();
    virtual void client_lost(const std::string& reason) { (void)reason; }
    virtual void set_no_handler() {}

    bool is_done() const;
    void send_message(MessageConst& message);
    void send_message(const char* data, unsigned int size);
    std::shared_ptr<Transport> get_transport();
    unsigned int get_transport_client_id() const;

    // Called once by the engine when it registers the proxy.
    void attach(const std::shared_ptr<ProxyInfo>& info) { m_info = info; }
    const std::shared_ptr<ProxyInfo>& info() const { return m_info; }
    Protocol& protocol() const { return *m_protocol; }

  private:
    Protocol* m_protocol;
    std::shared_ptr<ProxyInfo> m_info;
};

// Adds the command header to everything a proxy sends.
class ProxyCommand : public Proxy {
  public:
    using Proxy::Proxy;
    using Proxy::send_message;

    // Throws ProxyCommandException when the header lacks its status.
    void send_message(const CommandHeader& header, MessageConst& message);
    // Status DATA.
    void send_message(MessageConst& message);
    void send_message(const char* data, unsigned int size);
};

// The calling side. The application thread sends and then blocks in wait();
// answers reach process_message on the thread that holds the peer's turn:
// the waiting application thread itself, or the connection's reader.
class ProxyCommandClient : public ProxyCommand {
  public:
    using ProxyCommand::ProxyCommand;
    ~ProxyCommandClient() override;

    void new_message(const_iterator first, const_iterator last) override;
    void set_done() override;
    void client_lost(const std::string& reason) override;
    void set_no_handler() override;
    void set_remote_exception(const std::string& text);

    // Blocks until the command ends. Throws ProxyCommandNoHandler or
    // ProxyCommandException for a non-empty remote failure text.
    void wait();

  protected:
    // One data buffer of an answer.
    virtual void process_message(const char* data, unsigned int size) = 0;

  private:
    Mutex m_mutex;
    CondVar m_cond;
    // Set, under m_mutex, when the command ends; read without the lock by a
    // waiter that reads its own answer.
    std::atomic<bool> m_ended{false};
    std::string m_exception GUARDED_BY(m_mutex);
    bool m_noHandler GUARDED_BY(m_mutex) = false;
};

// The serving side: made by a ProxyFactory for each incoming command.
class ProxyCommandHandler : public ProxyCommand {
  public:
    using ProxyCommand::ProxyCommand;

    void new_message(const_iterator first, const_iterator last) override;
    // Sends DONE, then leaves the engine's map.
    void set_done() override;
    void send_command_done();
    void send_command_exception(const std::string& text);

  protected:
    // One data buffer of a request. A std::exception thrown here is sent to
    // the caller as the command's failure.
    virtual void process_message(const char* data, unsigned int size) = 0;
};

class ProxyFactory {
  public:
    virtual ~ProxyFactory() = default;
    virtual std::shared_ptr<Proxy> operator()(Protocol& protocol) = 0;
};

// A factory that constructs T(protocol).
template <class T>
class ProxyFactoryTpl : public ProxyFactory {
  public:
    std::shared_ptr<Proxy> operator()(Protocol& protocol) override {
        return std::make_shared<T>(protocol);
    }
};

}  // namespace orvi
