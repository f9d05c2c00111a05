// Command proxies of the session and of the upgrade. One object serves one
// call: create it with Protocol::create_command_proxy<T>(name), call execute
// once, drop it. process_message runs on an engine worker; results are read
// by the caller only after wait() returned.
#pragma once

#include <atomic>
#include <climits>
#include <string>

#include "orvi/protocol.h"

namespace qor {
namespace client {

constexpr const char* kEchoCommand = "com.korvane.command.echo";
constexpr const char* kFallbackFfhCommand = "com.korvane.command.fallback_ffh";
constexpr const char* kFwConfigModeCommand = "com.korvane.command.fw_config_mode";
constexpr const char* kSystemBootEndCommand = "com.korvane.command.system_boot_end";
constexpr const char* kWaitSystemBootEndCommand = "com.korvane.command.wait_system_boot_end";
constexpr const char* kVersionCommand = "com.korvane.command.version";
constexpr const char* kSysupgradeCommand = "com.korvane.command.sysupgrade";

// Sends the payload bytes unchanged; the last answer body is the reply.
class Echo : public orvi::ProxyCommandClient {
  public:
    using ProxyCommandClient::ProxyCommandClient;
    const std::string& execute(const std::string& payload);
    std::string reply;

  protected:
    void process_message(const char* data, unsigned int size) override;
};

class FallbackFfh : public orvi::ProxyCommandClient {
  public:
    using ProxyCommandClient::ProxyCommandClient;
    void execute();

  protected:
    void process_message(const char* data, unsigned int size) override;
};

// is_fff: firmware from flash (true) or from the host (false).
class FwConfigMode : public orvi::ProxyCommandClient {
  public:
    using ProxyCommandClient::ProxyCommandClient;
    void execute(bool& is_fff);
    bool is_fff = false;

  protected:
    void process_message(const char* data, unsigned int size) override;
};

class SystemBootEnd : public orvi::ProxyCommandClient {
  public:
    using ProxyCommandClient::ProxyCommandClient;
    bool execute();
    bool boot_done = false;

  protected:
    void process_message(const char* data, unsigned int size) override;
};

// Returns only once the board has finished booting.
class WaitSystemBootEnd : public orvi::ProxyCommandClient {
  public:
    using ProxyCommandClient::ProxyCommandClient;
    void execute();

  protected:
    void process_message(const char*, unsigned int) override {}
};

class Version : public orvi::ProxyCommandClient {
  public:
    using ProxyCommandClient::ProxyCommandClient;
    void execute(std::string& version, std::string& magic);
    // The caller's strings, set only during execute. Atomic: a late answer
    // may be looked at by a worker while the caller clears them.
    std::atomic<std::string*> version{nullptr};
    std::atomic<std::string*> magic{nullptr};

  protected:
    void process_message(const char* data, unsigned int size) override;
};

// Parses one answer body. The result is not checked: whatever could be read,
// defaults included, is taken. A body too large for the parser is taken as
// empty rather than handed to it.
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

}  // namespace client
}  // namespace qor
