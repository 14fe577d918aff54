// Loads module libraries into a broker and destroys their modules again.
//
//   ModuleLoader loader(broker);
//   loader.load({"build/lib/libzrbehaviormanager.so", "ZRBehaviorManager"});  // throws
//   ModuleLoadError
//   ...
//   loader.destroyAll();  // reverse load order; each module leaves the broker first
//
// A library exports one C entry point, tuqvuCreateModule (see zr/zrmodule.h), that
// constructs its module with the broker and the name given.
#pragma once

#include <tuqvu/broker/options.h>
#include <zr/zrbroker.h>
#include <zr/zrmodule.h>

#include <boost/shared_ptr.hpp>
#include <stdexcept>
#include <string>
#include <vector>

namespace tuqvu {
namespace broker {

// A library that could not be opened, lacks the entry point, or whose module could not
// be constructed; what() carries the underlying error text.
class ModuleLoadError : public std::runtime_error {
public:
  using std::runtime_error::runtime_error;
};

class ModuleLoader {
public:
  explicit ModuleLoader(boost::shared_ptr<ZR::ZRBroker> broker);
  ~ModuleLoader();  // destroys what is still loaded
  ModuleLoader(const ModuleLoader&) = delete;
  ModuleLoader& operator=(const ModuleLoader&) = delete;

  // Opens the library, constructs its module and keeps it. Throws ModuleLoadError.
  ZR::ZRModule* load(const ModuleSpec& moduleSpec);

  // Names of the loaded modules, in load order.
  std::vector<std::string> loadedNames() const;

  // Destroys the modules in reverse load order. Each is withdrawn from the broker before
  // its destructor runs, so no new call reaches a module half destroyed. The libraries
  // stay mapped: threads they started may still be ending.
  void destroyAll();

private:
  struct Loaded {
    std::string name;
    void* library;
    ZR::ZRModule* module;
  };
  boost::shared_ptr<ZR::ZRBroker> fBroker;
  std::vector<Loaded> fLoaded;
};

// Where the behavior manager library is looked for when no --module is given: beside the
// running binary's build (<bin>/../lib) first, then the installation prefix.
std::vector<std::string> defaultModuleCandidates();

}  // namespace broker
}  // namespace tuqvu
