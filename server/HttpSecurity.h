#ifndef SERVER_HTTPSECURITY_H
#define SERVER_HTTPSECURITY_H

// Who may use the web page's HTTP API. A request that changes something
// carries the token the server made at its start; a browser request whose
// Origin is another site is refused, so that a page elsewhere in the
// operator's browser cannot drive the server; the Host header must name the
// address the server is bound to, so that a hostile DNS name that resolves
// to it (rebinding) is refused too.

#include <string>

#include "reference/src/status.h"

namespace ReplayServer {

class HttpAccessPolicy {
  public:
    HttpAccessPolicy(std::string token, std::string boundAddress, int port);

    // 32 hex digits from the kernel's random source; empty when it cannot
    // be read.
    static std::string GenerateToken();
    // Writes `token` to `path` with mode 0600 (replacing an older file, never
    // through a symbolic link).
    static ReplayPlatform::Status WriteTokenFile(const std::string& path, const std::string& token);
    static bool IsLoopbackAddress(const std::string& address);

    const std::string& Token() const { return m_token; }
    bool Loopback() const { return m_loopback; }
    // The Host header names the bound address and port ("localhost" too when
    // bound to loopback).
    bool HostAllowed(const std::string& host) const;
    // No Origin (a program, not a page) or the server's own.
    bool OriginAllowed(const std::string& origin) const;
    // Compared in constant time.
    bool TokenMatches(const std::string& offered) const;
    // Read-only requests need the token only off loopback.
    bool ReadNeedsToken() const { return !m_loopback; }

  private:
    std::string m_token;
    std::string m_address;
    int m_port;
    bool m_loopback;
};

}  // namespace ReplayServer

#endif
