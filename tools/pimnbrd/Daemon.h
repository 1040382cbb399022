#pragma once
// The running daemon: the agent plug-in hosted once per address family on
// one activity loop (monotonic clock), the configuration written into each
// agent's store, and per VRF namespace the kernel feed and the raw PIM
// socket that serve the agent's mailboxes. Status tables go to shared memory
// named after the state directory.
//
// Signals arrive through a signalfd on the same loop: SIGTERM/SIGINT send
// goodbyes and stop, SIGUSR1 (fast upgrade) runs the agents' shutdown stage,
// which advertises a stretched hold time so that neighbours keep this router
// while it restarts, and then stops without goodbyes; SIGHUP re-reads the
// configuration file. A supervisor hears READY, RELOADING and STOPPING
// through sd_notify. A VRF namespace that is missing is picked up when it
// appears in /run/netns.
#include <functional>
#include <map>
#include <memory>
#include <set>
#include <string>

#include "DaemonConfig.h"

namespace Pimnbrd {

struct DaemonOptions {
   std::string configPath;
   std::string stateDir;
   std::string pluginPath;
   bool syslog = false;
   // Pause after a light wake-up of a PIM socket, seconds (0: none).
   double rxCoalesce = 0.01;
};

class Daemon {
 public:
   // config is the configuration already read from options.configPath.
   Daemon( DaemonOptions options, DaemonConfig config );
   ~Daemon();
   Daemon( const Daemon & ) = delete;
   Daemon & operator=( const Daemon & ) = delete;

   // Loads the plug-in, starts the agents and runs until SIGTERM/SIGINT.
   // Returns the process's exit code.
   int run();

   // Operations the signal reactor forwards to.
   void handleSignal( int signo );
   void handleReload();
   void handleStop();
   void handleFastUpgrade();
   void handleNetnsChange();

 private:
   struct Family;
   struct NsIo;
   void log( int priority, const std::string & text ) const;
   void reload();
   void familyIs( bool ipv6, bool on );
   // Returns whether every VRF of the configuration has its namespace.
   bool namespacesAdd( Family & f, bool quiet = false );
   void namespacesDrop( Family & f );
   void namespacesRetry();
   void roleIs( Family & f );
   void ioSync( Family & f );
   void sendGoodbyes();
   void fastUpgradeShutdown();

   DaemonOptions options_;
   DaemonConfig config_;
   struct Runtime;
   std::unique_ptr< Runtime > rt_;
   bool stopping_ = false;
   bool fastUpgrade_ = false;
   // Loop time until which missing namespaces are tried every turn: a new
   // namespace's file appears before it is mounted.
   double netnsRetryUntil_ = 0;
};

} // namespace Pimnbrd
