#include "services/sourceintf/SourceIntf.h"

#include "kiv/RangeException.h"

namespace IpGen::SourceIntf {

SourceIntfDir::SourceIntfDir( const Kiv::Name & name ) : Kiv::Entity( name ) {}

KIV_REGISTER_ENTITY_TYPE( SourceIntfDir, "IpGen::SourceIntf::SourceIntfDir" );

VrfSourceIntfSm::VrfSourceIntfSm( const Kiv::Ptr< SourceIntfDir > & sourceIntfDir,
                                  const Kiv::Ptr< const IpGen::IntfStatus > & intfStatus )
      : sourceIntfDir_( Kiv::ValidPtr< SourceIntfDir >( sourceIntfDir ) ),
        intfStatus_( Kiv::ValidPtr< const IpGen::IntfStatus >( intfStatus ) ),
        ipStatus_( this ) {
   ipStatus_.notifierIs( intfStatus_->status() );
}

VrfSourceIntfSm::~VrfSourceIntfSm() {
   // Nobody keeps the entries in step any more: take back what was handed out.
   for( auto it = registrations_.iter(); it; ++it ) {
      sourceIntfDir_->sourceIntfDel( it.key() );
   }
}

std::uint32_t VrfSourceIntfSm::registrations( const Lumo::IntfId & intfId ) const {
   const Registration * r = registrations_.find( intfId );
   return r ? r->count : 0;
}

Kiv::Ptr< SourceIntf > VrfSourceIntfSm::registerSourceIntf( const Lumo::IntfId & intfId ) {
   if( intfId.isEmpty() ) {
      throw Kiv::RangeException(
         "IpGen::SourceIntf::VrfSourceIntfSm::registerSourceIntf empty intfId not allowed" );
   }
   auto [ reg, inserted ] = registrations_.tryInsert( intfId, Registration() );
   ++reg->count;
   if( inserted ) {
      reg->reactor = std::make_unique< KivIpIntfStatus >( this, intfId );
      if( !sourceIntfDir_->sourceIntf( intfId ) ) sourceIntfDir_->sourceIntfIs( intfId );
      handleIntf( intfId );
   }
   return sourceIntfDir_->sourceIntf( intfId );
}

void VrfSourceIntfSm::unregisterSourceIntf( const Kiv::Ptr< SourceIntf > & sourceIntf ) {
   if( !sourceIntf ) return;
   const Lumo::IntfId intfId = sourceIntf->intfId();
   Registration * reg = registrations_.find( intfId );
   if( !reg || sourceIntfDir_->sourceIntf( intfId ) != sourceIntf ) return;
   if( --reg->count > 0 ) return;
   registrations_.erase( intfId );
   sourceIntfDir_->sourceIntfDel( intfId );
}

void VrfSourceIntfSm::handleIntf( const Lumo::IntfId & intfId ) {
   Registration * reg = registrations_.find( intfId );
   if( !reg ) return;
   const auto entry = sourceIntfDir_->sourceIntf( intfId );
   if( !entry ) return;
   // The interface's status entry may have come, gone or been replaced.
   reg->reactor->notifierIs( intfStatus_->status()->intfStatus( intfId ) );
   const Lumo::IpGenAddrWithMask primary = intfStatus_->primaryAddrWithMask( intfId );
   entry->ipAddrIs( primary.address() );
}

void VrfSourceIntfSm::KivIpStatus::onIntfStatus( const Lumo::IntfId & intf ) {
   owner_->handleIntf( intf );
}

} // namespace IpGen::SourceIntf

// Out of line: the vtable, and with it this file's type registrations, come
// with any use of the types.
namespace IpGen::SourceIntf {
const char * SourceIntfDir::typeName() const { return "IpGen::SourceIntf::SourceIntfDir"; }
} // namespace IpGen::SourceIntf
