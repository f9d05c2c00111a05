// SPDX-License-Identifier: Apache-2.0
#include "orvi/transport_registry.h"

#include <gtest/gtest.h>

#include "orvi/transport_simple_socket_client.h"

namespace orvi {
namespace detail {
namespace {

struct Other : TransportSimpleSocketClient {
    explicit Other(const Url& u) : TransportSimpleSocketClient(u) {}
};

TEST(Registry, TcpIsRegisteredBeforeMainMatchedExactlyOnceAndForAll) {
    auto& map = get_client_factory_map();
    auto t = make_transport(map, "tcp://127.0.0.1:7000");
    auto* socket = dynamic_cast<TransportSimpleSocketClient*>(t.get());
    ASSERT_NE(socket, nullptr);
    EXPECT_EQ(socket->m_host, "127.0.0.1");
    EXPECT_EQ(socket->m_port, "7000");
    EXPECT_EQ(socket->m_bind, "");
    EXPECT_THROW(socket->send_message(MessageConst()), SimpleSocketException);  // not connected

    auto bound = make_transport(map, "tcp://127.0.0.2:7000?bind=127.0.0.1");
    EXPECT_EQ(dynamic_cast<TransportSimpleSocketClient&>(*bound).m_bind, "127.0.0.1");

    EXPECT_EQ(make_transport(map, "udp://127.0.0.2:7000"), nullptr);
    EXPECT_EQ(make_transport(map, "TCP://127.0.0.2:7000"), nullptr);
    EXPECT_EQ(make_transport(map, "127.0.0.1:7000"), nullptr);

    // The first registration of a scheme wins.
    EXPECT_FALSE(register_protocol_transport<Other>(map, "tcp"));
    EXPECT_EQ(dynamic_cast<Other*>(make_transport(map, "tcp://h:1").get()), nullptr);
    TransportFactoryMap fresh;
    EXPECT_TRUE(register_protocol_transport<Other>(fresh, "tcp"));
    EXPECT_NE(dynamic_cast<Other*>(make_transport(fresh, "tcp://h:1").get()), nullptr);
}

}  // namespace
}  // namespace detail
}  // namespace orvi
