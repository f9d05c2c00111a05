// SPDX-License-Identifier: Apache-2.0
// The devices (modems) that a board serves, by numeric id: a handle per
// device, and what its operations report. Handles come from
// qor::Client::get_device; they are used from the session's thread only.
#pragma once

#include <exception>
#include <memory>
#include <string>

namespace orvi {
class Protocol;
}

namespace qor {
namespace client {

// The values the board reports in its device.get answer.
enum DeviceStatus { DEVICE_OK = 0, DEVICE_NOT_FOUND = 1, DEVICE_LOST = 2 };

// "device OK", "device not found", "device lost", or "unknown device status".
const char* get_device_status_str(DeviceStatus status);

struct DeviceIdentities {
    std::string mac;
    std::string imei;
    std::string serial;
};

// Thrown by a Device operation on a device that is not usable.
class DeviceException : public std::exception {
  public:
    explicit DeviceException(DeviceStatus status) : m_status(status) {}
    const char* what() const noexcept override { return get_device_status_str(m_status); }
    DeviceStatus status() const { return m_status; }

  private:
    DeviceStatus m_status;
};

struct DeviceInfo;  // the library's own: shared by every handle of one device

// A copyable handle. Empty (valid() false) for a device the board does not
// know. Once the session that gave it is gone, every operation throws
// DeviceException "device lost" and sends nothing.
class Device {
  public:
    Device() = default;
    Device(orvi::Protocol* protocol, std::shared_ptr<DeviceInfo> info);

    // Each operation runs one command on the board and returns when it is
    // done; the board's failure is thrown as in qor::Client. An empty handle
    // is a programming error: an assertion stops the program.
    void activate_talvex(const std::string& passcode);
    void get_identities(DeviceIdentities& out);
    void psi_get(const std::string& path, std::string& json);
    void psi_set(const std::string& path, const std::string& json);
    void reset_imei(const std::string& passcode);

    bool valid() const { return m_protocol != nullptr && m_info != nullptr; }
    orvi::Protocol& protocol();
    const std::shared_ptr<DeviceInfo>& info() const { return m_info; }

  private:
    void check_usable();

    orvi::Protocol* m_protocol = nullptr;
    std::shared_ptr<DeviceInfo> m_info;
};

}  // namespace client
}  // namespace qor
