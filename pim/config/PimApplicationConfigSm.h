#pragma once
// Application-requested PIM interfaces.
//
// Other agents ("applications") ask for PIM on interfaces by publishing an
// Application::Config whose intfMode maps interface names to a mode.
// ConfigSm keeps one ApplicationConfigSm per application; every change of a
// requested interface becomes a re-evaluation of that interface by
// ConfigSm::updatePimIntf, where the requests are merged with the
// configuration (ConfigSm::applicationMode).
//
// VrfPimIntf is the per-VRF set of interfaces running one flavour of PIM
// (ConfigSm keeps one for sparse mode and one for bidirectional PIM).
#include <cstddef>
#include <string>

#include "kiv/EntityMacros.h"
#include "lumo/IntfId.h"
#include "lumo/VrfName.h"
#include "model/PimConfig.h"
#include "kiv/OwnedReactor.h"

namespace Routing::Pim {

class ConfigSm;

#define PIM_VRF_PIM_INTF_ATTRS( X ) \
   X( SET, intfId, IntfId, Lumo::IntfId )

class VrfPimIntf : public Kiv::Notifier {
 public:
   explicit VrfPimIntf( const L3::VrfName & vrfName ) : vrfName_( vrfName ) {}
   const L3::VrfName & vrfName() const { return vrfName_; }
   KIV_ENTITY( VrfPimIntf, "Routing::Pim::VrfPimIntf", PIM_VRF_PIM_INTF_ATTRS )
   // Number of member interfaces.
   std::size_t count() const { return intfIdSize(); }

 private:
   const L3::VrfName vrfName_;
};
KIV_NOTIFIEE( VrfPimIntf, PIM_VRF_PIM_INTF_ATTRS )

// An empty set for the VRF.
Kiv::Ptr< VrfPimIntf > vrfPimIntfFactory( const L3::VrfName & vrfName );

#define PIM_APPLICATION_CONFIG_SM_ATTRS( X ) \
   X( SCALAR, initialized, Initialized, bool, false )

class ApplicationConfigSm : public Kiv::StateMachine {
 public:
   // config may be null (nothing requested); configSm is the owner and
   // outlives this machine.
   ApplicationConfigSm( const std::string & name,
                        const Kiv::Ptr< const Application::Config > & config, ConfigSm * configSm );
   ~ApplicationConfigSm() override;
   KIV_ENTITY( ApplicationConfigSm, "Routing::Pim::ApplicationConfigSm",
               PIM_APPLICATION_CONFIG_SM_ATTRS )

   const std::string & name() const { return name_; }
   Kiv::Ptr< const Application::Config > config() const { return config_.notifier(); }

   // Every requested interface.
   void handleIntfMode();
   // One requested interface (added, changed or removed).
   void handleIntfMode( const std::string & intfName );

 private:
   class KivAppConfig : public Kiv::OwnedReactor< Application::Config::NotifieeConst, ApplicationConfigSm > {
    public:
      using OwnedReactor::OwnedReactor;
      void onIntfMode( const std::string & intfName ) override { owner_->handleIntfMode( intfName ); }
      void onNotifier() override { owner_->handleIntfMode(); }
   };

   const std::string name_;
   ConfigSm * configSm_;
   KivAppConfig config_;
};

} // namespace Routing::Pim
