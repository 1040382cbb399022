#pragma once
// ContainerSm: the per-VRF holder of the Hello and neighbour engine's machines
// and their feeds. It has no logic of its own beyond wiring: it builds its
// members in a fixed order and tears them down in another fixed order.
//
// Construction (what ConfigSm passes; the positional constructor takes the
// same inputs in the same order as ContainerSmArgs lists them):
//    vrfName, af, pimGlobalStatus, pimCellGlobalStatus, pimVarnStatus,
//    pimStatus, pimAllStatus, pimConfigColl, pimMessageCounters,
//    aclTypeConfig, ipStatus, allIntfConfigDir, allIntfStatusDir,
//    namespaceName, mcastBoundaryStatus, bfdPimAppConfig, bfdStatusPeer,
//    pimAttrLogSm, serviceAclFilterSm, timerWheel, kernelIntfStatusDir,
//    asuShutdownStatus, asuVrfStatus, bridgingConfig.
// The ACL, interface-directory, boundary, attribute-log and service-ACL inputs
// are passed through opaquely to the I/O machine (they may be null).
// Required (a null one raises "null ValidPtr" during construction): the
// global, cell-global and all-status entities, the configuration root, the
// IP status and the timer wheel. Without the fast-upgrade inputs the VRF
// takes no part in fast upgrades; without the status table its status is not
// published, without the counter table nothing is counted.
#include <string>

#include "agent/PimAsuSm.h"
#include "hello/PimHelloSm.h"
#include "hello/PimIntfSm.h"
#include "io/PimIOSm.h"
#include "feeds/PortConfigSm.h"
#include "feeds/RouterIdSm.h"
#include "kiv/EntityMacros.h"
#include "lumo/AddressFamily.h"
#include "lumo/NamespaceName.h"
#include "lumo/VrfName.h"
#include "model/PimConfig.h"
#include "model/PimStatus.h"
#include "services/bfd/Bfd.h"
#include "services/bfd/BfdApp.h"
#include "services/bridging/BridgingConfig.h"
#include "services/intf/DeviceIntfStatus.h"
#include "services/ip/IpIntfSm.h"
#include "services/ip/IpStatus.h"
#include "services/mcast/Multicast.h"
#include "services/pimio/MessageInfo.h"
#include "services/sourceintf/SourceIntf.h"
#include "status/PimVarnStatus.h"
#include "status/PimStatusWriterSm.h"
#include "tolm/TimerWheel.h"

namespace Routing::Pim {

struct ContainerSmArgs {
   L3::VrfName vrfName;
   Lumo::AddressFamily af = Lumo::AddressFamily::ipv4;
   Kiv::Ptr< GlobalStatus > pimGlobalStatus;
   Kiv::Ptr< CellGlobalStatus > pimCellGlobalStatus;
   Kiv::Ptr< Varn::Status > pimVarnStatus;
   Kiv::Ptr< Status > pimStatus;
   Kiv::Ptr< AllStatus > pimAllStatus;
   Kiv::Ptr< const ConfigColl > pimConfigColl;
   Kiv::Ptr< Varn::MessageCounters > pimMessageCounters;
   Kiv::Ptr< const Kiv::Notifier > aclTypeConfig;
   Kiv::Ptr< const IpGen::Status > ipStatus;
   Kiv::Ptr< const Kiv::Notifier > allIntfConfigDir;
   Kiv::Ptr< const Kiv::Notifier > allIntfStatusDir;
   Lumo::NamespaceName namespaceName;
   Kiv::Ptr< const Kiv::Notifier > mcastBoundaryStatus;
   Kiv::Ptr< Bfd::AppConfig > bfdPimAppConfig;
   Kiv::Ptr< const Bfd::StatusPeer > bfdStatusPeer;
   Kiv::Ptr< Kiv::Notifier > pimAttrLogSm;
   Kiv::Ptr< Kiv::Notifier > serviceAclFilterSm;
   Kiv::Ptr< Tolm::TimerWheel > timerWheel;
   Kiv::Ptr< const Interface::DeviceIntfStatusDir > kernelIntfStatusDir;
   Kiv::Ptr< const McastCommon::AsuShutdownStatus > asuShutdownStatus;
   Kiv::Ptr< McastCommon::AsuVrfStatus > asuVrfStatus;
   Kiv::Ptr< const Bridging::Config > bridgingConfig;
};

#define PIM_CONTAINER_SM_ATTRS( X )                                                     \
   X( PTR, pimPamManager, PimPamManager, IO::PamManager )                               \
   X( PTR, rxHelloMessageInfo, RxHelloMessageInfo, IO::MessageInfo )                    \
   X( PTR, bfdPimAppStatus, BfdPimAppStatus, Bfd::AppStatus )                           \
   X( PTR, bfdPimSm, BfdPimSm, Bfd::BfdAppSm )                                          \
   X( PTR, pimStatusWriterSm, PimStatusWriterSm, Varn::StatusWriterSm )                 \
   X( PTR, vrfIpIntfStatus, VrfIpIntfStatus, IpGen::IntfStatus )                        \
   X( PTR, pimIOSm, PimIOSm, IO::IOSm )                                                 \
   X( PTR, routerIdInfo, RouterIdInfo, RouterIdInfo )                                   \
   X( PTR, routerIdSm, RouterIdSm, RouterIdSm )                                         \
   X( PTR, pimGlobalIntfSm, PimGlobalIntfSm, GlobalIntfSm )                             \
   X( PTR, pimHelloSm, PimHelloSm, HelloSm )                                            \
   X( PTR, pimAsuSm, PimAsuSm, AsuSm )                                                  \
   X( PTR, ipGenIntfSm, IpGenIntfSm, IpGen::IntfSm )                                    \
   X( PTR, sourceIntfDir, SourceIntfDir, IpGen::SourceIntf::SourceIntfDir )             \
   X( PTR, sourceIntfSm, SourceIntfSm, IpGen::SourceIntf::VrfSourceIntfSm )             \
   X( PTR, portConfigSm, PortConfigSm, Reliable::ConfigSm )                             \
   X( SCALAR, initialized, Initialized, bool, false )

class ContainerSm : public Kiv::StateMachine {
 public:
   static constexpr std::uint32_t kRcvBufSize = 1u << 20;

   explicit ContainerSm( const ContainerSmArgs & args );
   ~ContainerSm() override;
   KIV_ENTITY( ContainerSm, "Routing::Pim::ContainerSm", PIM_CONTAINER_SM_ATTRS )

   const L3::VrfName & vrfName() const { return args_.vrfName; }
   Lumo::AddressFamily af() const { return args_.af; }
   const ContainerSmArgs & args() const { return args_; }
   // "pim" for IPv4, "pim6" for IPv6; any other family is an assertion.
   static const char * bfdAppName( Lumo::AddressFamily af );
   // Name of the source-interface directory.
   static constexpr const char * kSourceIntfDirName = "pimSourceIntf";

   // Builds every member in order; run by the constructor.
   void handleInitialized();

 private:
   void handleDestruction();
   IO::IOSmArgs ioSmArgs() const;
   IntfSmInputs intfSmInputs( const Kiv::Ptr< const Config > & vrfConfig ) const;
   ContainerSmArgs args_;
};

Kiv::Ptr< ContainerSm > containerSmFactory( const ContainerSmArgs & args );

} // namespace Routing::Pim
