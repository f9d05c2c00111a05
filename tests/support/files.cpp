// SPDX-License-Identifier: Apache-2.0
#include "files.h"

#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>

namespace support {

TempDir::TempDir() {
    char tmpl[] = "/tmp/qorc-test-XXXXXX";
    if (mkdtemp(tmpl) == nullptr) throw std::runtime_error("mkdtemp failed");
    m_path = tmpl;
}

TempDir::~TempDir() {
    std::error_code ignored;  // leftovers in /tmp are harmless
    std::filesystem::remove_all(m_path, ignored);
}

std::string TempDir::write(const std::string& name, const std::string& content) const {
    const std::string path = file(name);
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out << content;
    return path;
}

std::string read_file(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::stringstream s;
    s << in.rdbuf();
    return s.str();
}

size_t count_of(const std::string& text, const std::string& what) {
    size_t n = 0;
    for (size_t at = text.find(what); at != std::string::npos; at = text.find(what, at + 1)) ++n;
    return n;
}

}  // namespace support
