// SPDX-License-Identifier: Apache-2.0
// Device lookup and its cache, inside the library.
//
// Handles are looked up once with device.get and cached per engine by a
// DeviceManager, which marks every cached handle lost when its engine goes.
// Not locked: get_device and the device operations belong to the
// application thread.
#pragma once

#include <map>
#include <memory>

#include "orvi/protocol.h"
#include "qor/device/device.h"

namespace qor {
namespace client {

constexpr unsigned int kUnknownDeviceId = 0xFFFFFFFF;

// Shared between the manager's cache and every handle for the id.
struct DeviceInfo {
    explicit DeviceInfo(unsigned int device_id);
    unsigned int id;
    DeviceStatus status;
};

// One per engine, registered as the engine's life handler.
class DeviceManager : public orvi::ProtocolLifeHandler {
  public:
    explicit DeviceManager(orvi::Protocol& protocol);
    ~DeviceManager() override;
    void on_protocol_destroyed(orvi::Protocol* protocol) override;

    std::map<unsigned int, Device> m_devices;
    static std::map<orvi::Protocol*, std::shared_ptr<DeviceManager>> s_deviceManagerMap;

  private:
    void mark_lost();
};

// The cached handle for `id`, or a fresh lookup on the board. A not-found
// answer gives an empty handle and is not cached.
Device get_device(orvi::Protocol& protocol, unsigned int id);

}  // namespace client
}  // namespace qor
