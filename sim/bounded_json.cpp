// SPDX-License-Identifier: Apache-2.0
#include "bounded_json.h"

#include <stdexcept>

namespace qord_sim {

using nlohmann::json;

int nesting_depth(const std::string& text, int limit) {
    int depth = 0, deepest = 0;
    bool inString = false, escaped = false;
    for (const char c : text) {
        if (inString) {
            if (escaped) {
                escaped = false;
            } else if (c == '\\') {
                escaped = true;
            } else if (c == '"') {
                inString = false;
            }
            continue;
        }
        switch (c) {
            case '"':
                inString = true;
                break;
            case '[':
            case '{':
                if (++depth > deepest) deepest = depth;
                if (deepest > limit) return limit + 1;
                break;
            case ']':
            case '}':
                if (depth > 0) --depth;
                break;
            default:
                break;
        }
    }
    return deepest;
}

json parse_bounded(const std::string& text, const std::string& what, size_t max_bytes,
                   int max_depth) {
    if (text.size() > max_bytes) {
        throw std::runtime_error(what + ": the text is larger than " + std::to_string(max_bytes) +
                                 " bytes");
    }
    if (nesting_depth(text, max_depth) > max_depth) {
        throw std::runtime_error(what + ": the JSON is nested deeper than " +
                                 std::to_string(max_depth) + " levels");
    }
    try {
        return json::parse(text);
    } catch (const json::exception&) {
        throw std::runtime_error(what + ": the text is not valid JSON");
    }
}

json encode_bytes(const std::string& bytes) {
    try {
        json(bytes).dump();  // throws for bytes that are not UTF-8
        return bytes;
    } catch (const json::type_error&) {
        static const char digits[] = "0123456789abcdef";
        std::string hex;
        hex.reserve(bytes.size() * 2);
        for (const unsigned char b : bytes) {
            hex += digits[b >> 4];
            hex += digits[b & 15];
        }
        return json{{"hex", hex}};
    }
}

namespace {
int hex_value(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
}
}  // namespace

bool decode_bytes(const json& value, std::string& bytes) {
    if (value.is_string()) {
        bytes = value.get<std::string>();
        return true;
    }
    if (!value.is_object() || value.size() != 1 || !value.contains("hex") ||
        !value["hex"].is_string()) {
        return false;
    }
    const std::string& hex = value["hex"].get_ref<const std::string&>();
    if (hex.size() % 2 != 0) return false;
    std::string out;
    out.reserve(hex.size() / 2);
    for (size_t i = 0; i < hex.size(); i += 2) {
        const int hi = hex_value(hex[i]), lo = hex_value(hex[i + 1]);
        if (hi < 0 || lo < 0) return false;
        out += static_cast<char>(hi * 16 + lo);
    }
    bytes = std::move(out);
    return true;
}

}  // namespace qord_sim
