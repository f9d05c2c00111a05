// SPDX-License-Identifier: Apache-2.0
// The framework's exception types. Each derives directly from
// std::exception, so callers catch them one by one.
// Public header: includes only other public headers.
#pragma once

#include <exception>
#include <string>

namespace orvi {

// Engine failures (no peer, unserialisable headers).
class ProtocolException : public std::exception {
  public:
    explicit ProtocolException(std::string m) : m_message(std::move(m)) {}
    const char* what() const noexcept override { return m_message.c_str(); }

  private:
    std::string m_message;
};

// The remote command failed, or the connection to it was lost.
class ProxyCommandException : public std::exception {
  public:
    explicit ProxyCommandException(std::string m) : m_message(std::move(m)) {}
    const char* what() const noexcept override { return m_message.c_str(); }

  private:
    std::string m_message;
};

// The peer has no handler for the command. Deliberately not a
// ProxyCommandException.
class ProxyCommandNoHandler : public std::exception {
  public:
    explicit ProxyCommandNoHandler(std::string m) : m_message(std::move(m)) {}
    const char* what() const noexcept override { return m_message.c_str(); }

  private:
    std::string m_message;
};

// Every socket failure.
class SimpleSocketException : public std::exception {
  public:
    explicit SimpleSocketException(std::string m) : m_message(std::move(m)) {}
    const char* what() const noexcept override { return m_message.c_str(); }

  private:
    std::string m_message;
};

}  // namespace orvi
