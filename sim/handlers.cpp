#include "handlers.h"

#include <stdexcept>

#include "board.h"
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

void Handler::answer(const google::protobuf::MessageLite& message) {
    std::string bytes;
    message.SerializeToString(&bytes);
    send_message(bytes.data(), static_cast<unsigned int>(bytes.size()));
    set_done();
}

void Handler::process_message(const char* data, unsigned int size) {
    m_body(*this, std::string(data, size));
}

namespace {

const std::string kPrefix = "com.korvane.command.";
const char* const kPsiReadPath = "/boot/psi";
const char* const kPsiAmendPath = "/update/psi/amend";

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
    b[kPrefix + "echo"] = [](Handler& h, const std::string& request) {
        h.send_message(request.data(), static_cast<unsigned int>(request.size()));
        h.set_done();
    };
    b[kPrefix + "fw_config_mode"] = [&board](Handler& h, const std::string&) {
        pb::fw_config_mode::Answer a;
        a.set_is_fff(board.state().is_fff());
        h.answer(a);
    };
    b[kPrefix + "fallback_ffh"] = [&board](Handler& h, const std::string&) {
        board.state().set_fff(false);
        h.answer(pb::fallback_ffh::Answer());
        board.request_reboot();
    };
    if (!board.options().onlyWaitBootEnd) {
        b[kPrefix + "system_boot_end"] = [&board](Handler& h, const std::string&) {
            pb::system_boot_end::Answer a;
            a.set_boot_done(board.boot_done());
            h.answer(a);
        };
    }
    b[kPrefix + "wait_system_boot_end"] = [&board](Handler& h, const std::string&) {
        if (board.wait_boot_done()) h.answer(pb::wait_system_boot_end::Answer());
    };
    if (!board.options().noVersion) {
        b[kPrefix + "version"] = [&board](Handler& h, const std::string&) {
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
    b[kPrefix + "device.get"] = [&state](Handler& h, const std::string& request) {
        const auto r = parse<pb::device::get::Request>(request);
        pb::device::get::Answer a;
        a.set_status(state.has_device(r.device_id()) ? pb::device::status::DEVICE_OK
                                                     : pb::device::status::DEVICE_NOT_FOUND);
        h.answer(a);
    };
    b[kPrefix + "device.identities.get"] = [&state](Handler& h, const std::string& request) {
        const auto r = parse<pb::device::identities_get::Request>(request);
        const auto ids = state.identities(r.device_id());
        if (!ids) throw std::runtime_error("unknown device id " + std::to_string(r.device_id()));
        pb::device::identities_get::Answer a;
        a.set_mac(ids->mac);
        a.set_imei(ids->imei);
        a.set_serial(ids->serial);
        h.answer(a);
    };
    b[kPrefix + "device.psi.get"] = [&state](Handler& h, const std::string& request) {
        const auto r = parse<pb::device::psi_get::Request>(request);
        if (r.path() != kPsiReadPath) throw std::runtime_error("unknown PSI path " + r.path());
        const auto json = state.psi(r.device_id());
        if (!json) throw std::runtime_error("unknown device id " + std::to_string(r.device_id()));
        pb::device::psi_get::Answer a;
        a.set_json(*json);
        h.answer(a);
    };
    b[kPrefix + "device.psi.set"] = [&state](Handler& h, const std::string& request) {
        const auto r = parse<pb::device::psi_set::Request>(request);
        if (r.path() != kPsiAmendPath) throw std::runtime_error("unknown PSI path " + r.path());
        state.amend_psi(r.device_id(), r.json());
        h.answer(pb::device::psi_set::Answer());
    };
    b[kPrefix + "device.imei.reset"] = [&state](Handler& h, const std::string& request) {
        const auto r = parse<pb::device::reset_imei::Request>(request);
        state.reset_imei(r.device_id(), r.passcode());
        h.answer(pb::device::reset_imei::Answer());
    };
    b[kPrefix + "device.activate"] = [&state](Handler& h, const std::string& request) {
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
            h.orvi::Proxy::set_done();
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
    return std::make_shared<FunctionFactory>(
        [body](orvi::Protocol& p) { return std::make_shared<Handler>(p, body); });
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
    const std::string upgrade = kPrefix + "sysupgrade";
    Handler::Body body;
    if (misbehaviour(board, upgrade, body)) {
        factories[upgrade] = factory_of(body);
    } else {
        factories[upgrade] = std::make_shared<FunctionFactory>(
            [&board](orvi::Protocol& p) { return make_upgrade_handler(p, board); });
    }
    return factories;
}

}  // namespace qord_sim
