#include "dovel/Dovel.h"

#include <cassert>

#include "kiv/RangeException.h"

namespace Dovel {

const char * mountStatusName( MountStatus s ) {
   switch( s ) {
      case mountSuccess_: return "mountSuccess";
      case mountNotFound_: return "mountNotFound";
      case mountTypeMismatch_: return "mountTypeMismatch";
      case mountUnknownType_: return "mountUnknownType";
      case mountBadMode_: return "mountBadMode";
   }
   return "mountStatus?";
}

bool MountMode::parse( const std::string & text, MountMode & out ) {
   out = MountMode();
   if( text.empty() ) return true;
   if( text[ 0 ] != 'r' && text[ 0 ] != 'w' ) return false;
   out.write = text[ 0 ] == 'w';
   for( std::size_t i = 1; i < text.size(); ++i ) {
      bool * flag = nullptr;
      switch( text[ i ] ) {
         case 'i': flag = &out.live; break;
         case 'c': flag = &out.create; break;
         case 'f': flag = &out.fresh; break;
         case 'O': flag = &out.optional; break;
         default: return false;
      }
      if( *flag ) return false;   // a letter twice
      *flag = true;
   }
   // Creating, or replacing, is a writer's business.
   return out.write || ( !out.create && !out.fresh );
}

TypeRegistry & TypeRegistry::instance() {
   static TypeRegistry registry;
   return registry;
}

void TypeRegistry::typeIs( const std::string & typeName, Factory f ) {
   factories_.insertOrAssignFn( typeName, std::move( f ) );
}

bool TypeRegistry::hasType( const std::string & typeName ) const {
   return typeName == "Kiv::Dir" || factories_.contains( typeName );
}

Kiv::Ptr< Kiv::Notifier > TypeRegistry::create( const std::string & typeName, const std::string & path,
                                                const std::string & name ) const {
   if( typeName == "Kiv::Dir" ) return Kiv::Ptr< Kiv::Notifier >( new Kiv::Dir( Kiv::Name( name ) ) );
   const Factory * f = factories_.find( typeName );
   return f ? ( *f )( path, name ) : nullptr;
}

namespace {

std::string lastElement( const std::string & path ) {
   const auto slash = path.rfind( '/' );
   return slash == std::string::npos ? path : path.substr( slash + 1 );
}

std::string parentPath( const std::string & path ) {
   const auto slash = path.rfind( '/' );
   return slash == std::string::npos ? std::string() : path.substr( 0, slash );
}

} // namespace

Kiv::Ptr< Kiv::Notifier > Store::entity( const std::string & path ) const {
   const Node * n = nodes_.find( path );
   return n ? n->entity : nullptr;
}

std::string Store::typeName( const std::string & path ) const {
   const Node * n = nodes_.find( path );
   return n ? n->typeName : std::string();
}

Kiv::Ptr< Kiv::Notifier > Store::entityIs( const std::string & path, const std::string & typeName ) {
   if( const Node * n = nodes_.find( path ) ) {
      if( n->typeName != typeName ) {
         throw Kiv::RangeException( "Dovel: " + path + " holds " + n->typeName + ", not " + typeName );
      }
      return n->entity;
   }
   Kiv::Ptr< Kiv::Notifier > e = types_.create( typeName, path, lastElement( path ) );
   if( !e ) throw Kiv::RangeException( "Dovel: unknown type " + typeName );
   entityIs( path, typeName, e );
   return e;
}

void Store::entityIs( const std::string & path, const std::string & typeName,
                      const Kiv::Ptr< Kiv::Notifier > & e ) {
   if( !e ) Kiv::throwNullParameter( "entity", "Dovel::Store", "entity" );
   if( const Node * old = nodes_.find( path ) ) linkIntoParent( path, *old, false );
   Node n{ e, typeName };
   nodes_.insertOrAssignFn( path, n );
   linkIntoParent( path, n, true );
   // A directory published after its entries still lists them.
   if( auto dir = Kiv::ptr_cast< Kiv::Dir >( e ) ) {
      const std::string prefix = path + "/";
      nodes_.forEach( [ & ]( const std::string & p, const Node & child ) {
         if( p.size() > prefix.size() && p.compare( 0, prefix.size(), prefix ) == 0 &&
             p.find( '/', prefix.size() ) == std::string::npos ) {
            if( auto ce = Kiv::ptr_cast< Kiv::Entity >( child.entity ) ) {
               dir->entryIs( Kiv::Name( p.substr( prefix.size() ) ), ce );
            }
         }
      } );
   }
}

void Store::entityDel( const std::string & path ) {
   const Node * n = nodes_.find( path );
   if( !n ) return;
   linkIntoParent( path, *n, false );
   nodes_.erase( path );
}

void Store::linkIntoParent( const std::string & path, const Node & n, bool on ) {
   const Node * parent = nodes_.find( parentPath( path ) );
   if( !parent ) return;
   auto dir = Kiv::ptr_cast< Kiv::Dir >( parent->entity );
   auto e = Kiv::ptr_cast< Kiv::Entity >( n.entity );
   if( !dir || !e ) return;
   const Kiv::Name name( lastElement( path ) );
   if( on ) {
      dir->entryIs( name, e );
   } else if( dir->entityRef( name ) == e ) {
      dir->entryDel( name );
   }
}

void MountGroup::doMount( const Mount & m ) {
   assert( !closed_ && "mount added to a closed mount group" );
   mounts_.push_back( m );
}

void MountGroup::doClose( bool, const std::string &, double ) { closed_ = true; }

EntityManager::EntityManager( const Kiv::Ptr< Store > & store ) : store_( store ) {
   if( !store_ ) Kiv::throwNullParameter( "store", "Dovel::EntityManager", "store" );
}

Kiv::Ptr< MountGroup > EntityManager::getMountGroup( Mounter * m ) {
   auto g = Kiv::make< MountGroup >( m );
   groups_.push_back( g );
   return g;
}

MountStatus EntityManager::mountOne( const Mount & m ) {
   MountMode mode;
   if( !MountMode::parse( m.mode, mode ) ) return mountBadMode_;
   if( !store_->types().hasType( m.typeName ) ) return mountUnknownType_;
   Kiv::Ptr< Kiv::Notifier > e = store_->entity( m.path );
   if( e && store_->typeName( m.path ) != m.typeName ) return mountTypeMismatch_;
   if( !e || mode.fresh ) {
      if( !e && !mode.create ) return mode.optional ? mountSuccess_ : mountNotFound_;
      e = store_->types().create( m.typeName, m.path, lastElement( m.path ) );
      store_->entityIs( m.path, m.typeName, e );
   }
   if( !mode.live && !mode.write ) {
      if( auto live = Kiv::ptr_cast< Kiv::Dir >( e ) ) {
         // A frozen copy: the entries there now, and no later ones.
         auto frozen = Kiv::make< Kiv::Dir >( live->name() );
         live->entityPtrForEach( [ & ]( const Kiv::Name & n, const Kiv::Ptr< Kiv::Entity > & c ) {
            frozen->entryIs( n, c );
         } );
         e = frozen;
      }
   }
   mounted_.insertOrAssignFn( m.path, Mounted{ m, e, mode.write } );
   return mountSuccess_;
}

void EntityManager::doMountClosedGroups() {
   for( std::size_t i = 0; i < groups_.size(); ++i ) {
      Kiv::Ptr< MountGroup > g = groups_[ i ];
      if( !g->closed_ || g->mounted_ ) continue;
      g->mounted_ = true;
      MountStatus status = mountSuccess_;
      lastFailedPath_.clear();
      for( const Mount & m : g->mounts_ ) {
         status = mountOne( m );
         if( status != mountSuccess_ ) {
            lastFailedPath_ = m.path;
            break;
         }
      }
      lastStatus_ = status;
      if( g->mounter_ ) g->mounter_->doMountsComplete( status, Kiv::Ptr< EntityManager >( this ) );
   }
}

Kiv::Ptr< const Kiv::Notifier > EntityManager::getEntity( const std::string & path ) const {
   const Mounted * m = mounted_.find( path );
   return m ? Kiv::Ptr< const Kiv::Notifier >( m->entity ) : nullptr;
}

Kiv::Ptr< Kiv::Notifier > EntityManager::getWritableEntity( const std::string & path ) const {
   const Mounted * m = mounted_.find( path );
   return m && m->write ? m->entity : nullptr;
}

const Mount * EntityManager::mountOf( const std::string & path ) const {
   const Mounted * m = mounted_.find( path );
   return m ? &m->mount : nullptr;
}

Kiv::Ptr< Kiv::Notifier > EntityManager::localEntityIs( const std::string & name,
                                                        const std::string & typeName,
                                                        const std::string & path ) {
   Kiv::Ptr< Kiv::Notifier > e = store_->types().create( typeName, path, name );
   if( !e ) throw Kiv::RangeException( "Dovel: unknown type " + typeName );
   mounted_.insertOrAssignFn( path, Mounted{ Mount( path, typeName, "w" ), e, true } );
   return e;
}

} // namespace Dovel

namespace Cell {

namespace {
std::uint32_t theCellId = 1;
}

std::uint32_t cellId() { return theCellId; }
void cellIdIs( std::uint32_t id ) { theCellId = id; }
std::string path( const std::string & p ) { return "cell/" + std::to_string( theCellId ) + "/" + p; }

} // namespace Cell
