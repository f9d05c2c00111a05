// Command proxies of the device operations. Same rules as ../commands.h.
#pragma once

#include <atomic>
#include <string>

#include "orvi/protocol.h"
#include "qor/device/device.h"

namespace qor {
namespace client {

constexpr const char* kDeviceGetCommand = "com.korvane.command.device.get";
constexpr const char* kDeviceIdentitiesGetCommand = "com.korvane.command.device.identities.get";
constexpr const char* kDevicePsiGetCommand = "com.korvane.command.device.psi.get";
constexpr const char* kDevicePsiSetCommand = "com.korvane.command.device.psi.set";
constexpr const char* kDeviceResetImeiCommand = "com.korvane.command.device.imei.reset";
constexpr const char* kDeviceActivateCommand = "com.korvane.command.device.activate";

// Found when the answer's status is 0; an unreadable answer counts as found.
class DeviceGet : public orvi::ProxyCommandClient {
  public:
    using ProxyCommandClient::ProxyCommandClient;
    Device execute(unsigned int device_id);
    bool found = false;

  protected:
    void process_message(const char* data, unsigned int size) override;
};

class DeviceIdentitiesGet : public orvi::ProxyCommandClient {
  public:
    using ProxyCommandClient::ProxyCommandClient;
    void execute(unsigned int device_id, DeviceIdentities& out);
    std::atomic<DeviceIdentities*> identities{nullptr};  // set only during execute

  protected:
    void process_message(const char* data, unsigned int size) override;
};

class DevicePsiGet : public orvi::ProxyCommandClient {
  public:
    using ProxyCommandClient::ProxyCommandClient;
    void execute(unsigned int device_id, const std::string& path, std::string& json);
    std::atomic<std::string*> json{nullptr};  // set only during execute

  protected:
    void process_message(const char* data, unsigned int size) override;
};

// Prints "json: <text>" before sending; scripts rely on that trace.
class DevicePsiSet : public orvi::ProxyCommandClient {
  public:
    using ProxyCommandClient::ProxyCommandClient;
    void execute(unsigned int device_id, const std::string& path, const std::string& json);

  protected:
    void process_message(const char*, unsigned int) override {}
};

class DeviceResetImei : public orvi::ProxyCommandClient {
  public:
    using ProxyCommandClient::ProxyCommandClient;
    void execute(unsigned int device_id, const std::string& passcode);

  protected:
    void process_message(const char*, unsigned int) override {}
};

class DeviceActivate : public orvi::ProxyCommandClient {
  public:
    using ProxyCommandClient::ProxyCommandClient;
    void execute(unsigned int device_id, const std::string& passcode);

  protected:
    void process_message(const char*, unsigned int) override {}
};

}  // namespace client
}  // namespace qor
