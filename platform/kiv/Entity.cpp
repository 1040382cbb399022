#include "kiv/Entity.h"

#include <vector>

namespace Kiv {

std::string Entity::fullName() const {
   std::vector< const Entity * > chain;
   for( const Entity * e = this; e; e = e->parent_ ) chain.push_back( e );
   std::string out;
   for( auto it = chain.rbegin(); it != chain.rend(); ++it ) {
      if( ( *it )->name_.empty() ) continue;   // the unnamed root
      if( !out.empty() ) out += '/';
      out += ( *it )->name_.str();
   }
   return out;
}

TypeRegistry & TypeRegistry::instance() {
   static TypeRegistry registry;
   return registry;
}

void TypeRegistry::typeIs( const std::string & typeName, Factory f ) {
   factories_.insertOrAssignFn( typeName, std::move( f ) );
}

bool TypeRegistry::hasType( const std::string & typeName ) const {
   return factories_.contains( typeName );
}

Ptr< Entity > TypeRegistry::create( const std::string & typeName, const Name & name ) const {
   if( typeName == "Kiv::Dir" ) return Ptr< Entity >( new Dir( name ) );
   const Factory * f = factories_.find( typeName );
   if( !f ) throw RangeException( "unknown entity type " + typeName );
   return ( *f )( name );
}

Dir::~Dir() {
   entityPtr_.forEach( []( const Name &, const Ptr< Entity > & e ) {
      if( e ) e->parent_ = nullptr;
   } );
}

Ptr< Entity > Dir::entryIs( const Name & name, const std::string & typeName ) {
   Ptr< Entity > existing = entityPtr( name );
   if( existing && typeName == existing->typeName() ) return existing;
   return entryIs( name, TypeRegistry::instance().create( typeName, name ) );
}

Ptr< Entity > Dir::entryIs( const Name & name, const Ptr< Entity > & entity ) {
   if( !entity ) throwNullParameter( "entityPtr", kivClassName, "entityPtr" );
   Ptr< Entity > old = entityPtr( name );
   if( old && old != entity ) old->parent_ = nullptr;
   entity->parent_ = this;
   entityPtrIs( name, entity );
   return entity;
}

void Dir::entryDel( const Name & name ) {
   if( Ptr< Entity > e = entityPtr( name ) ) e->parent_ = nullptr;
   entityPtrDel( name );
}

Ptr< Dir > Dir::subdirIs( const Name & name ) {
   return entity_cast< Dir >( entryIs( name, "Kiv::Dir" ) );
}

void Dir::subdirDel( const Name & name ) {
   if( entity_cast< Dir >( entityPtr( name ) ) ) entryDel( name );
}

Ptr< Entity > Dir::entityAt( std::string_view path ) const {
   Ptr< Entity > cur( const_cast< Dir * >( this ) );
   while( !path.empty() ) {
      const auto slash = path.find( '/' );
      const std::string_view step = path.substr( 0, slash );
      path = slash == std::string_view::npos ? std::string_view() : path.substr( slash + 1 );
      if( step.empty() ) continue;
      Ptr< Dir > d = entity_cast< Dir >( cur );
      if( !d ) return nullptr;
      cur = d->entityPtr( Name( step ) );
      if( !cur ) return nullptr;
   }
   return cur;
}

Ptr< Dir > Dir::dirAt( std::string_view path ) {
   Ptr< Dir > cur( this );
   while( !path.empty() ) {
      const auto slash = path.find( '/' );
      const std::string_view step = path.substr( 0, slash );
      path = slash == std::string_view::npos ? std::string_view() : path.substr( slash + 1 );
      if( step.empty() ) continue;
      cur = cur->subdirIs( Name( step ) );
   }
   return cur;
}

} // namespace Kiv
