// ZRNetworkAccess — who may reach the servers of this process: the address they listen
// on and the secret they require from every client, on loopback too unless the
// administrator trusts the local programs (--trust-loopback).
//
// The daemon sets it once, before it loads any module; servers that modules start (the
// behavior manager's file-transfer server) read it when they bind:
//
//   ZR::ZRNetworkAccess access;
//   access.bindAddress = "192.168.1.20";
//   access.secret = secretFromFile;
//   ZR::setNetworkAccess(access);
//   ...
//   const ZR::ZRNetworkAccess now = ZR::networkAccess();
//   if (now.requiresCredentials() && !now.acceptsSecret(password)) refuse();
#pragma once

#include <string>
#include <vector>

namespace ZR {

struct ZRNetworkAccess {
  // The address every server of the process binds. Loopback unless the administrator
  // opens the robot to a network.
  std::string bindAddress = "127.0.0.1";
  // The installation's secret; empty when none is configured.
  std::string secret;
  // Host names a browser may use for the servers besides IP literals and "localhost".
  std::vector<std::string> hostNames;
  // Whether clients on loopback are served without the secret. Off by default: every
  // program of every account on the robot reaches loopback, and a robot's motors are
  // not theirs to move.
  bool trustLoopback = false;
  // Whether the behavior manager's file-transfer server runs. The administrator switches
  // it off (--no-file-server) where no authoring application is used.
  bool fileServer = true;

  // True when bindAddress is not a loopback address ("0.0.0.0" and "::" included).
  bool listensBeyondLoopback() const;
  // Clients must present the secret, unless the servers listen on loopback only and the
  // administrator trusts it.
  bool requiresCredentials() const { return listensBeyondLoopback() || !trustLoopback; }
  // Compares in time independent of where the texts differ; false when no secret is set.
  bool acceptsSecret(const std::string& candidate) const;
};

// True for 127.0.0.0/8, ::1, the IPv4-mapped forms of 127.0.0.0/8 and "localhost".
bool isLoopbackAddress(const std::string& address);

// The process-wide settings; the defaults until the daemon sets them. Safe from any thread.
ZRNetworkAccess networkAccess();
void setNetworkAccess(const ZRNetworkAccess& access);

}  // namespace ZR
