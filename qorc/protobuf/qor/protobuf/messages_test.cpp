// SPDX-License-Identifier: Apache-2.0
// Serialised bodies checked against bytes worked out by hand from the
// schemas (field number << 3 | wire type, then the value).
#include <gtest/gtest.h>

#include "qor/protobuf/device/get.pb.h"
#include "qor/protobuf/device/psi_get.pb.h"
#include "qor/protobuf/fw_config_mode.pb.h"
#include "qor/protobuf/sysupgrade.pb.h"

namespace {

namespace pb = qor::protobuf;

template <class M>
std::string bytes(const M& m) {
    std::string out;
    EXPECT_TRUE(m.SerializeToString(&out));
    return out;
}

TEST(Messages, SerialiseToTheExpectedBytes) {
    pb::device::psi_get::Request psi;
    psi.set_device_id(0);
    psi.set_path("/boot/psi");
    EXPECT_EQ(bytes(psi), std::string("\x08\x00\x12\x09/boot/psi", 13));

    pb::sysupgrade::Request up;
    up.set_keep_config(false);
    up.set_fw_size(4097);  // varint 0x81 0x20
    EXPECT_EQ(bytes(up), std::string("\x08\x00\x10\x81\x20", 5));
    up.set_not_save_config(true);
    EXPECT_EQ(bytes(up), std::string("\x08\x00\x10\x81\x20\x18\x01", 7));

    // The unknown-device id travels as int32 -1: ten bytes of varint.
    pb::device::get::Request get;
    get.set_device_id(static_cast<int32_t>(0xFFFFFFFFu));
    EXPECT_EQ(bytes(get), std::string("\x08\xff\xff\xff\xff\xff\xff\xff\xff\xff\x01", 11));

    EXPECT_EQ(bytes(pb::fw_config_mode::Request()), "");

    // The board's answer to a lost device.
    pb::device::get::Answer lost;
    lost.set_status(pb::device::status::DEVICE_LOST);
    EXPECT_EQ(bytes(lost), "\x08\x02");
}

}  // namespace
