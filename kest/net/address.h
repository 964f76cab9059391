#ifndef KEST_NET_ADDRESS_H
#define KEST_NET_ADDRESS_H

/// @file
/// TSocket::TAddress, TSocket::TMutex and ip2name(). They are declared in socket.h, since both classes are nested in TSocket.

#include <kest/net/socket.h>

#endif
