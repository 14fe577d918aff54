#include <dlfcn.h>
#include <tuqvu/broker/moduleloader.h>
#include <unistd.h>
#include <vu/log.h>
#include <vu/path.h>

#include <climits>

#ifndef TUQVU_INSTALL_LIBDIR
#define TUQVU_INSTALL_LIBDIR "lib"
#endif

namespace tuqvu {
namespace broker {
namespace {

const char* const kCategory = "tuqvu.modules";
const char* const kDefaultLibrary = "libzrbehaviormanager.so";

std::string executableDirectory() {
  char buffer[PATH_MAX];
  const ssize_t size = ::readlink("/proc/self/exe", buffer, sizeof buffer - 1);
  if (size <= 0) return "";
  std::string path(buffer, static_cast<std::size_t>(size));
  const std::size_t slash = path.find_last_of('/');
  return slash == std::string::npos ? "" : path.substr(0, slash);
}

}  // namespace

ModuleLoader::ModuleLoader(boost::shared_ptr<ZR::ZRBroker> broker) : fBroker(std::move(broker)) {}

ModuleLoader::~ModuleLoader() {
  destroyAll();
}

ZR::ZRModule* ModuleLoader::load(const ModuleSpec& moduleSpec) {
  const std::string what =
      "module library " + moduleSpec.path + " (module " + moduleSpec.name + ")";
  void* library = ::dlopen(moduleSpec.path.c_str(), RTLD_NOW | RTLD_LOCAL);
  if (library == nullptr) {
    const char* error = ::dlerror();
    throw ModuleLoadError("cannot open " + what + ": " + (error ? error : "unknown error"));
  }
  ::dlerror();
  void* symbol = ::dlsym(library, ZR::kCreateModuleSymbol);
  if (symbol == nullptr) {
    // The text belongs to the loader until the next dl call: copy it before dlclose.
    const char* error = ::dlerror();
    const std::string reason = error ? error : "symbol not found";
    ::dlclose(library);
    throw ModuleLoadError(what + " has no entry point " + ZR::kCreateModuleSymbol + ": " + reason);
  }
  const auto create = reinterpret_cast<ZR::ZRCreateModuleFunction>(symbol);
  ZR::ZRModule* module = nullptr;
  try {
    module = create(fBroker, moduleSpec.name.c_str());
  } catch (const std::exception& error) {
    throw ModuleLoadError("the constructor of " + what + " failed: " + error.what());
  } catch (...) {
    throw ModuleLoadError("the constructor of " + what + " failed with an unknown exception");
  }
  if (module == nullptr) {
    throw ModuleLoadError(std::string(ZR::kCreateModuleSymbol) + " of " + what +
                          " returned no module");
  }
  fLoaded.push_back({module->getName(), library, module});
  vu::log::write(vu::log::info, kCategory, "load",
                 "loaded module " + module->getName() + " from " + moduleSpec.path);
  return module;
}

std::vector<std::string> ModuleLoader::loadedNames() const {
  std::vector<std::string> names;
  for (const Loaded& loaded : fLoaded) names.push_back(loaded.name);
  return names;
}

void ModuleLoader::destroyAll() {
  while (!fLoaded.empty()) {
    Loaded loaded = fLoaded.back();
    fLoaded.pop_back();
    vu::log::write(vu::log::verbose, kCategory, "destroyAll", "destroying module " + loaded.name);
    fBroker->unregisterModule(loaded.module);
    delete loaded.module;
  }
}

std::vector<std::string> defaultModuleCandidates() {
  std::vector<std::string> candidates;
  const std::string binDirectory = executableDirectory();
  if (!binDirectory.empty()) candidates.push_back(binDirectory + "/../lib/" + kDefaultLibrary);
  const std::string prefix = vu::path::sdkPrefix();
  if (!prefix.empty()) {
    candidates.push_back(prefix + "/" TUQVU_INSTALL_LIBDIR "/" + kDefaultLibrary);
    if (std::string(TUQVU_INSTALL_LIBDIR) != "lib") {
      candidates.push_back(prefix + "/lib/" + kDefaultLibrary);
    }
  }
  return candidates;
}

}  // namespace broker
}  // namespace tuqvu
