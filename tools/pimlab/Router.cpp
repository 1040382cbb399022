#include "Router.h"

#include "config/PimConfigSm.h"
#include "ConfigPipeline.h"
#include "VrfPipeline.h"
#include "kiv/ActivityManager.h"
#include "model/PimConfig.h"
#include "services/bridging/BridgingConfig.h"
#include "services/intf/DeviceIntfStatus.h"
#include "services/kni/KernelNetInfo.h"
#include "services/pimio/MessageInfo.h"
#include "varn/shm/ShmTable.h"
#include "kiv/OwnedReactor.h"
#include "tolm/OwnedTimer.h"

namespace PimLab {

using namespace Routing::Pim;

namespace {
void add( SimLan::EndpointCounters & sum, const SimLan::EndpointCounters & c ) {
   sum.txFrames += c.txFrames;
   sum.txNotAttached += c.txNotAttached;
   sum.txWhileDown += c.txWhileDown;
   sum.txEncodeFailed += c.txEncodeFailed;
   sum.rxFrames += c.rxFrames;
   sum.rxLost += c.rxLost;
   sum.rxCut += c.rxCut;
   sum.rxDetached += c.rxDetached;
   sum.rxNoMailbox += c.rxNoMailbox;
   for( std::size_t i = 0; i < sum.rxRejected.size(); ++i ) sum.rxRejected[ i ] += c.rxRejected[ i ];
}

Bridging::MacAddr bridgeMac( std::uint32_t index ) {
   return Bridging::MacAddr{ { 0x02, 0x00, 0x5e, 0x10, std::uint8_t( index >> 8 ), std::uint8_t( index ) } };
}

Interface::DeviceIntfStatus kernelDevice( std::uint32_t ifIndex ) {
   return Interface::DeviceIntfStatus{ "eth" + std::to_string( ifIndex ), ifIndex, true };
}

// The kernel feed of one router: "kni/ns/<ns>/status" with the router's
// interfaces as kernel devices.
class LabKniMounter : public KernelNetInfoMounter {
 public:
   explicit LabKniMounter( const Kiv::Ptr< Interface::DeviceIntfStatusDir > & devices ) : devices_( devices ) {}
   Kiv::Ptr< KernelNetInfo::Status > doMount( const std::string & path ) override {
      auto s = Kiv::make< KernelNetInfo::Status >( Kiv::Name( path ) );
      devices_->deviceIntfStatusForEach( [ & ]( const Lumo::IntfId & id, const Interface::DeviceIntfStatus & d ) {
         s->devices()->deviceIntfStatusIs( id, d );
      } );
      return s;
   }
   void doUnmount( const std::string & ) override {}
 private:
   Kiv::Ptr< Interface::DeviceIntfStatusDir > devices_;
};

} // namespace

const char * engineName( Engine e ) { return e == Engine::direct ? "direct" : "pipeline"; }

// ---- pipeline: the platform inputs of the configuration pipeline ------------------------
struct Router::Pipeline {
   Pipeline( Router * r, Lumo::AddressFamily af )
         : shmStore( r->shmDir_.empty() ? nullptr
                                        : std::make_unique< KivVarn::Shm::ShmTableStore >( r->shmDir_ + "/" + r->name() ) ),
           config( af, shmStore ? static_cast< KivVarn::TableStore & >( *shmStore ) : KivVarn::HeapTableStore::instance() ),
           bindTimer( r, r->wheel_.ptr() ), globalStatusReactor( r ) {}

   using KivBindTimer = Tolm::OwnedTimer< Router, &Router::bindEndpoint >;
   // The VRF's PIM enablement decides whether a container exists.
   class KivGlobalStatus : public Kiv::OwnedReactor< GlobalStatus::NotifieeConst, Router > {
    public:
      using OwnedReactor::OwnedReactor;
      void onPimEnabledSparseModeVrf( const L3::VrfName & ) override { owner_->handlePimEnablement(); }
      void onPimEnabledBidirVrf( const L3::VrfName & ) override { owner_->handlePimEnablement(); }
   };

   L3::VrfName vrfName{ Router::kVrf };
   std::unique_ptr< KivVarn::Shm::ShmTableStore > shmStore;
   ConfigPipeline config;
   Kiv::Ptr< Interface::DeviceIntfStatusDir > kernel = Kiv::make< Interface::DeviceIntfStatusDir >();
   Kiv::Ptr< LabKniMounter > kni = Kiv::make< LabKniMounter >( kernel );
   Kiv::Ptr< ConfigSm > configSm;
   KivBindTimer bindTimer;
   KivGlobalStatus globalStatusReactor;

   ~Pipeline() { configSm = nullptr; }
};

Router::Router( const RouterDesc & desc, std::uint32_t index, SimLan::Lan & lan,
                const Kiv::Ptr< Tolm::TimerWheel > & wheel, Engine engine )
      : desc_( desc ), index_( index ), lan_( lan ), wheel_( wheel ), engine_( engine ),
        allStatusColl_( Kiv::make< AllStatusColl >() ) {}

Router::~Router() {
   endpoint_.reset();
   direct_.reset();
   pipeline_.reset();
}

void Router::publishClock( double now ) {
   if( pipeline_ && pipeline_->shmStore ) pipeline_->shmStore->heartbeat( now );
}

SimLan::EndpointCounters Router::counters() const {
   SimLan::EndpointCounters c = pastCounters_;
   if( endpoint_ ) add( c, endpoint_->counters() );
   return c;
}

void Router::endpointIs( const Kiv::Ptr< IO::PamManager > & pam ) {
   if( endpoint_ && endpoint_->pamManager() == pam ) return;
   if( endpoint_ ) {
      add( pastCounters_, endpoint_->counters() );
      endpoint_.reset();
   }
   if( !pam ) return;
   endpoint_ = std::make_unique< SimLan::Endpoint >( lan_, desc_.name, pam, wheel_ );
   for( const auto & i : desc_.interfaces ) endpoint_->attach( Lumo::IntfId( i.name ), i.segment );
}

void Router::bindEndpoint() {
   if( !pipeline_ ) return;
   const auto container = pipeline_->configSm->pimVrfContainerSm( pipeline_->vrfName );
   endpointIs( container ? container->pimPamManager() : Kiv::Ptr< IO::PamManager >() );
}

Kiv::Ptr< Intf > Router::intf( const std::string & name ) const {
   const auto all = allStatusColl_->vrfStatus( L3::VrfName( kVrf ) );
   return all ? all->pimIntf( Lumo::IntfId( name ) ) : Kiv::Ptr< Intf >();
}

void Router::start() {
   if( running_ ) return;
   running_ = true;
   allStatusColl_ = Kiv::make< AllStatusColl >();
   if( engine_ == Engine::direct ) {
      startDirect();
   } else {
      startPipeline();
   }
}

void Router::startDirect() {
   const Lumo::AddressFamily af =
      desc_.interfaces.empty() ? Lumo::AddressFamily::ipv4 : desc_.interfaces.front().address.af();
   auto v = std::make_unique< VrfPipeline >( af, L3::VrfName( kVrf ), wheel_,
                                             allStatusColl_->vrfStatusIs( L3::VrfName( kVrf ) ) );
   v->config->pimConfiguredIs( true );
   v->routerIdIs( bridgeMac( index_ ) );
   // The wire first, so that the first Hello finds it.
   endpointIs( v->pamManager );
   v->start();

   std::uint32_t ifIndex = 100 * index_;
   for( const auto & i : desc_.interfaces ) {
      const Lumo::IntfId id( i.name );
      auto intf = v->allStatus->pimIntfIs( id, i.address );
      intf->modeIs( pimModeSparse );
      intf->drPriorityIs( i.drPriority );
      intf->helloPeriodIs( i.helloInterval );
      intf->helloHoldTimeIs( i.holdTime() );
      v->kernelAdd( id, ++ifIndex );
   }
   direct_ = std::move( v );
}

void Router::startPipeline() {
   const Lumo::AddressFamily af =
      desc_.interfaces.empty() ? Lumo::AddressFamily::ipv4 : desc_.interfaces.front().address.af();
   auto p = std::make_unique< Pipeline >( this, af );
   ConfigPipeline & c = p->config;
   c.allStatusColl = allStatusColl_;
   c.bridging->bridgeMacAddrIs( bridgeMac( index_ ) );

   // What the platform publishes for this router: the VRF with PIM and
   // multicast routing, its interfaces in IP and in the kernel, and the PIM
   // configuration of every interface.
   c.configColl->vrfConfigIs( p->vrfName )->pimConfiguredIs( true );
   c.vrfEnabledStatus->vrfIs( p->vrfName, true );
   std::uint32_t ifIndex = 100 * index_;
   for( const auto & i : desc_.interfaces ) {
      const Lumo::IntfId id( i.name );
      p->kernel->deviceIntfStatusIs( id, kernelDevice( ++ifIndex ) );
      c.ipStatus->intfVrfIs( id, p->vrfName );
      c.ipStatus->intfPrimaryIs( id, i.address );
      auto ic = c.configColl->intfConfigIs( id );
      ic->modeIs( pimModeSparse );
      ic->helloIntervalIs( i.helloInterval );
      ic->helloCountIs( i.holdMultiplier );
      ic->helloPriorityIs( i.drPriority );
   }
   p->globalStatusReactor.notifierIs( c.globalStatus );
   const ConfigSmInputs in = c.inputs( p->kni, wheel_ );
   pipeline_ = std::move( p );
   pipeline_->configSm = configSmFactory( in );
   handlePimEnablement();
}

void Router::handlePimEnablement() {
   pipeline_->bindTimer.timeMinIs( Kiv::System::currentTime() );
}

void Router::goodbyeIs() {
   if( direct_ ) {
      // Disabling an interface sends its goodbye and forgets its neighbours.
      direct_->allStatus->pimIntfForEach(
         []( const Lumo::IntfId &, const Kiv::Ptr< Intf > & intf ) { intf->enabledIs( false ); } );
   }
   if( pipeline_ ) {
      // PIM off in the configuration: the pipeline deletes the interfaces.
      for( const auto & i : desc_.interfaces ) pipeline_->config.configColl->intfConfigDel( Lumo::IntfId( i.name ) );
   }
}

void Router::stop() {
   if( !running_ ) return;
   running_ = false;
   // Down first: whatever the teardown sends stays in the router.
   if( endpoint_ ) endpoint_->upIs( false );
   direct_.reset();
   pipeline_.reset();
   Kiv::activityManager().runUntilIdle();
   endpointIs( nullptr );
}

void Router::drPriorityIs( const std::string & intfName, std::uint32_t priority ) {
   for( auto & i : desc_.interfaces ) {
      if( !intfName.empty() && i.name != intfName ) continue;
      i.drPriority = priority;
      if( pipeline_ ) {
         if( auto c = pipeline_->config.configColl->intfConfig( Lumo::IntfId( i.name ) ) ) c->helloPriorityIs( priority );
      } else if( auto x = intf( i.name ) ) {
         x->drPriorityIs( priority );
      }
   }
}

void Router::detach( const std::string & intfName ) {
   if( !endpoint_ ) return;
   for( const auto & i : desc_.interfaces ) {
      if( intfName.empty() || i.name == intfName ) endpoint_->detach( Lumo::IntfId( i.name ) );
   }
}

void Router::attach( const std::string & intfName ) {
   if( !endpoint_ ) return;
   for( const auto & i : desc_.interfaces ) {
      if( intfName.empty() || i.name == intfName ) endpoint_->attach( Lumo::IntfId( i.name ), i.segment );
   }
}

} // namespace PimLab
