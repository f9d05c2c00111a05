// SPDX-License-Identifier: Apache-2.0
// Buffer lists and the envelope headers, on bytes.
#include "orvi/message.h"

#include <gtest/gtest.h>

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
// board, are checked against the hand-written codec elsewhere. A status out
// of range leaves the required field absent: the header is invalid.
TEST(Envelope, AStatusOutOfRangeMakesTheHeaderInvalid) {
    CommandHeader bad;
    EXPECT_FALSE(bad.ParseFromString(std::string("\x08\x03", 2)));
    EXPECT_FALSE(bad.has_status());
}

}  // namespace
}  // namespace orvi
