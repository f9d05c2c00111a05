// Orderings and lifetimes that real peers provoke: a peer that answers and
// hangs up at once, an answer inside the DONE, a transport that outlives its
// engine, a reader stopped in the middle of a frame, a send racing a
// disconnect. Run under ASan and TSan, which see what the checks cannot.
#include <gtest/gtest.h>
#include <atomic>
#include <chrono>
#include <thread>

#include "loopback.h"
#include "orvi/protocol.h"
#include "orvi/transport_simple_socket_client.h"
#include "testing/recording_handler.h"

namespace orvi {
namespace {

using support::hex;
using support::RawConnection;
using support::RawListener;

// Takes its time over each answer body, so that a waiter released too early
// would see nothing.
struct SlowCall : ProxyCommandClient {
    using ProxyCommandClient::ProxyCommandClient;
    std::string reply;
    void process_message(const char* data, unsigned int size) override {
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
        reply.assign(data, size);
    }
    std::string execute() {
        send_message("x", 1);
        wait();
        return reply;
    }
};

// A peer on raw sockets: the handshake, then whole frames read blindly.
struct Peer {
    RawListener listener;
    std::unique_ptr<RawConnection> conn;

    std::shared_ptr<TransportSimpleSocketClient> connect() {
        auto t = std::make_shared<TransportSimpleSocketClient>("127.0.0.1", listener.port_text());
        std::thread accept([&] {
            conn = std::make_unique<RawConnection>(listener.accept_one());
            conn->read(2);
            conn->write(hex("01"));
        });
        t->connect(0);
        accept.join();
        return t;
    }
    void read_frame() {
        const auto count = static_cast<unsigned char>(conn->read(1)[0]);
        for (unsigned i = 0; i < count; ++i) {
            const std::string len = conn->read(4);
            conn->read((uint8_t(len[2]) << 8) | uint8_t(len[3]));
        }
    }
};

// Header to proxy 1 from proxy 2, then a command header, then the body.
const std::string kData = hex("03 00000006 080010022001 00000002 0800 00000002 6869");
const std::string kDone = hex("02 00000006 080010022001 00000002 0801");
const std::string kDoneWithBody = hex("03 00000006 080010022001 00000002 0801 00000002 6869");
// An exception without text ends the command normally.
const std::string kEmptyExceptionWithBody =
    hex("03 00000006 080010022001 00000002 0802 00000002 6869");

// One command against a peer that reads the request and answers `reply`,
// then hangs up if told to; returns what the caller got.
std::string call_answered_by(const std::string& reply, bool hang_up) {
    Peer peer;
    Protocol protocol(1);
    protocol.add_transport(peer.connect());
    auto call = protocol.create_command_proxy<SlowCall>("cmd");
    std::thread board([&] {
        peer.read_frame();
        peer.conn->write(reply);
        if (hang_up) peer.conn->close();
    });
    const std::string got = call->execute();
    board.join();
    return got;
}

// A complete answer is never lost: not to a hang-up right behind it, nor to
// a waiter released before the body that rides on the end is processed.
TEST(EngineHazards, ACompleteAnswerIsInPlaceWhenWaitReturns) {
    const struct {
        std::string reply;
        bool hang_up;
        int runs;
    } cases[] = {{kData + kDone, true, 30},
                 {kDoneWithBody, false, 1},
                 {kEmptyExceptionWithBody, false, 1},
                 {kDoneWithBody, true, 1}};
    for (const auto& c : cases) {
        for (int run = 0; run < c.runs; ++run) {
            EXPECT_EQ(call_answered_by(c.reply, c.hang_up), "hi")
                << support::to_hex(c.reply) << " hang up " << c.hang_up << " run " << run;
        }
    }
}

// The connection record of a removed transport reports its lost client
// when the transport goes, which may be after the engine is gone.
TEST(EngineHazards, RemovedTransportMayOutliveItsEngine) {
    Peer peer;
    auto transport = peer.connect();
    auto protocol = std::make_unique<Protocol>(1);
    protocol->add_transport(transport);
    protocol->remove_transport(transport);
    protocol.reset();
    transport.reset();  // the record tells a handler whose engine is gone
    EXPECT_TRUE(peer.conn->wait_closed());
}

TEST(EngineHazards, LifeHandlerPointerIsClearedUnderTheEngineLock) {
    struct Watcher : ProtocolLifeHandler {
        std::atomic<bool> told{false};
        void on_protocol_destroyed(Protocol*) override { told = true; }
    } watcher;
    auto protocol = std::make_unique<Protocol>(1);
    protocol->register_life_handler(&watcher);
    std::thread watching([&] {
        while (watcher.m_protocol.load() != nullptr) std::this_thread::yield();
    });
    protocol.reset();
    watching.join();
    EXPECT_TRUE(watcher.told);
}

TEST(TransportHazards, SendsRaceADisconnectSafely) {
    Peer peer;
    auto transport = peer.connect();
    auto handler = std::make_shared<testing::RecordingHandler>();
    transport->start_serve(handler);
    std::atomic<int> sent{0}, refused{0};
    std::thread sender([&] {
        const char byte = 'x';
        MessageConst m;
        m.push_back(BufferConst(&byte, 1));
        for (int i = 0; i < 2000; ++i) {
            try {
                transport->send_message(m);
                ++sent;
            } catch (const SimpleSocketException&) {
                ++refused;
            }
        }
    });
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
    transport->disconnect();
    sender.join();
    EXPECT_EQ(sent + refused, 2000);
    EXPECT_THROW(transport->send_message(MessageConst()), SimpleSocketException);
}

// Stopped while a frame is half read, a reader that serves again goes on
// from the same byte: the stream never slips out of step.
TEST(TransportHazards, StopInTheMiddleOfAFrameResumesAtTheSameByte) {
    Peer peer;
    auto transport = peer.connect();
    auto handler = std::make_shared<testing::RecordingHandler>();
    transport->start_serve(handler);
    const std::string frame = hex("02 00000003 616263 00000002 6465");
    peer.conn->write(frame.substr(0, 6));
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    transport->stop_serve();
    transport->start_serve(handler);
    peer.conn->write(frame.substr(6) + hex("01 00000001 66"));
    ASSERT_TRUE(handler->wait_messages(2));
    const auto messages = handler->messages();
    EXPECT_EQ(messages[0].buffers, (std::vector<std::string>{"abc", "de"}));
    EXPECT_EQ(messages[1].buffers, (std::vector<std::string>{"f"}));
    transport->disconnect();
}

}  // namespace
}  // namespace orvi
