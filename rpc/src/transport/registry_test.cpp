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
    auto t = make_transport(map, "tcp://127.0.0.2:7000?bind=127.0.0.1");
    auto* socket = dynamic_cast<TransportSimpleSocketClient*>(t.get());
    ASSERT_NE(socket, nullptr);
    EXPECT_EQ(socket->m_host + " " + socket->m_port + " bind " + socket->m_bind,
              "127.0.0.2 7000 bind 127.0.0.1");
    for (const char* url : {"udp://127.0.0.2:7000", "TCP://127.0.0.2:7000", "127.0.0.1:7000"})
        EXPECT_EQ(make_transport(map, url), nullptr) << url;

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
