// SPDX-License-Identifier: Apache-2.0
// Scratch directories and whole files, for tests and benchmarks.
#pragma once

#include <cstddef>
#include <string>

namespace support {

// A scratch directory under /tmp, removed with everything in it when the
// object goes.
class TempDir {
  public:
    TempDir();
    ~TempDir();
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;
    const std::string& path() const { return m_path; }
    std::string file(const std::string& name) const { return m_path + "/" + name; }
    // Writes `content` to file(name) and returns its path.
    std::string write(const std::string& name, const std::string& content) const;

  private:
    std::string m_path;
};

// The whole file; empty when it cannot be read.
std::string read_file(const std::string& path);

// How many times `what` occurs in `text`.
size_t count_of(const std::string& text, const std::string& what);

}  // namespace support
