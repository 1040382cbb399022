#include "Daemon.h"

#include <signal.h>
#include <sys/inotify.h>
#include <sys/signalfd.h>
#include <sys/stat.h>
#include <syslog.h>
#include <sysexits.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <system_error>

#include <fmt/format.h>
#include <systemd/sd-daemon.h>

#include "ConfigApply.h"
#include "ConfigFile.h"
#include "agent/PimAgent.h"
#include "agenthost/AgentHost.h"
#include "agenthost/Stage.h"
#include "kiv/ActivityManager.h"
#include "services/kni/KernelNetInfo.h"
#include "services/netlink/KernelFeed.h"
#include "services/pimio/linux/RawPimIo.h"
#include "varn/shm/ShmTable.h"

namespace Pimnbrd {

namespace {

const char * const kBootStages[] = { "NetworkAgent", "PimIntfUpdate" };
const char * const kShutdownStage = "NetworkAgentShutdown";
// The agents report the shutdown stage complete after their notify delay
// (5 s); past this the daemon stops anyway.
constexpr double kFastUpgradeTimeout = 10.0;
// A new namespace's file is there before the namespace is mounted on it.
constexpr double kNetnsRetryFor = 2.0;
constexpr double kNetnsRetryEvery = 0.05;

// The service ACL of one family: first match wins, no match permits.
std::function< bool( const Lumo::IpGenAddr & ) > serviceAcl( const std::vector< AclRule > & rules ) {
   if( rules.empty() ) return {};
   std::vector< std::pair< bool, Lumo::IpGenAddrWithMask > > compiled;
   for( const auto & r : rules ) compiled.emplace_back( r.permit, Lumo::IpGenAddrWithMask::fromStrep( r.prefix ) );
   return [ compiled ]( const Lumo::IpGenAddr & a ) {
      for( const auto & [ permit, prefix ] : compiled ) {
         if( prefix.contains( a ) ) return permit;
      }
      return true;
   };
}

class SignalReactor : public Kiv::FdReactor {
 public:
   explicit SignalReactor( Daemon * d ) : daemon_( d ) {}
   ~SignalReactor() override {
      fdIs( -1 );
      if( fd_ >= 0 ) ::close( fd_ );
   }
   void start() {
      sigset_t set;
      sigemptyset( &set );
      for( int s : { SIGTERM, SIGINT, SIGHUP, SIGUSR1 } ) sigaddset( &set, s );
      ::sigprocmask( SIG_BLOCK, &set, nullptr );
      fd_ = ::signalfd( -1, &set, SFD_NONBLOCK | SFD_CLOEXEC );
      if( fd_ < 0 ) throw std::system_error( errno, std::generic_category(), "signalfd" );
      fdIs( fd_ );
   }
   void onReadable() override {
      signalfd_siginfo si;
      while( ::read( fd_, &si, sizeof si ) == static_cast< ssize_t >( sizeof si ) ) {
         daemon_->handleSignal( static_cast< int >( si.ssi_signo ) );
      }
   }

 private:
   Daemon * daemon_;
   int fd_ = -1;
};

// Tells the daemon when a name appears in /run/netns; until that directory
// exists (the first `ip netns add` makes it), waits for it in /run.
class NetnsWatch : public Kiv::FdReactor {
 public:
   explicit NetnsWatch( Daemon * d ) : daemon_( d ) {}
   ~NetnsWatch() override {
      fdIs( -1 );
      if( fd_ >= 0 ) ::close( fd_ );
   }
   // False without inotify: missing namespaces then wait for a SIGHUP.
   bool start() {
      fd_ = ::inotify_init1( IN_NONBLOCK | IN_CLOEXEC );
      if( fd_ < 0 ) return false;
      if( !watchNetns() ) runWd_ = ::inotify_add_watch( fd_, "/run", IN_CREATE | IN_MOVED_TO | IN_ONLYDIR );
      if( netnsWd_ < 0 && runWd_ < 0 ) {
         ::close( fd_ );
         fd_ = -1;
         return false;
      }
      fdIs( fd_ );
      return true;
   }
   void onReadable() override {
      alignas( inotify_event ) char buf[ 4096 ];
      bool appeared = false;
      ssize_t n;
      while( ( n = ::read( fd_, buf, sizeof buf ) ) > 0 ) {
         for( const char * p = buf; p < buf + n; ) {
            const auto * e = reinterpret_cast< const inotify_event * >( p );
            if( e->wd == netnsWd_ ) appeared = true;
            if( e->wd == runWd_ && e->len && std::strcmp( e->name, "netns" ) == 0 && watchNetns() ) {
               ::inotify_rm_watch( fd_, runWd_ );
               runWd_ = -1;
               appeared = true;   // namespaces may be there already
            }
            p += sizeof( inotify_event ) + e->len;
         }
      }
      if( appeared ) daemon_->handleNetnsChange();
   }

 private:
   bool watchNetns() {
      netnsWd_ = ::inotify_add_watch( fd_, "/run/netns", IN_CREATE | IN_MOVED_TO | IN_ONLYDIR );
      return netnsWd_ >= 0;
   }
   Daemon * daemon_;
   int fd_ = -1;
   int netnsWd_ = -1;
   int runWd_ = -1;
};

} // namespace

// The kernel feed and the PIM socket of one VRF's namespace.
struct Daemon::NsIo {
   std::string netns;
   Kiv::Ptr< KernelNetInfo::Status > kni;
   std::unique_ptr< Netlink::KernelFeed > feed;
   Kiv::Ptr< Routing::Pim::IO::PamManager > pam;
   std::unique_ptr< Routing::Pim::IO::RawPimIo > io;
   std::set< Lumo::IntfId > pimIntfs;
};

// One hosted agent with its own store and table directory.
struct Daemon::Family {
   explicit Family( KivVarn::TableStore & tables ) : varnDir( tables ) {}
   ~Family() {
      // Sockets and feeds before the agent whose mailboxes they serve.
      ns.clear();
      host->agentDel();
      host.reset();
   }
   Routing::Pim::Agent * agent() const { return dynamic_cast< Routing::Pim::Agent * >( host->agent().ptr() ); }

   Lumo::AddressFamily af = Lumo::AddressFamily::ipv4;
   KivVarn::Directory varnDir;
   Kiv::Ptr< Dovel::Store > store = Kiv::make< Dovel::Store >();
   std::unique_ptr< AgentBase::AgentHost > host;
   ConfigTargets targets;
   Kiv::Ptr< IpGen::Status > ipStatus;
   std::map< std::string, std::unique_ptr< NsIo > > ns;   // by VRF
};

struct Daemon::Runtime {
   explicit Runtime( Daemon * d, const std::string & stateDir ) : shm( stateDir ), signals( d ), netns( d ) {}
   KivVarn::Shm::ShmTableStore shm;
   Kiv::Ptr< AgentBase::Plugin > plugin;
   std::unique_ptr< Family > family[ 2 ];   // IPv4, IPv6
   SignalReactor signals;
   NetnsWatch netns;
};

Daemon::Daemon( DaemonOptions options, DaemonConfig config )
      : options_( std::move( options ) ), config_( std::move( config ) ) {
   if( options_.syslog ) ::openlog( "pimnbrd", LOG_PID, LOG_DAEMON );
}

Daemon::~Daemon() {
   if( rt_ ) {
      for( auto & f : rt_->family ) f.reset();
      rt_.reset();
   }
}

void Daemon::log( int priority, const std::string & text ) const {
   if( options_.syslog ) {
      ::syslog( priority, "%s", text.c_str() );
   } else {
      std::fprintf( stderr, "pimnbrd: %s\n", text.c_str() );
   }
}

int Daemon::run() {
   // The agents' ring-buffer traces go to the state directory.
   ::mkdir( options_.stateDir.c_str(), 0755 );
   if( !std::getenv( "RUNDLEDIR" ) ) ::setenv( "RUNDLEDIR", options_.stateDir.c_str(), 1 );
   rt_ = std::make_unique< Runtime >( this, options_.stateDir );
   try {
      rt_->plugin = AgentBase::Plugin::load( options_.pluginPath );
      rt_->signals.start();
      if( !rt_->netns.start() ) log( LOG_WARNING, "no inotify on /run/netns: new VRF namespaces wait for a SIGHUP" );
      familyIs( false, config_.ipv4 );
      familyIs( true, config_.ipv6 );
   } catch( const std::exception & e ) {
      log( LOG_ERR, e.what() );
      return EX_UNAVAILABLE;
   }
   log( LOG_INFO, fmt::format( "running with {}, state in {}", options_.configPath, options_.stateDir ) );
   // Without a supervisor (no NOTIFY_SOCKET) these do nothing.
   ::sd_notify( 0, "READY=1\nSTATUS=running" );
   Kiv::ActivityManager & loop = Kiv::activityManager();
   while( !stopping_ ) {
      const bool retrying = netnsRetryUntil_ > loop.clock().now();
      loop.runOnce( retrying ? kNetnsRetryEvery : 0.25 );
      if( retrying ) namespacesRetry();
      for( auto & f : rt_->family ) {
         if( f ) ioSync( *f );
      }
      rt_->shm.heartbeat();
   }
   if( fastUpgrade_ ) {
      ::sd_notify( 0, "STOPPING=1\nSTATUS=fast upgrade" );
      fastUpgradeShutdown();
   } else {
      ::sd_notify( 0, "STOPPING=1\nSTATUS=sending goodbyes" );
      sendGoodbyes();
   }
   log( LOG_INFO, "stopped" );
   return 0;
}

void Daemon::handleSignal( int signo ) {
   if( signo == SIGHUP ) {
      handleReload();
   } else if( signo == SIGUSR1 ) {
      handleFastUpgrade();
   } else {
      handleStop();
   }
}

void Daemon::handleStop() { stopping_ = true; }

void Daemon::handleFastUpgrade() {
   stopping_ = true;
   fastUpgrade_ = true;
}

void Daemon::handleNetnsChange() {
   netnsRetryUntil_ = Kiv::activityManager().clock().now() + kNetnsRetryFor;
   namespacesRetry();
}

void Daemon::namespacesRetry() {
   bool all = true;
   for( auto & f : rt_->family ) {
      if( f && !namespacesAdd( *f, true ) ) all = false;
   }
   if( all ) netnsRetryUntil_ = 0;
}

void Daemon::roleIs( Family & f ) {
   f.host->redundancyStatus()->modeIs( config_.role == Role::standby ? Redundancy::modeStandby
                                                                     : Redundancy::modeActive );
}

void Daemon::handleReload() {
   ::sd_notify( 0, "RELOADING=1\nSTATUS=reloading" );
   reload();
   ::sd_notify( 0, "READY=1\nSTATUS=running" );
}

void Daemon::reload() {
   ParseResult r = parseConfigFile( options_.configPath );
   if( !r.config ) {
      for( const auto & e : r.errors ) log( LOG_ERR, e.text() );
      log( LOG_ERR, "reload failed: keeping the running configuration" );
      return;
   }
   const ConfigDiff d = diff( config_, *r.config );
   if( d.empty() ) {
      // Still worth a try: a namespace that was missing may be there now.
      for( auto & f : rt_->family ) {
         if( f ) namespacesAdd( *f );
      }
      log( LOG_INFO, "reload: configuration unchanged" );
      return;
   }
   config_ = std::move( *r.config );
   try {
      for( bool v6 : { false, true } ) {
         auto & f = rt_->family[ v6 ];
         const bool wanted = v6 ? config_.ipv6 : config_.ipv4;
         if( f && wanted ) {
            // New namespaces before the configuration that uses them, gone
            // ones after it, once their interfaces' goodbyes are out; a VRF
            // that moved gets its new namespace last.
            namespacesAdd( *f );
            // Interfaces leave first, each with its goodbye, while their VRF
            // is still there to send it.
            ConfigDiff leaving;
            leaving.intfsRemoved = d.intfsRemoved;
            applyConfig( config_, leaving, f->targets );
            Kiv::activityManager().runUntilIdle();
            Kiv::activityManager().runOnce( 0 );
            applyConfig( config_, d, f->targets );
            Kiv::activityManager().runUntilIdle();
            Kiv::activityManager().runOnce( 0 );
            namespacesDrop( *f );
            namespacesAdd( *f );
            roleIs( *f );
            if( d.serviceAclChanged ) {
               const auto acl = serviceAcl( v6 ? config_.serviceAcl6 : config_.serviceAcl4 );
               for( auto & [ vrf, n ] : f->ns ) {
                  if( n->io ) n->io->aclIs( acl );
               }
            }
         } else {
            familyIs( v6, wanted );
         }
      }
   } catch( const std::exception & e ) {
      log( LOG_ERR, fmt::format( "reload: {}", e.what() ) );
      return;
   }
   log( LOG_INFO, "reload: configuration applied" );
}

void Daemon::familyIs( bool v6, bool on ) {
   auto & slot = rt_->family[ v6 ];
   if( !on ) {
      if( !slot ) return;
      // PIM off on every interface of the family: goodbyes first.
      slot->targets.configColl->intfConfigDelAll();
      Kiv::activityManager().runUntilIdle();
      Kiv::activityManager().runOnce( 0 );
      slot.reset();
      return;
   }
   if( slot ) return;
   auto f = std::make_unique< Family >( rt_->shm );
   f->af = v6 ? Lumo::AddressFamily::ipv6 : Lumo::AddressFamily::ipv4;
   f->host = std::make_unique< AgentBase::AgentHost >( f->store );
   f->host->varnDirectoryIs( &f->varnDir );
   f->host->agentIs( rt_->plugin, v6 ? "agent6Factory" : "agent4Factory", v6 ? "pim6" : "pim" );
   if( !f->agent() ) throw std::runtime_error( options_.pluginPath + ": the agent is not a PIM agent" );
   f->host->doInit();
   // Nothing else runs beside the agent here: what it reads and nobody
   // writes is published empty.
   f->host->publishMissing();
   // A standby agent builds nothing: no sockets, no Hellos.
   roleIs( *f );
   if( f->host->doMount() != Dovel::mountSuccess_ ) throw std::runtime_error( "the agent's mounts failed" );
   if( !f->host->doBoot( { std::begin( kBootStages ), std::end( kBootStages ) } ) ) {
      throw std::runtime_error( "the agent did not complete its boot stages" );
   }
   const char * r = v6 ? "routing6/" : "routing/";
   f->targets.configColl = f->store->entity< Routing::Pim::ConfigColl >( std::string( r ) + "pim/config" );
   f->targets.vrfEnabledStatus = f->store->entity< Routing::Multicast::Fib::VrfEnabledStatus >(
      Routing::Multicast::Fib::VrfEnabledStatus::mountPath( f->af ) );
   f->targets.allVrfStatusLocal = f->store->entity< Ip::AllVrfStatusLocal >( Cell::path( "ip/vrf/status/local" ) );
   f->targets.mlagProtoStatus = f->store->entity< Mlag::ProtoStatus >( "mlag/proto" );
   f->ipStatus = f->store->entity< IpGen::Status >( IpGen::ipStatusPath( f->af ) );
   if( !f->targets.configColl || !f->targets.vrfEnabledStatus || !f->targets.allVrfStatusLocal ||
       !f->targets.mlagProtoStatus || !f->ipStatus ) {
      throw std::runtime_error( "the agent's store lacks its configuration entities" );
   }
   // The kernel's view first, so that the configuration finds the interfaces.
   namespacesAdd( *f );
   applyConfig( config_, f->targets );
   slot = std::move( f );
   Kiv::activityManager().runUntilIdle();
   ioSync( *slot );
}

void Daemon::namespacesDrop( Family & f ) {
   for( auto it = f.ns.begin(); it != f.ns.end(); ) {
      const auto v = config_.vrfs.find( it->first );
      if( v != config_.vrfs.end() && v->second.netns == it->second->netns ) {
         ++it;
         continue;
      }
      // What the feed wrote goes with it.
      for( const auto & [ ifIndex, view ] : it->second->feed->written() ) {
         const Lumo::IntfId id( view.name );
         f.ipStatus->intfDel( id );
         it->second->kni->devices()->deviceIntfStatusDel( id );
      }
      it = f.ns.erase( it );
   }
}

bool Daemon::namespacesAdd( Family & f, bool quiet ) {
   bool all = true;
   for( const auto & [ vrf, settings ] : config_.vrfs ) {
      if( f.ns.count( vrf ) ) continue;
      auto n = std::make_unique< NsIo >();
      n->netns = settings.netns;
      const Lumo::NamespaceName ns( settings.netns );
      const std::string path = KernelNetInfo::Status::mountPath( ns );
      n->kni = f.store->entity< KernelNetInfo::Status >( path );
      if( !n->kni ) n->kni = Kiv::ptr_cast< KernelNetInfo::Status >( f.store->entityIs( path, "KernelNetInfo::Status" ) );
      Netlink::FeedTargets t;
      t.vrf = L3::VrfName( vrf );
      t.devices = n->kni->devices();
      ( f.af == Lumo::AddressFamily::ipv6 ? t.ip6 : t.ip4 ) = f.ipStatus;
      n->feed = std::make_unique< Netlink::KernelFeed >( ns, t );
      try {
         n->feed->start();
      } catch( const std::exception & e ) {
         // Tried again when the namespace appears, and at every reload.
         if( !quiet ) log( LOG_ERR, fmt::format( "vrf {}: namespace '{}': {}", vrf, settings.netns, e.what() ) );
         all = false;
         continue;
      }
      if( quiet ) log( LOG_INFO, fmt::format( "vrf {}: namespace '{}' is there now", vrf, settings.netns ) );
      f.ns.emplace( vrf, std::move( n ) );
   }
   return all;
}

// Binds each namespace's PIM socket to the mailboxes of the VRF's container
// (a container is made and remade by the agent as PIM comes and goes), and
// tells it the VRF's PIM interfaces.
void Daemon::ioSync( Family & f ) {
   Routing::Pim::Agent * a = f.agent();
   const auto configSm = a ? a->pimConfigSm() : nullptr;
   const auto groups = f.store->entity< IpGen::MulticastGroupsForApplications >(
      std::string( IpGen::MulticastGroupsForApplications::mountPath( f.af ) ) + "/mcGroupsApp" );
   for( auto & [ vrfName, n ] : f.ns ) {
      const L3::VrfName vrf( vrfName );
      if( n->feed->pending() ) n->feed->handleReadable();
      const auto container = configSm ? configSm->pimVrfContainerSm( vrf ) : nullptr;
      const auto pam = container ? container->pimPamManager() : nullptr;
      if( pam != n->pam ) {
         n->io.reset();
         n->pimIntfs.clear();
         n->pam = pam;
         if( pam ) {
            auto io = std::make_unique< Routing::Pim::IO::RawPimIo >( pam, n->kni->devices(), a->timerWheel() );
            try {
               io->start();
               io->coalesceIs( options_.rxCoalesce );
               io->aclIs( serviceAcl( f.af == Lumo::AddressFamily::ipv6 ? config_.serviceAcl6 : config_.serviceAcl4 ) );
               if( groups ) io->groupsIs( groups );
               n->io = std::move( io );
            } catch( const std::exception & e ) {
               log( LOG_ERR, fmt::format( "vrf {}: PIM socket: {}", vrfName, e.what() ) );
            }
         }
      }
      if( !n->io ) continue;
      std::set< Lumo::IntfId > now;
      if( const auto status = a->pimStatusColl()->vrfStatus( vrf ) ) {
         status->pimIntfForEach( [ & ]( const Lumo::IntfId & id, const auto & ) { now.insert( id ); } );
      }
      for( const auto & id : n->pimIntfs ) {
         if( !now.count( id ) ) n->io->pimIntfIs( id, false );
      }
      for( const auto & id : now ) {
         if( !n->pimIntfs.count( id ) ) n->io->pimIntfIs( id, true );
      }
      n->pimIntfs = std::move( now );
   }
}

void Daemon::fastUpgradeShutdown() {
   // Every agent that runs PIM gets the stage at once; each stretches its
   // advertised hold time, sends, and completes after its notify delay.
   std::vector< Family * > waiting;
   for( auto & f : rt_->family ) {
      if( !f ) continue;
      f->host->stageStart( Stage::shutdownStageClass, kShutdownStage );
      // Only VRFs that run PIM report back; an agent without any has
      // nothing to stretch.
      Routing::Pim::Agent * a = f->agent();
      const auto configSm = a && !a->standbyMode() ? a->pimConfigSm() : nullptr;
      bool runsPim = false;
      for( const auto & [ vrf, n ] : f->ns ) {
         if( configSm && configSm->pimVrfContainerSm( L3::VrfName( vrf ) ) ) runsPim = true;
      }
      if( runsPim ) waiting.push_back( f.get() );
   }
   Kiv::ActivityManager & loop = Kiv::activityManager();
   const double deadline = loop.clock().now() + kFastUpgradeTimeout;
   auto done = [ & ] {
      for( Family * f : waiting ) {
         if( !f->host->stageDone( Stage::shutdownStageClass, kShutdownStage ) ) return false;
      }
      return true;
   };
   loop.runUntilIdle();
   while( !done() && loop.clock().now() < deadline ) {
      loop.runOnce( 0.1 );
      rt_->shm.heartbeat();
   }
   for( auto & f : rt_->family ) {
      if( f ) f->host->stageCompleteIs( Stage::shutdownStageClass, kShutdownStage );
   }
   log( done() ? LOG_INFO : LOG_WARNING,
        done() ? "fast upgrade: shutdown stage complete" : "fast upgrade: shutdown stage timed out" );
}

void Daemon::sendGoodbyes() {
   // PIM off on every interface: each interface leaves with a Hello of hold
   // time 0, sent at once through the transmit mailbox.
   for( auto & f : rt_->family ) {
      if( f ) f->targets.configColl->intfConfigDelAll();
   }
   Kiv::ActivityManager & loop = Kiv::activityManager();
   loop.runUntilIdle();
   loop.runOnce( 0 );
   loop.runUntilIdle();
   for( auto & f : rt_->family ) {
      if( !f ) continue;
      std::uint64_t sent = 0;
      for( const auto & [ vrf, n ] : f->ns ) sent += n->io ? n->io->counters().txSent : 0;
      log( LOG_INFO, fmt::format( "{}: {} PIM messages sent in all", f->af == Lumo::AddressFamily::ipv6 ? "ipv6" : "ipv4",
                                  sent ) );
   }
}

} // namespace Pimnbrd
