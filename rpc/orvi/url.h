// SPDX-License-Identifier: Apache-2.0
// Endpoint addresses such as "tcp://192.168.15.1:7000?bind=192.168.15.2".
//
// The parser is a plain left-to-right search with no validation. Its odd
// results (empty user info, paths that swallow the query, a text without "?"
// read whole as parameters) are relied upon by callers and must not be
// "fixed".
// Public header: includes only other public headers.
#pragma once

#include <map>
#include <string>

namespace orvi {

struct Url {
    std::string scheme;
    std::string user;
    std::string password;
    std::string host;
    std::string port;  // kept as text
    std::string path;  // keeps its leading "/"
    std::map<std::string, std::string> params;
};

void parse_url(Url& url, const std::string& text);
// Never writes params; writes "/" + path, so a parsed path gets two slashes.
void serialize_url(std::string& out, const Url& url);
// ASCII case-insensitive equality.
bool iequals(const std::string& a, const std::string& b);

}  // namespace orvi
