#ifndef SUPPORT_LOOPBACKADDRESS_H
#define SUPPORT_LOOPBACKADDRESS_H

#include <netinet/in.h>

#include <string>

namespace ReplaySupport {

// 127.a.b.c with random a, b and c, never 127.0.0.1: runs sharing a machine
// each get server addresses of their own. The last octet lies in
// [hostBase, 254 - hosts], leaving room for `hosts` neighbours above it.
std::string RandomLoopbackAddress(int hostBase = 1, int hosts = 0);

// The socket address of `dotted` (an IPv4 address) and `port`.
sockaddr_in LoopbackEndpoint(const std::string& dotted, int port);

}  // namespace ReplaySupport

#endif
