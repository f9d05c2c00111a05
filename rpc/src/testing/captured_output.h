// SPDX-License-Identifier: Apache-2.0
// What this process writes to standard output or error while the object
// lives. gtest's capture, which is not part of its public API, is used
// here and nowhere else.
#pragma once

#include <gtest/gtest.h>

#include <string>

namespace orvi {
namespace testing {

class CapturedOutput {
  public:
    enum Stream { kStdout, kStderr };
    explicit CapturedOutput(Stream stream = kStderr) : m_stream(stream) {
        if (m_stream == kStdout) {
            ::testing::internal::CaptureStdout();
        } else {
            ::testing::internal::CaptureStderr();
        }
    }
    ~CapturedOutput() { text(); }
    CapturedOutput(const CapturedOutput&) = delete;
    CapturedOutput& operator=(const CapturedOutput&) = delete;

    // Ends the capture the first time; the same text after that.
    const std::string& text() {
        if (!m_ended) {
            m_ended = true;
            m_text = m_stream == kStdout ? ::testing::internal::GetCapturedStdout()
                                         : ::testing::internal::GetCapturedStderr();
        }
        return m_text;
    }

  private:
    const Stream m_stream;
    bool m_ended = false;
    std::string m_text;
};

}  // namespace testing
}  // namespace orvi
