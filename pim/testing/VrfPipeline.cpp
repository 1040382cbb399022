#include "VrfPipeline.h"

namespace Routing::Pim {

namespace {
constexpr std::uint8_t kHelloMessageType = 0;
}

VrfPipeline::VrfPipeline( Lumo::AddressFamily af, const L3::VrfName & vrf,
                          const Kiv::Ptr< Tolm::TimerWheel > & wheel, Kiv::Ptr< AllStatus > all )
      : vrfName( vrf ), allStatus( all ? std::move( all ) : Kiv::make< AllStatus >( vrf ) ) {
   const char * bfdApp = af == Lumo::AddressFamily::ipv6 ? "pim6" : "pim";
   globalStatus = Kiv::make< GlobalStatus >( af );
   cellGlobalStatus = Kiv::make< CellGlobalStatus >();
   globalConfig = Kiv::make< GlobalConfig >();
   config = Kiv::make< Config >( vrf );
   pamManager = Kiv::make< IO::PamManager >( af, Lumo::NamespaceName(), true );
   rx = Kiv::make< IO::MessageInfo >();
   pamManager->rxMessageInfoIs( kHelloMessageType, rx );
   bfdAppConfig = Kiv::make< Bfd::AppConfig >( bfdApp );
   bfdAppStatus = Kiv::make< Bfd::AppStatus >( bfdApp );
   kernel = Kiv::make< Interface::DeviceIntfStatusDir >();
   routerIdInfo = routerIdInfoFactory( vrf );

   inputs.vrfName = vrf;
   inputs.pimGlobalStatus = globalStatus;
   inputs.pimCellGlobalStatus = cellGlobalStatus;
   inputs.pimGlobalConfig = globalConfig;
   inputs.pimConfig = config;
   inputs.pimPamManager = pamManager;
   inputs.timerWheel = wheel;
   inputs.bfdPimAppConfig = bfdAppConfig;
   inputs.bfdPimAppStatus = bfdAppStatus;
   inputs.kernelIntfStatus = kernel;
   inputs.routerIdInfo = routerIdInfo;
}

VrfPipeline::~VrfPipeline() {
   helloSm = nullptr;
   global = nullptr;
   routerIdSm = nullptr;
}

void VrfPipeline::start() {
   global = GlobalIntfSmIs( allStatus, inputs );
   helloSm = HelloSmIs( allStatus, rx );
}

void VrfPipeline::routerIdIs( const Bridging::MacAddr & mac ) {
   bridging = Kiv::make< Bridging::Config >();
   bridging->bridgeMacAddrIs( mac );
   routerIdSm = routerIdSmFactory( vrfName, bridging, routerIdInfo );
}

void VrfPipeline::kernelAdd( const Lumo::IntfId & id, std::uint32_t ifIndex ) {
   kernel->deviceIntfStatusIs( id, Interface::DeviceIntfStatus{ "eth" + std::to_string( ifIndex ), ifIndex, true } );
}

} // namespace Routing::Pim
