// The PIM agent plug-in's entry points: the agent factories, the machine
// factories other libraries build machines with, the static RP check's
// factory (defined with the checker), and the descriptor the host checks.
// Everything else in the library is hidden (pimagent.map).
#include "agent/PimAgent.h"
#include "agent/PimAsuSm.h"
#include "agenthost/AgentHost.h"
#include "config/PimApplicationConfigSm.h"
#include "config/PimConfigSm.h"
#include "config/PimContainerSm.h"
#include "feeds/RouterIdSm.h"
#include "hello/PimHelloSm.h"
#include "hello/PimIntfSm.h"
#include "hello/PimNeighborSm.h"
#include "rpcheck/RpConfigCheckSm.h"

namespace RP = Routing::Pim;

#ifdef __clang__
// The factories are C++ functions looked up by unmangled name; C callers are
// not expected.
#pragma clang diagnostic ignored "-Wreturn-type-c-linkage"
#endif

// Visible to the linker; the version script then keeps only these.
#define PIM_PLUGIN_EXPORT __attribute__( ( visibility( "default" ) ) )

extern "C" {

PIM_PLUGIN_EXPORT Kiv::Ptr< AgentBase::CAgent > agentFactory( const char * name ) { return RP::agentFactory( name ); }
PIM_PLUGIN_EXPORT Kiv::Ptr< AgentBase::CAgent > agent4Factory( const char * name ) { return RP::agent4Factory( name ); }
PIM_PLUGIN_EXPORT Kiv::Ptr< AgentBase::CAgent > agent6Factory( const char * name ) { return RP::agent6Factory( name ); }

PIM_PLUGIN_EXPORT Kiv::Ptr< RP::ConfigSm > configSmFactory( const RP::ConfigSmInputs & inputs ) {
   return RP::configSmFactory( inputs );
}
PIM_PLUGIN_EXPORT Kiv::Ptr< RP::ContainerSm > containerSmFactory( const RP::ContainerSmArgs & args ) {
   return RP::containerSmFactory( args );
}
PIM_PLUGIN_EXPORT Kiv::Ptr< RP::IntfSm > intfSmFactory( const Lumo::IntfId & intfId, const Kiv::Ptr< RP::Intf > & intf,
                                      const RP::IntfSmInputs & inputs ) {
   return RP::intfSmFactory( intfId, intf, inputs );
}
PIM_PLUGIN_EXPORT Kiv::Ptr< RP::NeighborSm > neighborSmFactory( const Lumo::IpGenAddr & address, const Kiv::Ptr< RP::Neighbor > & neighbor,
                                              const Kiv::Ptr< Tolm::TimerWheel > & timerWheel,
                                              const Kiv::Ptr< const RP::Config > & pimConfig, RP::IntfSm * intfSm ) {
   return RP::neighborSmFactory( address, neighbor, timerWheel, pimConfig, intfSm );
}
PIM_PLUGIN_EXPORT Kiv::Ptr< RP::HelloSm > helloSmFactory( const Kiv::Ptr< RP::AllStatus > & allStatus,
                                        const Kiv::Ptr< const RP::IO::MessageInfo > & messageInfo ) {
   return RP::helloSmFactory( allStatus, messageInfo );
}
PIM_PLUGIN_EXPORT Kiv::Ptr< RP::AsuSm > asuSmFactory( const Kiv::Ptr< const RP::Config > & pimConfig,
                                    const Kiv::Ptr< RP::AllStatus > & allStatus,
                                    const Kiv::Ptr< Tolm::TimerWheel > & timerWheel,
                                    const Kiv::Ptr< const McastCommon::AsuShutdownStatus > & asuShutdownStatus,
                                    const Kiv::Ptr< McastCommon::AsuVrfStatus > & asuVrfStatus ) {
   return RP::asuSmFactory( pimConfig, allStatus, timerWheel, asuShutdownStatus, asuVrfStatus );
}
PIM_PLUGIN_EXPORT Kiv::Ptr< RP::RouterIdSm > routerIdSmFactory( const L3::VrfName & vrfName,
                                              const Kiv::Ptr< const Bridging::Config > & bridgingConfig,
                                              const Kiv::Ptr< RP::RouterIdInfo > & routerIdInfo ) {
   return RP::routerIdSmFactory( vrfName, bridgingConfig, routerIdInfo );
}
PIM_PLUGIN_EXPORT Kiv::Ptr< RP::VrfPimIntf > vrfPimIntfFactory( const L3::VrfName & vrfName ) { return RP::vrfPimIntfFactory( vrfName ); }

namespace {
// Defined with the checker in the pim library; referenced so that the linker
// takes it into the plug-in.
[[gnu::used]] const auto kRpConfigCheckSmFactory = &RP::rpConfigCheckSmFactory;
const char * const kFactories[] = {
   "agentFactory",      "agent4Factory",     "agent6Factory",     "configSmFactory",
   "containerSmFactory", "intfSmFactory",    "neighborSmFactory", "helloSmFactory",
   "asuSmFactory",      "routerIdSmFactory", "vrfPimIntfFactory", "rpConfigCheckSmFactory",
   nullptr,
};
}

PIM_PLUGIN_EXPORT extern const AgentBase::PluginDescriptor agentPluginDescriptor;
const AgentBase::PluginDescriptor agentPluginDescriptor = { AgentBase::kPluginAbiVersion, "pim", kFactories };

} // extern "C"
