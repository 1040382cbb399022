#include "services/acl/Acl.h"

#include <algorithm>
#include <vector>

namespace Acl {

Kiv::String serviceVrfKey( const std::string & service, const L3::VrfName & vrf ) {
   return Kiv::String( service + "/" + std::string( vrf.stringValue() ) );
}

namespace {

// The one collection of each input family.
const Kiv::HashMap< Kiv::String, StandardAcl > & coll( const Input::Config & c ) { return c.standardAclColl(); }
const Kiv::HashMap< Kiv::String, Kiv::String > & coll( const Input::CpConfig & c ) { return c.serviceAclColl(); }
void write( Config & out, const Kiv::String & k, const StandardAcl * v ) {
   if( v ) out.standardAclIs( k, *v ); else out.standardAclDel( k );
}
void write( CpConfig & out, const Kiv::String & k, const Kiv::String * v ) {
   if( v ) out.serviceAclIs( k, *v ); else out.serviceAclDel( k );
}

template< class Owner >
class ConfigReactor : public Kiv::OwnedReactor< Input::Config::NotifieeConst, Owner >, public InputReactorBase {
 public:
   ConfigReactor( Owner * o, const Kiv::Ptr< const Input::Config > & in )
         : Kiv::OwnedReactor< Input::Config::NotifieeConst, Owner >( o ) { this->notifierIs( in ); }
   void onStandardAcl( const Kiv::String & k ) override { this->owner_->handleKey( k ); }
};
template< class Owner >
class CpConfigReactor : public Kiv::OwnedReactor< Input::CpConfig::NotifieeConst, Owner >, public InputReactorBase {
 public:
   CpConfigReactor( Owner * o, const Kiv::Ptr< const Input::CpConfig > & in )
         : Kiv::OwnedReactor< Input::CpConfig::NotifieeConst, Owner >( o ) { this->notifierIs( in ); }
   void onServiceAcl( const Kiv::String & k ) override { this->owner_->handleKey( k ); }
};

template< class Owner >
std::unique_ptr< InputReactorBase > makeReactor( Owner * o, const Kiv::Ptr< const Input::Config > & in ) {
   return std::make_unique< ConfigReactor< Owner > >( o, in );
}
template< class Owner >
std::unique_ptr< InputReactorBase > makeReactor( Owner * o, const Kiv::Ptr< const Input::CpConfig > & in ) {
   return std::make_unique< CpConfigReactor< Owner > >( o, in );
}

} // namespace

template< class In, class Out >
AggregatorSm< In, Out >::AggregatorSm( const Kiv::Ptr< const Kiv::Dir > & inputDir,
                                       const Kiv::Ptr< const In > & cli, const Kiv::Ptr< Out > & out )
      : inputDir_( inputDir ), cli_( cli ), out_( Kiv::ValidPtr< Out >( out ) ), dir_( this ) {
   if( cli_ ) cliReactor_ = makeReactor( this, cli_ );
   dir_.notifierIs( inputDir_ );
   if( inputDir_ ) {
      inputDir_->entityPtrForEach( [ this ]( const Kiv::Name & n, const Kiv::Ptr< Kiv::Entity > & ) {
         handleInput( n );
      } );
   }
   if( cli_ ) {
      coll( *cli_ ).forEach( [ this ]( const Kiv::String & k, const auto & ) { handleKey( k ); } );
   }
}

template< class In, class Out >
AggregatorSm< In, Out >::~AggregatorSm() = default;

template< class In, class Out >
std::unique_ptr< InputReactorBase > AggregatorSm< In, Out >::reactorFor( const Kiv::Ptr< const In > & in ) {
   return makeReactor( this, in );
}

template< class In, class Out >
void AggregatorSm< In, Out >::handleInput( const Kiv::Name & name ) {
   // Every key the old and the new entry define is recomputed.
   std::vector< Kiv::String > keys;
   if( const Kiv::Ptr< const In > * old = inputEntity_.find( name ) ) {
      coll( **old ).forEach( [ & ]( const Kiv::String & k, const auto & ) { keys.push_back( k ); } );
   }
   inputs_.unbind( name );
   inputEntity_.erase( name );
   Kiv::Ptr< const In > in =
      inputDir_ ? Kiv::ptr_cast< const In >( inputDir_->entityRef( name ) ) : nullptr;
   if( in ) {
      inputs_.insert( name, reactorFor( in ) );
      inputEntity_.insertOrAssignFn( name, in );
      coll( *in ).forEach( [ & ]( const Kiv::String & k, const auto & ) { keys.push_back( k ); } );
   }
   for( const auto & k : keys ) handleKey( k );
}

template< class In, class Out >
void AggregatorSm< In, Out >::handleKey( const Kiv::String & key ) {
   using V = std::remove_cvref_t< decltype( *coll( std::declval< const In & >() ).find( key ) ) >;
   const V * v = cli_ ? coll( *cli_ ).find( key ) : nullptr;
   if( !v ) {
      std::vector< Kiv::Name > names;
      inputEntity_.forEach( [ & ]( const Kiv::Name & n, const Kiv::Ptr< const In > & ) { names.push_back( n ); } );
      std::sort( names.begin(), names.end() );
      for( const auto & n : names ) {
         if( ( v = coll( **inputEntity_.find( n ) ).find( key ) ) ) break;
      }
   }
   write( *out_, key, v );
}

template class AggregatorSm< Input::Config, Config >;
template class AggregatorSm< Input::CpConfig, CpConfig >;

ServiceAclFilterSm::ServiceAclFilterSm( const std::string & service, const Kiv::Ptr< const Config > & aclConfig,
                                        const Kiv::Ptr< const CpConfig > & serviceMap,
                                        const Kiv::Ptr< StatusService > & statusService )
      : service_( service ), aclConfig_( aclConfig ), serviceMap_( serviceMap ),
        statusService_( statusService ), serviceMapReactor_( this ) {
   serviceMapReactor_.notifierIs( serviceMap_ );
   if( serviceMap_ ) {
      serviceMap_->serviceAclForEach( [ this ]( const Kiv::String & k, const Kiv::String & ) { handleBinding( k ); } );
   }
}

ServiceAclFilterSm::~ServiceAclFilterSm() = default;

void ServiceAclFilterSm::handleBinding( const Kiv::String & key ) {
   const std::string prefix = service_ + "/";
   const std::string k = key.str();
   if( !statusService_ || k.compare( 0, prefix.size(), prefix ) != 0 ) return;
   const L3::VrfName vrf( k.substr( prefix.size() ) );
   const Kiv::String name = serviceMap_ ? serviceMap_->serviceAcl( key ) : Kiv::String();
   if( name.empty() ) {
      statusService_->aclNameDel( vrf );
   } else {
      statusService_->aclNameIs( vrf, name );
   }
}

bool ServiceAclFilterSm::permitReceived( const L3::VrfName & vrf, const Lumo::IntfId &,
                                         const Lumo::IpGenAddr & src ) {
   if( !serviceMap_ || !aclConfig_ ) return true;
   const Kiv::String name = serviceMap_->serviceAcl( serviceVrfKey( service_, vrf ) );
   if( name.empty() ) return true;
   const StandardAcl * acl = aclConfig_->standardAclColl().find( name );
   if( !acl || acl->permits( src ) ) return true;
   if( statusService_ ) statusService_->droppedIs( vrf, statusService_->dropped( vrf ) + 1 );
   return false;
}

} // namespace Acl
