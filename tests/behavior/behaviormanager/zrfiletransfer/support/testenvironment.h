// The temporary world every file-transfer test program runs in: HOME, TMPDIR,
// XDG_DATA_HOME and TUQVU_SDK_PREFIX point into one fresh directory, set before any
// server exists, and the network access is loopback with the host name "robot" allowed.
// A program that needs a running server asks for sharedServerPort(); the server is
// created on first use and destroyed after the last test.
#pragma once

#include <boost/filesystem/path.hpp>

namespace zrft_test {

struct Paths {
  boost::filesystem::path root;      // everything below is removed at the end
  boost::filesystem::path home;      // $HOME
  boost::filesystem::path tmp;       // $TMPDIR
  boost::filesystem::path dataHome;  // $XDG_DATA_HOME
  boost::filesystem::path prefix;    // $TUQVU_SDK_PREFIX
  boost::filesystem::path scratch;   // outside everything the server maps
};

// The directories of this test program (valid from the first test on).
const Paths& paths();

// The port of the program's shared ZRFileTransfer, created on the first call.
int sharedServerPort();

}  // namespace zrft_test
