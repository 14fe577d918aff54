// tuqvu: the broker daemon. It hosts the platform modules and the loaded module
// libraries, announces "TUQvuReady", serves the remote API and the web interface, and
// shuts down cleanly on SIGINT or SIGTERM.
#include <pthread.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <tuqvu/broker/callexecutor.h>
#include <tuqvu/broker/httpserver.h>
#include <tuqvu/broker/moduleloader.h>
#include <tuqvu/broker/options.h>
#include <tuqvu/broker/recentlog.h>
#include <tuqvu/broker/rpcdispatcher.h>
#include <tuqvu/broker/secretfile.h>
#include <tuqvu/broker/servercontext.h>
#include <tuqvu/broker/ssehub.h>
#include <tuqvu/broker/tlscertificate.h>
#include <tuqvu/broker/tlscredentials.h>
#include <tuqvu/fleet/fleetlink.h>
#include <unistd.h>
#include <vu/log.h>
#include <vu/settings.h>
#include <zr/zrbroker.h>
#include <zr/zrnetworkaccess.h>
#include <zr/zrreadykey.h>

#include <boost/asio/ip/address.hpp>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <future>
#include <iostream>
#include <memory>
#include <optional>
#include <stdexcept>
#include <thread>
#include <utility>

#include "platformmodules.h"

namespace tb = tuqvu::broker;

namespace {

const char* const kCategory = "tuqvu.main";
constexpr auto kAnswerDrain = std::chrono::seconds(5);

void logLine(int level, const std::string& function, const std::string& text) {
  vu::log::write(level, kCategory, function, text);
}

// SIGINT and SIGTERM are blocked in every thread and taken here: the first one asks for
// a clean shutdown, a second one ends the process at once.
void watchSignals(std::promise<int> first, sigset_t signals) {
  int signal = 0;
  sigwait(&signals, &signal);
  first.set_value(signal);
  sigwait(&signals, &signal);
  static const char kMessage[] = "tuqvu: second signal, exiting at once\n";
  ssize_t ignored = ::write(STDERR_FILENO, kMessage, sizeof kMessage - 1);
  (void)ignored;
  _exit(128 + signal);
}

bool isFile(const std::string& path) {
  struct stat status;
  return ::stat(path.c_str(), &status) == 0 && S_ISREG(status.st_mode);
}

// The modules to load: those given, else the behavior manager of the build or installation.
std::vector<tb::ModuleSpec> modulesToLoad(const tb::Options& options) {
  if (options.modulesGiven) return options.modules;
  for (const std::string& candidate : tb::defaultModuleCandidates()) {
    if (isFile(candidate)) return {tb::parseModuleArgument(candidate, false)};
  }
  std::string looked;
  for (const std::string& candidate : tb::defaultModuleCandidates()) looked += " " + candidate;
  logLine(vu::log::warning, "main",
          "the default module library was not found (looked for" + looked +
              "); running with the platform modules only");
  return {};
}

void announceReady(const boost::shared_ptr<ZR::ZRBroker>& broker) {
  ZR::ZRValue args = ZR::ZRValue::array();
  args.arrayPush(ZR::ZRValue(ZR::kReadyKey));
  args.arrayPush(ZR::ZRValue(1));
  try {
    broker->call("ZRMemory", "insertData", args);
  } catch (const std::exception& error) {
    logLine(vu::log::warning, "main",
            std::string("cannot insert ") + ZR::kReadyKey + ": " + error.what());
  }
}

// Lets the calls in progress finish, up to the grace period. Calls that their own module
// ends when it is destroyed (a behavior run that lasts until it is stopped) are not
// waited for: destroying the module answers them at once.
bool letCallsFinish(tb::HttpServer& server, const tb::ServerContext& context,
                    const ZR::ZRBroker& broker, std::chrono::milliseconds grace) {
  const auto deadline = std::chrono::steady_clock::now() + grace;
  for (;;) {
    if (server.drain(std::chrono::milliseconds(0))) return true;
    const ZR::ZRBroker::CallCounts calls = broker.callsInProgress();
    if (calls.all == calls.endedByTheirModules && context.pendingAnswers.load() <= calls.all) {
      return true;
    }
    if (std::chrono::steady_clock::now() >= deadline) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
}

// The certificate the port presents: the owner's, or the broker's own, made beside the
// secret at the first start that needs it.
std::shared_ptr<tb::TlsCredentials> tlsCredentials(const tb::Options& options,
                                                   const std::string& secretFile) {
  tb::CertificateFiles files{options.tlsCertificate, options.tlsKey};
  if (files.certificate.empty()) {
    files = tb::certificateFilesBeside(secretFile);
    switch (tb::ensureOwnCertificate(files, tb::localNames())) {
      case tb::OwnCertificate::Made:
        logLine(vu::log::info, "main", "made a self-signed certificate " + files.certificate);
        break;
      case tb::OwnCertificate::Renewed:
        logLine(vu::log::info, "main",
                "renewed the self-signed certificate " + files.certificate + " with its key");
        break;
      case tb::OwnCertificate::Kept: break;
    }
  }
  auto credentials = std::make_shared<tb::TlsCredentials>(files);
  logLine(vu::log::info, "main",
          "HTTPS with the certificate " + files.certificate + ", SHA-256 fingerprint " +
              credentials->fingerprint());
  return credentials;
}

// A start that cannot go on. Status 2 is a mistake in how tuqvu was started, said on
// stderr; status 1 a failure of the robot's own, logged.
class StartFailure : public std::runtime_error {
public:
  StartFailure(int status, const std::string& text) : std::runtime_error(text), fStatus(status) {}
  int report() const {
    if (fStatus == 2) {
      std::cerr << "tuqvu: " << what() << "\n";
    } else {
      logLine(vu::log::error, "main", what());
    }
    return fStatus;
  }

private:
  int fStatus;
};

// The options of the command line and of the service's configuration file (which sets the
// address through the environment); none when help or the version was asked for, and
// printed.
std::optional<tb::Options> startOptions(int argc, char** argv) {
  tb::Options options;
  try {
    options = tb::parseOptions(argc, argv);
  } catch (const tb::OptionsError& error) {
    throw StartFailure(2, error.what());
  }
  if (options.showHelp || options.showVersion) {
    std::cout << (options.showHelp ? tb::helpText() : tb::versionText());
    return std::nullopt;
  }
  const std::string bind = vu::settings::text("TUQVU_BIND");
  if (!bind.empty() && !options.bindGiven) {
    boost::system::error_code error;
    boost::asio::ip::make_address(bind, error);
    if (error) throw StartFailure(2, "TUQVU_BIND must be an IP address, not \"" + bind + "\"");
    options.bind = bind;
  }
  return options;
}

// Every log line goes to stderr, and the warnings and errors also to what GET /log
// answers, for operators who cannot read the robot's stderr.
std::shared_ptr<tb::RecentLog> keepRecentLog() {
  auto recent = std::make_shared<tb::RecentLog>();
  vu::log::setSink([recent](const vu::log::Message& message) {
    vu::log::writeToStderr(message);
    recent->add(message);
  });
  return recent;
}

// Who may reach the servers of this process, with the installation's secret.
ZR::ZRNetworkAccess networkAccess(const tb::Options& options, const std::string& secretFile) {
  ZR::ZRNetworkAccess access;
  access.bindAddress = options.bind;
  access.hostNames = options.hostNames;
  access.trustLoopback = options.trustLoopback;
  access.fileServer = options.fileServer;
  try {
    if (options.secretFile.empty() && tb::moveLegacySecret(tb::legacySecretFile(), secretFile)) {
      logLine(vu::log::warning, "main",
              "the secret moved out of the served data folder to " + secretFile);
    }
    access.secret = tb::loadOrCreateSecret(secretFile);
  } catch (const tb::SecretFileError& error) {
    if (access.requiresCredentials()) {
      throw StartFailure(1, std::string("cannot serve without the secret (--trust-loopback serves "
                                        "loopback without it): ") +
                                error.what());
    }
    logLine(vu::log::warning, "main", std::string("no secret: ") + error.what());
  }
  return access;
}

tuqvu::fleet::FleetSettings fleetSettingsOf(const tb::Options& options) {
  try {
    return tuqvu::fleet::fleetSettings(options);
  } catch (const tuqvu::fleet::FleetSettingsError& error) {
    throw StartFailure(2, error.what());
  }
}

// Every connection and every call in progress takes a descriptor or a thread: allow as
// many descriptors as the system lets this process have.
void raiseDescriptorLimit() {
  rlimit files{};
  if (::getrlimit(RLIMIT_NOFILE, &files) == 0 && files.rlim_cur < files.rlim_max) {
    files.rlim_cur = files.rlim_max;
    ::setrlimit(RLIMIT_NOFILE, &files);
  }
}

// Called before any other thread starts, so that every thread inherits the mask. The
// future holds the first SIGINT or SIGTERM.
std::future<int> takeSignals() {
  sigset_t signals;
  sigemptyset(&signals);
  sigaddset(&signals, SIGINT);
  sigaddset(&signals, SIGTERM);
  pthread_sigmask(SIG_BLOCK, &signals, nullptr);
  ::signal(SIGPIPE, SIG_IGN);
  std::promise<int> firstSignal;
  std::future<int> first = firstSignal.get_future();
  std::thread(watchSignals, std::move(firstSignal), signals).detach();
  return first;
}

// The modules this process hosts: the platform's and those of the loaded libraries.
// Going out of scope destroys them, the libraries' first, whichever way main ends.
class HostedModules {
public:
  explicit HostedModules(const boost::shared_ptr<ZR::ZRBroker>& broker) : fLoader(broker) {
    try {
      fPlatform = tb::PlatformModules::create(broker);
    } catch (const std::exception& error) {
      throw StartFailure(1, std::string("cannot create the platform modules: ") + error.what());
    }
  }
  ~HostedModules() { destroy(); }
  HostedModules(const HostedModules&) = delete;
  HostedModules& operator=(const HostedModules&) = delete;

  void load(const std::vector<tb::ModuleSpec>& modules) {
    for (const tb::ModuleSpec& moduleSpec : modules) {
      try {
        fLoader.load(moduleSpec);
      } catch (const tb::ModuleLoadError& error) {
        if (!moduleSpec.optional) throw StartFailure(1, error.what());
        logLine(vu::log::warning, "main", std::string(error.what()) + " (optional; going on)");
      }
    }
  }
  tb::PlatformModules& platform() { return *fPlatform; }

  void destroy() {
    if (std::exchange(fDestroyed, true)) return;
    fPlatform->stopObserving();
    fLoader.destroyAll();
    fPlatform->destroy();
  }

private:
  tb::ModuleLoader fLoader;
  std::unique_ptr<tb::PlatformModules> fPlatform;
  bool fDestroyed = false;
};

// What every connection of the port shares.
std::shared_ptr<tb::ServerContext> serverContext(const boost::shared_ptr<ZR::ZRBroker>& broker,
                                                 const tb::Options& options,
                                                 std::shared_ptr<tb::TlsCredentials> tls) {
  auto context = std::make_shared<tb::ServerContext>();
  context->rpc = std::make_shared<tb::RpcDispatcher>(broker);
  context->executor = std::make_shared<tb::CallExecutor>();
  context->admission =
      std::make_shared<tb::CallAdmission>(tb::CallAdmission::limitsFromEnvironment());
  context->localClients = std::make_shared<tb::LocalClientNames>();
  context->hub = std::make_shared<tb::SseHub>(tb::SseHub::maxSubscribersFromEnvironment());
  context->hub->countIn(broker->metrics());
  context->fileMetrics =
      std::make_shared<const ZR::ZRFileServerMetrics>(broker->metrics(), "files");
  context->openConnections = &broker->metrics().gauge(
      "tuqvu_http_connections_open",
      "Connections to the broker's port open now (HTTP and HTTPS, event streams included).");
  context->sessionToken = tb::randomHex(16);
  context->tls = std::move(tls);
  context->plainHttpBeyondLoopback = options.allowPlainHttp;
  context->fileFolders = [weak = boost::weak_ptr<ZR::ZRBroker>(broker)] {
    const boost::shared_ptr<ZR::ZRBroker> alive = weak.lock();
    return alive ? alive->fileFolders() : nullptr;
  };
  return context;
}

// The robot's link to its fleet; null without --mqtt.
std::shared_ptr<tuqvu::fleet::FleetLink> fleetLink(
    const tuqvu::fleet::FleetSettings& settings,
    const std::shared_ptr<tb::ServerContext>& context) {
  if (!settings.enabled()) return nullptr;
  std::string version = tb::versionText();
  version = version.substr(version.find(' ') + 1);
  version.erase(version.find_last_not_of('\n') + 1);
  return std::make_shared<tuqvu::fleet::FleetLink>(settings, context, version);
}

// The address and port the server listens on, as "address:port".
std::string listen(tb::HttpServer& server, const tb::Options& options) {
  try {
    const auto endpoint = server.start(options.bind, options.port);
    return endpoint.address().to_string() + ":" + std::to_string(endpoint.port());
  } catch (const std::exception& error) {
    throw StartFailure(1, "cannot listen on " + options.bind + ":" + std::to_string(options.port) +
                              ": " + error.what());
  }
}

// The steps of a clean stop after `signal`. Remote calls stop first; the modules keep
// calling one another until they are gone, since a module's destructor may need another
// module (to stop what it started).
void stop(int signal, const tb::Options& options, tb::HttpServer& server,
          tb::ServerContext& context, const boost::shared_ptr<ZR::ZRBroker>& broker,
          HostedModules& modules, tuqvu::fleet::FleetLink* fleet) {
  server.stopAccepting();
  context.refusingCalls = true;
  logLine(vu::log::info, "main", "signal " + std::to_string(signal) + ", shutting down");
  if (!letCallsFinish(server, context, *broker,
                      std::chrono::milliseconds(options.shutdownGraceMs))) {
    logLine(vu::log::warning, "main",
            "calls still running after the grace period; their modules end them");
  }
  modules.platform().stopObserving();
  if (fleet != nullptr) fleet->stop();  // "offline" to the fleet while the modules are there
  context.hub->closeAll();
  modules.destroy();
  broker->shutdown(0);
  context.executor->stop();
  if (!server.drain(kAnswerDrain)) {
    // A call that outlived its module; the process cannot wait for it forever.
    logLine(vu::log::warning, "main", "answers still pending at exit");
    std::fflush(nullptr);
    std::_Exit(0);
  }
  server.stop();
  logLine(vu::log::info, "main", "stopped");
}

}  // namespace

int main(int argc, char** argv) {
  try {
    const std::optional<tb::Options> options = startOptions(argc, argv);
    if (!options) return 0;
    vu::log::setMaxLevel(options->logLevel);
    const std::shared_ptr<tb::RecentLog> recentLog = keepRecentLog();

    const std::string secretFile =
        options->secretFile.empty() ? tb::defaultSecretFile() : options->secretFile;
    const ZR::ZRNetworkAccess access = networkAccess(*options, secretFile);
    // Before any module starts a server of its own.
    ZR::setNetworkAccess(access);
    const tuqvu::fleet::FleetSettings fleetSettings = fleetSettingsOf(*options);
    std::shared_ptr<tb::TlsCredentials> tls;
    if (options->servesHttps(access.listensBeyondLoopback())) {
      try {
        tls = tlsCredentials(*options, secretFile);
      } catch (const tb::CertificateError& error) {
        throw StartFailure(1, std::string("cannot serve HTTPS: ") + error.what());
      }
    }
    raiseDescriptorLimit();
    std::future<int> shutdownRequested = takeSignals();

    boost::shared_ptr<ZR::ZRBroker> broker = ZR::ZRBroker::create("tuqvu");
    HostedModules modules(broker);
    modules.load(modulesToLoad(*options));
    const std::shared_ptr<tb::ServerContext> context = serverContext(broker, *options, tls);
    context->recentLog = recentLog;
    const std::shared_ptr<tuqvu::fleet::FleetLink> fleet = fleetLink(fleetSettings, context);
    modules.platform().observeMemory(
        [hub = context->hub, fleet](const std::string& key, const ZR::ZRValue& value) {
          hub->publish(key, value);
          if (fleet) fleet->memoryEvent(key, value);
        });
    tb::HttpServer server(context, tb::IoLanes::defaultCount());
    const std::string listening = listen(server, *options);
    announceReady(broker);
    if (fleet) fleet->start();
    std::cout << "tuqvu: listening on " << listening << std::endl;

    stop(shutdownRequested.get(), *options, server, *context, broker, modules, fleet.get());
    return 0;
  } catch (const StartFailure& failure) {
    return failure.report();
  }
}
