// SPDX-License-Identifier: Apache-2.0
// Buffer lists and the envelope headers, on bytes.
#include "orvi/message.h"

#include <gtest/gtest.h>

#include "envelope/header.pb.h"
#include "envelope/proxy/command_header.pb.h"

namespace orvi {
namespace {

TEST(MessageList, HoldsAtMost255Buffers) {
    MessageConst m;
    for (int i = 0; i < 255; ++i) m.push_back(BufferConst("x", 1));
    EXPECT_EQ(m.size(), 255u);
    EXPECT_DEATH(m.push_back(BufferConst("x", 1)),
                 "m_buffers.size\\(\\) != std::numeric_limits<size_type>::max\\(\\)");
}

// The engine's frames, and an EXCEPTION with its text from a hand-written
// board, are checked against the hand-written codec elsewhere; what no other
// test sends is checked here.
TEST(Envelope, HeadersOnTheWire) {
    // Presence, not value, steers routing.
    Header parsed;
    ASSERT_TRUE(parsed.ParseFromString(std::string("\x08\x00\x20\x00", 4)));
    EXPECT_TRUE(parsed.has_proxy_dest());
    EXPECT_FALSE(parsed.has_name());

    // A status out of range leaves the field absent: the header is invalid.
    CommandHeader bad;
    EXPECT_FALSE(bad.ParseFromString(std::string("\x08\x03", 2)));
    EXPECT_FALSE(bad.has_status());
}

}  // namespace
}  // namespace orvi
