// SPDX-License-Identifier: Apache-2.0
// The passcode-file reader on any text, and on a file whose read fails
// part-way: it always ends, with a match, no match, or a read error.
#include <cstdint>
#include <ios>
#include <sstream>
#include <streambuf>
#include <string>

#include "fuzz_options.h"
#include "passcode_file.h"

namespace {

// Serves its text, then fails the way a file stream does on a read error.
class FailingBuffer : public std::streambuf {
  public:
    explicit FailingBuffer(std::string text) : m_text(std::move(text)) {
        setg(&m_text[0], &m_text[0], &m_text[0] + m_text.size());
    }

  protected:
    int_type underflow() override { throw std::ios_base::failure("read error"); }

  private:
    std::string m_text;
};

}  // namespace

// Input: the device MAC, a newline, then the file. A first byte of '!'
// makes the read fail after the text.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    std::string input(reinterpret_cast<const char*>(data), size);
    const bool failing = !input.empty() && input[0] == '!';
    const size_t eol = input.find('\n');
    const std::string mac = input.substr(0, eol);
    const std::string file = eol == std::string::npos ? "" : input.substr(eol + 1);
    std::string passcode;
    qorc::PasscodeLookup result;
    if (failing) {
        FailingBuffer buffer(file);
        std::istream in(&buffer);
        result = qorc::find_passcode(in, mac, passcode);
        if (result == qorc::PasscodeLookup::kNotFound) __builtin_trap();  // the error was lost
    } else {
        std::istringstream in(file);
        result = qorc::find_passcode(in, mac, passcode);
        if (result == qorc::PasscodeLookup::kReadError) __builtin_trap();
    }
    return 0;
}
