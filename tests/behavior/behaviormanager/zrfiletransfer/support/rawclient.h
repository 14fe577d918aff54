// The file-server tests talk to it through the shared raw TCP client.
#pragma once

#include <common/rawconnection.h>

namespace zrft_test {

using std::chrono::milliseconds;
using tuqvutest::RawConnection;
using tuqvutest::Reply;
using tuqvutest::request;
using tuqvutest::requestUntilClosed;

}  // namespace zrft_test
