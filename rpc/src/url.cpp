// SPDX-License-Identifier: Apache-2.0
#include "orvi/url.h"

#include <cctype>

namespace orvi {
namespace {

const std::string kSchemeSep = "://";
const std::string kUserInfoSep = "@";
const std::string kPasswordSep = ":";
const std::string kPortSep = ":";
const std::string kPathSep = "/";
const std::string kQuerySep = "?";
const std::string kParamSep = "&";
const std::string kValueSep = "=";

void parse_params(std::map<std::string, std::string>& params, const std::string& text,
                  size_t query) {
    params.clear();
    // A missing "?" (npos) wraps to 0: the whole text is read as parameters.
    size_t k = query + 1;
    if (k >= text.size()) return;
    for (;;) {
        const size_t amp = text.find(kParamSep, k);
        const size_t eq = text.find(kValueSep, k);
        if (eq != std::string::npos && (amp == std::string::npos || eq < amp)) {
            const std::string key = text.substr(k, eq - k);
            params.emplace(key, std::string());
            const size_t value = eq + kValueSep.size();
            if (amp == std::string::npos) {
                if (value < text.size()) params[key] = text.substr(value);
                return;
            }
            params[key] = text.substr(value, amp - value);
        } else {
            params.emplace(text.substr(k), std::string());
        }
        if (amp == std::string::npos) return;
        k = amp + kParamSep.size();
        if (k >= text.size()) return;
    }
}

}  // namespace

void parse_url(Url& url, const std::string& text) {
    const size_t schemeEnd = text.find(kSchemeSep);
    size_t start = 0;
    if (schemeEnd != std::string::npos) {
        url.scheme = text.substr(0, schemeEnd);
        start = schemeEnd + kSchemeSep.size();
    } else {
        url.scheme.clear();
    }

    const size_t slash = text.find(kPathSep, start);
    const size_t query = text.find(kQuerySep, start);

    std::string authority;
    if (slash != std::string::npos) {
        authority = text.substr(start, slash - start);
    } else if (query != std::string::npos) {
        authority = text.substr(start, query - start);
    } else {
        authority = text.substr(start);
    }

    // The user info is looked for with the path separator, which the
    // authority never holds: user and password always come out empty.
    std::string userInfo;
    std::string hostPort = authority;
    const size_t at = authority.find(kPathSep);
    if (at != std::string::npos) {
        userInfo = authority.substr(0, at);
        hostPort = authority.substr(at + kUserInfoSep.size());
    }
    const size_t colon = userInfo.find(kPasswordSep);
    url.user = userInfo.substr(0, colon);
    url.password = colon == std::string::npos ? std::string() : userInfo.substr(colon + 1);

    const size_t portSep = hostPort.find(kPortSep);
    url.host = hostPort.substr(0, portSep);
    url.port = portSep == std::string::npos ? std::string() : hostPort.substr(portSep + 1);

    // The absolute position of "?" serves as the length: the path usually
    // takes the query along.
    url.path = slash == std::string::npos ? std::string() : text.substr(slash, query);

    parse_params(url.params, text, query);
}

void serialize_url(std::string& out, const Url& url) {
    std::string s;
    if (!url.scheme.empty()) s += url.scheme + kSchemeSep;
    if (!url.user.empty()) {
        s += url.user;
        if (!url.password.empty()) s += kPasswordSep + url.password;
        s += kUserInfoSep;
    }
    s += url.host;
    if (!url.port.empty()) s += kPortSep + url.port;
    if (!url.path.empty()) s += kPathSep + url.path;
    out = std::move(s);
}

bool iequals(const std::string& a, const std::string& b) {
    if (a.size() != b.size()) return false;
    for (size_t i = 0; i < a.size(); ++i) {
        if (std::tolower(static_cast<unsigned char>(a[i])) !=
            std::tolower(static_cast<unsigned char>(b[i])))
            return false;
    }
    return true;
}

}  // namespace orvi
