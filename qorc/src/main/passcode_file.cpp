// SPDX-License-Identifier: Apache-2.0
#include "passcode_file.h"

#include <strings.h>

#include <cctype>

namespace qorc {

namespace {

void trim(std::string& s) {
    size_t end = s.size();
    while (end > 0 && std::isspace(static_cast<unsigned char>(s[end - 1]))) --end;
    s.erase(end);
    size_t begin = 0;
    while (begin < s.size() && std::isspace(static_cast<unsigned char>(s[begin]))) ++begin;
    s.erase(0, begin);
}

}  // namespace

PasscodeLookup find_passcode(std::istream& file, const std::string& mac, std::string& passcode) {
    while (!file.eof()) {
        std::string key;
        file >> key;
        for (char& c : key) {
            if (c == '-') c = ':';
        }
        std::getline(file, passcode);
        if (file.bad()) return PasscodeLookup::kReadError;
        trim(passcode);
        if (strcasecmp(key.c_str(), mac.c_str()) == 0) return PasscodeLookup::kFound;
    }
    return PasscodeLookup::kNotFound;
}

}  // namespace qorc
