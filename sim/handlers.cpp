// SPDX-License-Identifier: Apache-2.0
#include "handlers.h"

#include <stdexcept>

#include "board.h"
#include "qor/protobuf/catalogue.h"
#include "qor/protobuf/device/get.pb.h"
#include "qor/protobuf/device/identities_get.pb.h"
#include "qor/protobuf/device/psi_get.pb.h"
#include "qor/protobuf/device/psi_set.pb.h"
#include "qor/protobuf/device/reset_imei.pb.h"
#include "qor/protobuf/device/tvx/activate.pb.h"
#include "qor/protobuf/fallback_ffh.pb.h"
#include "qor/protobuf/fw_config_mode.pb.h"
#include "qor/protobuf/system_boot_end.pb.h"
#include "qor/protobuf/version.pb.h"
#include "qor/protobuf/wait_system_boot_end.pb.h"

namespace qord_sim {

namespace pb = qor::protobuf;

namespace {

namespace catalogue = qor::catalogue;

template <class Request>
Request parse(const std::string& bytes) {
    Request request;
    if (!request.ParseFromString(bytes)) {
        throw std::runtime_error("malformed request: " + request.GetTypeName());
    }
    return request;
}

using Bodies = std::map<std::string, Handler::Body>;

Bodies system_bodies(Board& board) {
    Bodies b;
    b[catalogue::kEcho] = [](Handler& h, const std::string& request) {
        h.send_message(request.data(), static_cast<unsigned int>(request.size()));
        h.set_done();
    };
    b[catalogue::kFwConfigMode] = [&board](Handler& h, const std::string&) {
        pb::fw_config_mode::Answer a;
        a.set_is_fff(board.state().is_fff());
        h.answer(a);
    };
    b[catalogue::kFallbackFfh] = [&board](Handler& h, const std::string&) {
        board.state().set_fff(false);
        h.answer(pb::fallback_ffh::Answer());
        board.request_reboot();
    };
    if (!board.options().only_wait_boot_end) {
        b[catalogue::kSystemBootEnd] = [&board](Handler& h, const std::string&) {
            pb::system_boot_end::Answer a;
            a.set_boot_done(board.boot_done());
            h.answer(a);
        };
    }
    b[catalogue::kWaitSystemBootEnd] = [&board](Handler& h, const std::string&) {
        if (board.wait_boot_done()) h.answer(pb::wait_system_boot_end::Answer());
    };
    if (!board.options().no_version) {
        b[catalogue::kVersion] = [&board](Handler& h, const std::string&) {
            pb::version::Answer a;
            a.set_version(board.state().version());
            a.set_magic(board.state().magic());
            h.answer(a);
        };
    }
    return b;
}

Bodies device_bodies(Board& board) {
    BoardState& state = board.state();
    Bodies b;
    b[catalogue::kDeviceGet] = [&state](Handler& h, const std::string& request) {
        const auto r = parse<pb::device::get::Request>(request);
        pb::device::get::Answer a;
        a.set_status(state.has_device(r.device_id()) ? pb::device::status::DEVICE_OK
                                                     : pb::device::status::DEVICE_NOT_FOUND);
        h.answer(a);
    };
    b[catalogue::kDeviceIdentitiesGet] = [&state](Handler& h, const std::string& request) {
        const auto r = parse<pb::device::identities_get::Request>(request);
        const auto ids = state.identities(r.device_id());
        if (!ids) throw std::runtime_error("unknown device id " + std::to_string(r.device_id()));
        pb::device::identities_get::Answer a;
        a.set_mac(ids->mac);
        a.set_imei(ids->imei);
        a.set_serial(ids->serial);
        h.answer(a);
    };
    b[catalogue::kDevicePsiGet] = [&state](Handler& h, const std::string& request) {
        const auto r = parse<pb::device::psi_get::Request>(request);
        if (r.path() != catalogue::kPsiReadPath)
            throw std::runtime_error("unknown PSI path " + r.path());
        const auto json = state.psi(r.device_id());
        if (!json) throw std::runtime_error("unknown device id " + std::to_string(r.device_id()));
        pb::device::psi_get::Answer a;
        a.set_json(*json);
        h.answer(a);
    };
    b[catalogue::kDevicePsiSet] = [&state](Handler& h, const std::string& request) {
        const auto r = parse<pb::device::psi_set::Request>(request);
        if (r.path() != catalogue::kPsiAmendPath)
            throw std::runtime_error("unknown PSI path " + r.path());
        state.amend_psi(r.device_id(), r.json());
        h.answer(pb::device::psi_set::Answer());
    };
    b[catalogue::kDeviceResetImei] = [&state](Handler& h, const std::string& request) {
        const auto r = parse<pb::device::reset_imei::Request>(request);
        state.reset_imei(r.device_id(), r.passcode());
        h.answer(pb::device::reset_imei::Answer());
    };
    b[catalogue::kDeviceActivate] = [&state](Handler& h, const std::string& request) {
        const auto r = parse<pb::device::tvx::activate::Request>(request);
        state.activate_talvex(r.device_id(), r.passcode());
        h.answer(pb::device::tvx::activate::Answer());
    };
    return b;
}

}  // namespace

namespace {

// The body a misbehaviour option puts in place of a command's own, if any.
bool misbehaviour(Board& board, const std::string& name, Handler::Body& body) {
    auto failure = board.options().failures.find(name);
    if (failure != board.options().failures.end()) {
        const std::string text = failure->second;
        body = [text](Handler& h, const std::string&) {
            h.send_command_exception(text);
            h.abandon();
        };
        return true;
    }
    if (board.options().dropped.count(name)) {
        body = [&board](Handler& h, const std::string&) {
            board.drop_client(h.get_transport_client_id());
        };
        return true;
    }
    if (board.options().stalled.count(name)) {
        body = [](Handler&, const std::string&) {};
        return true;
    }
    return false;
}

std::shared_ptr<orvi::ProxyFactory> factory_of(Handler::Body body) {
    return orvi::FunctionFactory::of(std::move(body));
}

}  // namespace

std::map<std::string, std::shared_ptr<orvi::ProxyFactory>> make_handler_factories(Board& board) {
    Bodies bodies = system_bodies(board);
    for (auto& entry : device_bodies(board)) bodies.insert(entry);

    std::map<std::string, std::shared_ptr<orvi::ProxyFactory>> factories;
    for (auto& entry : bodies) {
        Handler::Body body = entry.second;
        misbehaviour(board, entry.first, body);
        factories[entry.first] = factory_of(body);
    }
    const std::string upgrade = catalogue::kSysupgrade;
    Handler::Body body;
    if (misbehaviour(board, upgrade, body)) {
        factories[upgrade] = factory_of(body);
    } else {
        factories[upgrade] = std::make_shared<orvi::FunctionFactory>(
            [&board](orvi::Protocol& p) { return make_upgrade_handler(p, board); });
    }
    return factories;
}

}  // namespace qord_sim
