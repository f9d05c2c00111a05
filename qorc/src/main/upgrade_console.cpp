// SPDX-License-Identifier: Apache-2.0
#include "upgrade_console.h"

#include <iostream>

#include "arguments.h"
#include "orvi/url.h"
#include "signals.h"

namespace qorc {

const char* sysupgrade_status_text(int status) {
    static const char* const kTexts[] = {
        "Upgrading...", "Upgrade failed", "Upgrade done with success",
        "Rebooting...", "Reboot failed",  "Reboot done"};
    const unsigned int index = static_cast<unsigned int>(status);
    return index < 6 ? kTexts[index] : "!!! UNKNOWN UPGRADE STATUS !!!";
}

void SysupgradeLogHandler::on_status_update(Status status) const {
    if (m_lastProgress != -1) {
        m_lastProgress = -1;
        std::cout << '\n';
    }
    std::cout << sysupgrade_status_text(status);
    // "Rebooting..." stays open for the dots that follow.
    if (status != REBOOTING) std::cout << '\n';
    std::cout << std::flush;
    set_console_line_open(status == REBOOTING);
}

void SysupgradeLogHandler::log(const std::string& text) const {
    std::cout << text << std::flush;
    if (!text.empty()) set_console_line_open(text.back() != '\n');
}

void SysupgradeLogHandler::progression(float percent) const {
    const int n = static_cast<int>(percent);
    if (n == m_lastProgress) return;
    m_lastProgress = n;
    std::cout << "\r" << n << " % " << std::flush;
    set_console_line_open(true);
}

void SysupgradeLogHandler::on_connect_retry(unsigned int count) const {
    m_lastProgress = static_cast<int>(count);
    std::cout << "." << std::flush;
    set_console_line_open(true);
}

namespace {
// A later "bind" parameter wins over an earlier one.
std::string with_bind(const std::string& url_text, const std::string& bind) {
    if (bind.empty()) return url_text;
    const char separator = url_text.find('?') == std::string::npos ? '?' : '&';
    return url_text + separator + "bind=" + bind;
}
}  // namespace

int sysupgrade(qor::Client& client, const std::string& fw, bool keep_config, bool no_keep,
               int timeout, std::string reboot_url, const std::string& session_bind) {
    orvi::Url url;
    orvi::parse_url(url, reboot_url);
    if (url.scheme.empty()) url.scheme = "tcp";
    if (url.port.empty()) url.port = kDefaultPort;
    // The board must come back on the link it left from: the reconnection
    // binds as the session did, unless the reboot address names its own
    // binding. Serialising drops parameters, so the binding is added after.
    // (Without a query the parser reads the whole text as parameters.)
    const auto own = url.params.find("bind");
    const bool hasOwn = reboot_url.find('?') != std::string::npos && own != url.params.end();
    const std::string bind = hasOwn ? own->second : session_bind;
    orvi::serialize_url(reboot_url, url);
    reboot_url = with_bind(reboot_url, bind);

    SysupgradeLogHandler handler;
    UpgradeSignalGuard signals;
    client.sysupgrade(fw, keep_config, no_keep, timeout, reboot_url, handler);
    return 0;
}

}  // namespace qorc
