// Devices (modems) served by the board, by numeric id.
//
// Handles are looked up once with device.get and cached per engine by a
// DeviceManager, which marks every cached handle lost when its engine goes.
// Not locked: get_device and the device operations belong to the
// application thread.
#pragma once

#include <exception>
#include <map>
#include <memory>
#include <string>

#include "orvi/protocol.h"
#include "qor/protobuf/device/status.pb.h"

namespace qor {
namespace client {

using DeviceStatus = qor::protobuf::device::status::DeviceStatus;

constexpr unsigned int kUnknownDeviceId = 0xFFFFFFFF;

const char* get_device_status_str(DeviceStatus status);

// Shared between the manager's cache and every handle for the id.
struct DeviceInfo {
    explicit DeviceInfo(unsigned int device_id);
    unsigned int id;
    DeviceStatus status;
};

struct DeviceIdentities {
    std::string mac;
    std::string imei;
    std::string serial;
};

class DeviceException : public std::exception {
  public:
    explicit DeviceException(DeviceStatus status) : m_status(status) {}
    const char* what() const noexcept override { return get_device_status_str(m_status); }
    DeviceStatus status() const { return m_status; }

  private:
    DeviceStatus m_status;
};

// A copyable handle. Empty (no engine, no info) for a device the board does
// not know.
class Device {
  public:
    Device() = default;
    Device(orvi::Protocol* protocol, std::shared_ptr<DeviceInfo> info)
        : m_protocol(protocol), m_info(std::move(info)) {}

    // Every operation checks, in this order: the engine (an assertion), the
    // info ("device not found"), the status (e.g. "device lost").
    void activate_talvex(const std::string& passcode);
    void get_identities(DeviceIdentities& out);
    void psi_get(const std::string& path, std::string& json);
    void psi_set(const std::string& path, const std::string& json);
    void reset_imei(const std::string& passcode);

    orvi::Protocol& protocol();
    bool valid() const { return m_protocol != nullptr && m_info != nullptr; }
    const std::shared_ptr<DeviceInfo>& info() const { return m_info; }

  private:
    void check_usable();

    orvi::Protocol* m_protocol = nullptr;
    std::shared_ptr<DeviceInfo> m_info;
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
