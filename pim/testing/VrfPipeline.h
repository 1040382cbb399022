#pragma once
// The Hello pipeline of one VRF without the configuration side: the entities
// the interface owner (GlobalIntfSm) and the Hello processor (HelloSm) read,
// made with their defaults, and the two machines. The scenario tests, the
// lab's direct engine and the engine fuzz target build their VRF with it and
// drive it by writing PIM interfaces into allStatus and Hellos into rx.
#include "feeds/RouterIdSm.h"
#include "hello/PimHelloSm.h"
#include "hello/PimIntfSm.h"
#include "services/bridging/BridgingConfig.h"

namespace Routing::Pim {

class VrfPipeline {
 public:
   // The inputs only; start() builds the machines. allStatus may be given
   // (the lab's per-VRF collection) or is made here.
   VrfPipeline( Lumo::AddressFamily af, const L3::VrfName & vrf, const Kiv::Ptr< Tolm::TimerWheel > & wheel,
                Kiv::Ptr< AllStatus > allStatus = nullptr );
   // Machines first, while the entities they watch still exist.
   ~VrfPipeline();
   VrfPipeline( const VrfPipeline & ) = delete;
   VrfPipeline & operator=( const VrfPipeline & ) = delete;

   // GlobalIntfSm, then HelloSm.
   void start();
   // The router id from a bridge MAC address, as the VRF's RouterIdSm makes it.
   void routerIdIs( const Bridging::MacAddr & mac );
   // A kernel device for the interface ("eth<ifIndex>", up).
   void kernelAdd( const Lumo::IntfId & id, std::uint32_t ifIndex );
   void kernelDel( const Lumo::IntfId & id ) { kernel->deviceIntfStatusDel( id ); }

   L3::VrfName vrfName;
   Kiv::Ptr< AllStatus > allStatus;
   Kiv::Ptr< GlobalStatus > globalStatus;
   Kiv::Ptr< CellGlobalStatus > cellGlobalStatus;
   Kiv::Ptr< GlobalConfig > globalConfig;
   Kiv::Ptr< Config > config;
   Kiv::Ptr< IO::PamManager > pamManager;
   // The receive mailbox of Hellos, registered with pamManager.
   Kiv::Ptr< IO::MessageInfo > rx;
   Kiv::Ptr< Bfd::AppConfig > bfdAppConfig;
   Kiv::Ptr< Bfd::AppStatus > bfdAppStatus;
   Kiv::Ptr< Interface::DeviceIntfStatusDir > kernel;
   Kiv::Ptr< RouterIdInfo > routerIdInfo;
   Kiv::Ptr< Bridging::Config > bridging;
   IntfSmInputs inputs;

   Kiv::Ptr< RouterIdSm > routerIdSm;
   Kiv::Ptr< GlobalIntfSm > global;
   Kiv::Ptr< HelloSm > helloSm;
};

} // namespace Routing::Pim
