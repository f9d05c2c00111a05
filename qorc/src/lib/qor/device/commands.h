// SPDX-License-Identifier: Apache-2.0
// Command proxies of the device operations. Same rules as ../commands.h.
#pragma once

#include <atomic>
#include <string>

#include "orvi/protocol.h"
#include "qor/commands.h"
#include "qor/device/device.h"
#include "qor/device/device_manager.h"
#include "qor/protobuf/device/get.pb.h"
#include "qor/protobuf/device/identities_get.pb.h"
#include "qor/protobuf/device/psi_get.pb.h"
#include "qor/protobuf/device/psi_set.pb.h"
#include "qor/protobuf/device/reset_imei.pb.h"
#include "qor/protobuf/device/tvx/activate.pb.h"

namespace qor {
namespace client {

// Found when the answer's status is 0; an unreadable answer counts as found.
class DeviceGet : public CommandProxy<catalogue::kDeviceGet, protobuf::device::get::Request,
                                      protobuf::device::get::Answer> {
  public:
    using CommandProxy::CommandProxy;
    Device execute(unsigned int device_id);
    bool found = false;

  protected:
    void process_message(const char* data, unsigned int size) override;
};

class DeviceIdentitiesGet : public CommandProxy<catalogue::kDeviceIdentitiesGet,
                                                protobuf::device::identities_get::Request,
                                                protobuf::device::identities_get::Answer> {
  public:
    using CommandProxy::CommandProxy;
    void execute(unsigned int device_id, DeviceIdentities& out);
    std::atomic<DeviceIdentities*> identities{nullptr};  // set only during execute

  protected:
    void process_message(const char* data, unsigned int size) override;
};

class DevicePsiGet
    : public CommandProxy<catalogue::kDevicePsiGet, protobuf::device::psi_get::Request,
                          protobuf::device::psi_get::Answer> {
  public:
    using CommandProxy::CommandProxy;
    void execute(unsigned int device_id, const std::string& path, std::string& json);
    std::atomic<std::string*> json{nullptr};  // set only during execute

  protected:
    void process_message(const char* data, unsigned int size) override;
};

// Prints "json: <text>" before sending; scripts rely on that trace.
class DevicePsiSet
    : public CommandProxy<catalogue::kDevicePsiSet, protobuf::device::psi_set::Request,
                          protobuf::device::psi_set::Answer> {
  public:
    using CommandProxy::CommandProxy;
    void execute(unsigned int device_id, const std::string& path, const std::string& json);

  protected:
    void process_message(const char*, unsigned int) override {}
};

class DeviceResetImei
    : public CommandProxy<catalogue::kDeviceResetImei, protobuf::device::reset_imei::Request,
                          protobuf::device::reset_imei::Answer> {
  public:
    using CommandProxy::CommandProxy;
    void execute(unsigned int device_id, const std::string& passcode);

  protected:
    void process_message(const char*, unsigned int) override {}
};

class DeviceActivate
    : public CommandProxy<catalogue::kDeviceActivate, protobuf::device::tvx::activate::Request,
                          protobuf::device::tvx::activate::Answer> {
  public:
    using CommandProxy::CommandProxy;
    void execute(unsigned int device_id, const std::string& passcode);

  protected:
    void process_message(const char*, unsigned int) override {}
};

}  // namespace client
}  // namespace qor
