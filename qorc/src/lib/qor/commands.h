// SPDX-License-Identifier: Apache-2.0
// Command proxies of the session and of the upgrade. One object serves one
// call: create it with Protocol::create_command_proxy<T>(), call execute
// once, drop it. process_message runs on the thread that routes the answer;
// results are read by the caller only after wait() returned.
#pragma once

#include <atomic>
#include <climits>
#include <string>

#include "orvi/protocol.h"
#include "qor/protobuf/catalogue.h"
#include "qor/protobuf/fallback_ffh.pb.h"
#include "qor/protobuf/fw_config_mode.pb.h"
#include "qor/protobuf/system_boot_end.pb.h"
#include "qor/protobuf/version.pb.h"
#include "qor/protobuf/wait_system_boot_end.pb.h"

namespace qor {
namespace client {

// Parses one answer body. Kept as is: the result is not checked, whatever
// could be read, defaults included, is taken, as boards expect. A body too large for the parser is
// taken as empty rather than handed to it.
template <class Answer>
Answer parse_answer(const char* data, unsigned int size) {
    Answer answer;
    if (size <= static_cast<unsigned int>(INT_MAX)) {
        answer.ParseFromArray(data, static_cast<int>(size));
    }
    return answer;
}

// Serialises `request` and sends it as the command's body.
template <class Request>
void send_request(orvi::ProxyCommand& proxy, const Request& request) {
    std::string bytes;
    request.SerializeToString(&bytes);
    proxy.send_message(bytes.data(), static_cast<unsigned int>(bytes.size()));
}

// The body of a command that is not a schema message: raw bytes.
struct RawBytes {};

// The base of every command proxy. Binds the class, once, to its command's
// name and to the schema types of its request and answer; create one with
// Protocol::create_command_proxy<T>(), which takes the name from here.
template <const char* Name, class RequestT, class AnswerT>
class CommandProxy : public orvi::ProxyCommandClient {
  public:
    static constexpr const char* kName = Name;
    using Request = RequestT;
    using Answer = AnswerT;
    using ProxyCommandClient::ProxyCommandClient;

  protected:
    void send(const Request& request) { send_request(*this, request); }
    static Answer parse(const char* data, unsigned int size) {
        return parse_answer<Answer>(data, size);
    }
};

// Sends the payload bytes unchanged; the last answer body is the reply.
class Echo : public CommandProxy<catalogue::kEcho, RawBytes, RawBytes> {
  public:
    using CommandProxy::CommandProxy;
    const std::string& execute(const std::string& payload);
    std::string reply;

  protected:
    void process_message(const char* data, unsigned int size) override;
};

class FallbackFfh : public CommandProxy<catalogue::kFallbackFfh, protobuf::fallback_ffh::Request,
                                        protobuf::fallback_ffh::Answer> {
  public:
    using CommandProxy::CommandProxy;
    void execute();

  protected:
    void process_message(const char* data, unsigned int size) override;
};

// is_fff: firmware from flash (true) or from the host (false).
class FwConfigMode
    : public CommandProxy<catalogue::kFwConfigMode, protobuf::fw_config_mode::Request,
                          protobuf::fw_config_mode::Answer> {
  public:
    using CommandProxy::CommandProxy;
    void execute(bool& is_fff);
    bool is_fff = false;

  protected:
    void process_message(const char* data, unsigned int size) override;
};

class SystemBootEnd
    : public CommandProxy<catalogue::kSystemBootEnd, protobuf::system_boot_end::Request,
                          protobuf::system_boot_end::Answer> {
  public:
    using CommandProxy::CommandProxy;
    bool execute();
    bool boot_done = false;

  protected:
    void process_message(const char* data, unsigned int size) override;
};

// Returns only once the board has finished booting.
class WaitSystemBootEnd
    : public CommandProxy<catalogue::kWaitSystemBootEnd, protobuf::wait_system_boot_end::Request,
                          protobuf::wait_system_boot_end::Answer> {
  public:
    using CommandProxy::CommandProxy;
    void execute();

  protected:
    void process_message(const char*, unsigned int) override {}
};

class Version : public CommandProxy<catalogue::kVersion, protobuf::version::Request,
                                    protobuf::version::Answer> {
  public:
    using CommandProxy::CommandProxy;
    void execute(std::string& version, std::string& magic);
    // The caller's strings, set only during execute. Atomic: a late answer
    // may be looked at by a worker while the caller clears them.
    std::atomic<std::string*> version{nullptr};
    std::atomic<std::string*> magic{nullptr};

  protected:
    void process_message(const char* data, unsigned int size) override;
};

}  // namespace client
}  // namespace qor
