#include "config/PimContainerSm.h"

#include <cassert>
#include <cstdlib>

#include "kiv/Trace.h"

KIV_TRACE_HANDLE( "Pim::Container" )

#define CTRACE( level, expr ) KIV_TRACE( th(), level, "<Vrf:" << args_.vrfName << ">" << expr )

namespace Routing::Pim {

namespace {
// PIM message type of Hello.
constexpr std::uint8_t kHelloMessageType = 0;
} // namespace

const char * ContainerSm::bfdAppName( Lumo::AddressFamily af ) {
   switch( af ) {
    case Lumo::AddressFamily::ipv4: return "pim";
    case Lumo::AddressFamily::ipv6: return "pim6";
    default: break;
   }
   assert( false && "Unknown AF" );
   std::abort();
}

ContainerSm::ContainerSm( const ContainerSmArgs & args ) : args_( args ) { handleInitialized(); }

ContainerSm::~ContainerSm() { handleDestruction(); }

void ContainerSm::handleInitialized() {
   CTRACE( 8, "handleInitialized()" );
   const Kiv::ValidPtr< AllStatus > allStatus( args_.pimAllStatus );
   const Kiv::ValidPtr< const ConfigColl > configColl( args_.pimConfigColl );
   const Kiv::ValidPtr< const IpGen::Status > ipStatus( args_.ipStatus );
   const Kiv::ValidPtr< GlobalStatus > globalStatus( args_.pimGlobalStatus );
   const Kiv::ValidPtr< CellGlobalStatus > cellGlobalStatus( args_.pimCellGlobalStatus );
   const Kiv::ValidPtr< Tolm::TimerWheel > timerWheel( args_.timerWheel );
   const Kiv::Ptr< const Config > vrfConfig = configColl->vrfConfig( args_.vrfName );

   // The receive path exists before anything that could send.
   pimPamManagerIs( Kiv::make< IO::PamManager >( args_.af, args_.namespaceName, true ) );
   pimPamManager()->rcvBufSizeIs( kRcvBufSize );
   pimPamManager()->rcvPktInfoIs( true );
   rxHelloMessageInfoIs( Kiv::make< IO::MessageInfo >() );
   pimPamManager()->rxMessageInfoIs( kHelloMessageType, rxHelloMessageInfo() );

   const char * appName = bfdAppName( args_.af );
   bfdPimAppStatusIs( Kiv::make< Bfd::AppStatus >( appName ) );
   bfdPimSmIs( Bfd::bfdAppSmFactory( appName, args_.bfdStatusPeer, bfdPimAppStatus(),
                                     args_.vrfName, args_.bfdPimAppConfig ) );

   // The writer exists before the interface machines so that their first
   // status reaches the table.
   // Without its table the engine still runs; ConfigSm rebuilds the
   // container once the table can be mounted.
   if( args_.pimVarnStatus ) {
      pimStatusWriterSmIs( Varn::StatusWriterSmIs( args_.vrfName, allStatus, args_.pimVarnStatus ) );
   } else {
      CTRACE( 1, "handleInitialized(), no status table: status not published" );
   }

   vrfIpIntfStatusIs( IpGen::intfStatusFactory( ipStatus, args_.vrfName ) );
   pimIOSmIs( IO::ioSmFactory( ioSmArgs() ) );

   routerIdInfoIs( routerIdInfoFactory( args_.vrfName ) );
   routerIdSmIs( routerIdSmFactory( args_.vrfName, args_.bridgingConfig, routerIdInfo() ) );

   // The interface owner exists before the Hello processor so that a Hello
   // always finds its interface machine.
   pimGlobalIntfSmIs( GlobalIntfSmIs( allStatus, intfSmInputs( vrfConfig ) ) );
   pimHelloSmIs( HelloSmIs( allStatus, rxHelloMessageInfo() ) );
   // The fast-upgrade client; without its inputs the VRF takes no part.
   if( vrfConfig && args_.asuShutdownStatus && args_.asuVrfStatus ) {
      pimAsuSmIs( AsuSmIs( vrfConfig, allStatus, timerWheel, args_.asuShutdownStatus, args_.asuVrfStatus ) );
   }

   ipGenIntfSmIs( IpGen::intfSmFactory( vrfIpIntfStatus() ) );
   sourceIntfDirIs( Kiv::make< IpGen::SourceIntf::SourceIntfDir >( kSourceIntfDirName ) );
   sourceIntfSmIs( Kiv::make< IpGen::SourceIntf::VrfSourceIntfSm >( sourceIntfDir(),
                                                                    vrfIpIntfStatus() ) );
   // The reliable-transport machine reads the source-interface registry.
   portConfigSmIs( Reliable::configSmFactory( vrfConfig, sourceIntfSm().ptr(),
                                              globalStatus->portStatus( args_.vrfName ) ) );
   initializedIs( true );
}

// The inputs of the I/O machine, from the arguments and the members built
// before it.
IO::IOSmArgs ContainerSm::ioSmArgs() const {
   IO::IOSmArgs io;
   io.pamManager = pimPamManager();
   io.messageCounters = args_.pimMessageCounters;
   io.pimStatus = args_.pimStatus;
   io.allStatus = args_.pimAllStatus;
   io.configColl = args_.pimConfigColl;
   io.intfStatus = vrfIpIntfStatus();
   io.aclTypeConfig = args_.aclTypeConfig;
   io.kernelIntfStatusDir = args_.kernelIntfStatusDir;
   io.allIntfStatusDir = args_.allIntfStatusDir;
   io.pimAttrLogSm = args_.pimAttrLogSm;
   io.serviceAclFilterSm = args_.serviceAclFilterSm;
   io.timerWheel = args_.timerWheel;
   io.mcastBoundaryStatus = args_.mcastBoundaryStatus;
   return io;
}

// The inputs every interface machine of the VRF shares.
IntfSmInputs ContainerSm::intfSmInputs( const Kiv::Ptr< const Config > & vrfConfig ) const {
   IntfSmInputs inputs;
   inputs.vrfName = args_.vrfName;
   inputs.pimGlobalStatus = args_.pimGlobalStatus;
   inputs.pimCellGlobalStatus = args_.pimCellGlobalStatus;
   inputs.pimGlobalConfig = args_.pimConfigColl->globalConfig();
   inputs.pimConfig = vrfConfig;
   inputs.pimPamManager = pimPamManager();
   inputs.timerWheel = args_.timerWheel;
   inputs.bfdPimAppConfig = args_.bfdPimAppConfig;
   inputs.bfdPimAppStatus = bfdPimAppStatus();
   inputs.kernelIntfStatus = args_.kernelIntfStatusDir;
   inputs.routerIdInfo = routerIdInfo();
   return inputs;
}

void ContainerSm::handleDestruction() {
   CTRACE( 8, "handleDestruction()" );
   // Not the reverse of construction: the router-id machine and the status
   // writer stop before the interface machines.
   routerIdSmDel();
   pimStatusWriterSmDel();
   bfdPimAppStatusDel();
   pimPamManagerDel();
   rxHelloMessageInfoDel();
   bfdPimSmDel();
   pimGlobalIntfSmDel();
   pimIOSmDel();
   pimHelloSmDel();
   pimAsuSmDel();
   ipGenIntfSmDel();
   sourceIntfDirDel();
   // The reliable-transport machine does not touch the registry it points to
   // when it goes, so the registry may go first.
   sourceIntfSmDel();
   portConfigSmDel();
   vrfIpIntfStatusDel();
   routerIdInfoDel();
   initializedIs( false );
}

Kiv::Ptr< ContainerSm > containerSmFactory( const ContainerSmArgs & args ) {
   return Kiv::make< ContainerSm >( args );
}

} // namespace Routing::Pim
