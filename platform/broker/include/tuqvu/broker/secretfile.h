// The installation's secret: made once, at the first start, and kept in a file only its
// user may read. Clients beyond loopback present it (HTTP Basic, any user name); tuqvu-call
// reads the same file when it runs as that user.
//
//   const std::string secret = tuqvu::broker::loadOrCreateSecret(defaultSecretFile());
#pragma once

#include <stdexcept>
#include <string>

namespace tuqvu {
namespace broker {

// A secret file that cannot be read, made or is not private; what() says which and why.
class SecretFileError : public std::runtime_error {
public:
  using std::runtime_error::runtime_error;
};

// "$XDG_CONFIG_HOME/tuqvu/secret", else "~/.config/tuqvu/secret": outside every folder
// the file server serves.
std::string defaultSecretFile();

// Where earlier versions kept the secret ("~/.local/share/tuqvu/secret"), a folder the
// file server serves.
std::string legacySecretFile();

// Moves the secret at `legacy` to a new private file at `path` when only the legacy one
// exists; true when it moved. SecretFileError when either file is unusable.
bool moveLegacySecret(const std::string& legacy, const std::string& path);

// Reads the secret, or makes a new one (32 hexadecimal digits from the kernel's random
// source) in a new file of mode 0600, creating its folder with mode 0700. A file that its
// group or others may read is refused.
std::string loadOrCreateSecret(const std::string& path);

// The fewest hexadecimal digits a secret may have: 128 bits.
constexpr std::size_t kMinSecretDigits = 32;

// True for kMinSecretDigits or more hexadecimal digits and nothing else.
bool isStrongSecret(const std::string& secret);

// Reads an existing secret; "" when the file does not exist. SecretFileError when it is
// not a regular file of this process's user, others may read it, or its secret is not
// strong (isStrongSecret).
std::string readSecret(const std::string& path);

// `bytes` random bytes from the kernel, as lower-case hexadecimal.
std::string randomHex(std::size_t bytes);

}  // namespace broker
}  // namespace tuqvu
