// tuqvu-call --fingerprint: the fingerprint of this machine's broker, to compare with what
// tuqvu-call shows on another machine when it meets the robot first.
#include <sys/stat.h>
#include <tuqvu/broker/cliclient.h>
#include <tuqvu/broker/tlsfingerprint.h>

#include <cerrno>
#include <cstring>
#include <iostream>

namespace tuqvu {
namespace broker {

int runShowFingerprint(const std::string& certificateFile) {
  struct stat status {};
  if (::stat(certificateFile.c_str(), &status) != 0) {
    if (errno == ENOENT) {
      std::cerr << "tuqvu-call: no certificate yet at " << certificateFile
                << ": the broker makes it at its first start with HTTPS (run tuqvu-call as "
                   "the broker's user)\n";
    } else {
      std::cerr << "tuqvu-call: cannot read the certificate " << certificateFile << ": "
                << std::strerror(errno) << "\n";
    }
    return 1;
  }
  try {
    std::cout << fingerprintOfPemFile(certificateFile) << std::endl;
  } catch (const CertificateError& error) {
    std::cerr << "tuqvu-call: " << error.what() << "\n";
    return 1;
  }
  return 0;
}

}  // namespace broker
}  // namespace tuqvu
