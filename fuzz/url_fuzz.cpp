// SPDX-License-Identifier: Apache-2.0
// Any text parses, and what the parser made serialises and parses again.
#include <cstdint>
#include <string>

#include "fuzz_options.h"
#include "orvi/url.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string text(reinterpret_cast<const char*>(data), size);
    orvi::Url url;
    orvi::parse_url(url, text);
    std::string out;
    orvi::serialize_url(out, url);
    orvi::Url again;
    orvi::parse_url(again, out);
    return 0;
}
