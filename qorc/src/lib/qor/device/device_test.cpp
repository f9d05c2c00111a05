// SPDX-License-Identifier: Apache-2.0
// Device lookup, caching and loss, against a scripted board.
#include "qor/device/device.h"

#include <gtest/gtest.h>

#include "qor/device/device_manager.h"

#include "error_of.h"
#include "fake_board.h"
#include "qor/client.h"
#include "qor/protobuf/device/get.pb.h"
#include "qor/protobuf/device/psi_get.pb.h"

namespace qor {
namespace client {
namespace {

using Handler = orvi::FunctionHandler;
namespace pb = qor::protobuf::device;

// Knows device 0 only, reports device 2 lost and gives an unreadable answer
// for device 3.
void serve_devices(testing::FakeBoard& board) {
    board.on("device.get", [](Handler& h, const std::string& body) {
        pb::get::Request r;
        r.ParseFromString(body);
        if (r.device_id() == 3) {
            h.send_message("\xff", 1);
            return h.set_done();
        }
        pb::get::Answer a;
        a.set_status(r.device_id() == 0   ? pb::status::DEVICE_OK
                     : r.device_id() == 2 ? pb::status::DEVICE_LOST
                                          : pb::status::DEVICE_NOT_FOUND);
        h.answer(a);
    });
    board.on("device.psi.get", [](Handler& h, const std::string&) {
        pb::psi_get::Answer a;
        a.set_json("{}");
        h.answer(a);
    });
}

TEST(DeviceHandles, HandlesAreCachedPerEngineButNotFoundIsNot) {
    testing::FakeBoard board;
    serve_devices(board);
    Client client;
    client.connect(board.pipe());

    Device a = client.get_device(0);
    Device b = client.get_device(0);
    EXPECT_EQ(board.calls("device.get"), 1);
    EXPECT_EQ(a.info(), b.info());
    EXPECT_TRUE(a.valid());

    EXPECT_FALSE(client.get_device(7).valid());
    EXPECT_FALSE(client.get_device(7).valid());
    EXPECT_FALSE(client.get_device(2).valid());
    EXPECT_EQ(board.calls("device.get"), 4);
    EXPECT_TRUE(client.get_device(3).valid());  // an unreadable answer counts as found

    std::string json;
    a.psi_get("/boot/psi", json);
    EXPECT_EQ(json, "{}");
}

TEST(DeviceHandles, HandlesOutlivingTheirEngineAreLost) {
    testing::FakeBoard board;
    serve_devices(board);
    Device kept;
    {
        Client client;
        client.connect(board.pipe());
        kept = client.get_device(0);
    }
    EXPECT_EQ(DeviceManager::s_deviceManagerMap.size(), 0u);
    std::string json;
    EXPECT_EQ(support::error_of<DeviceException>([&] { kept.psi_get("/boot/psi", json); }),
              "device lost");
    EXPECT_EQ(board.calls("device.psi.get"), 0);
    EXPECT_EQ(kept.info()->id, kUnknownDeviceId);
}

TEST(DeviceHandlesDeathTest, EmptyHandleAbortsBeforeAnyStatusCheck) {
    Device empty;
    std::string json;
    EXPECT_DEATH(empty.psi_get("/boot/psi", json), "Assertion `m_protocol' failed");
}

}  // namespace
}  // namespace client
}  // namespace qor
