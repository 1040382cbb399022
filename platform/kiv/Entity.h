#pragma once
// Named entities and directories.
//
// A Kiv::Entity is a notifier with a name and a parent (set when it is placed
// in a directory). A Kiv::Dir holds named entries of any entity type; entries
// are created by type name through the process-wide TypeRegistry, which is how
// the state store builds what agents mount by path.
#include <functional>
#include <string>
#include <string_view>

#include "kiv/EntityMacros.h"
#include "kiv/String.h"

namespace Kiv {

class Dir;

class Entity : public Notifier {
 public:
   explicit Entity( const Name & name = Name() ) : name_( name ) {}
   const Name & name() const { return name_; }
   Entity * parent() const { return parent_; }
   // "a/b/c" from the root directory down.
   std::string fullName() const;
   virtual const char * typeName() const { return "Kiv::Entity"; }

 private:
   friend class Dir;
   Name name_;
   Entity * parent_ = nullptr;
};

// Factories of entity types by name.
class TypeRegistry {
 public:
   using Factory = std::function< Ptr< Entity >( const Name & ) >;
   static TypeRegistry & instance();
   void typeIs( const std::string & typeName, Factory f );
   bool hasType( const std::string & typeName ) const;
   // Throws RangeException for an unknown type name.
   Ptr< Entity > create( const std::string & typeName, const Name & name ) const;
 private:
   HashMap< std::string, Factory > factories_;
};

// Registers Class (constructible from a Kiv::Name) under typeName at start-up.
#define KIV_REGISTER_ENTITY_TYPE( Class, TypeNameString )                              \
   static const bool kivRegistered_##Class = [] {                                      \
      ::Kiv::TypeRegistry::instance().typeIs(                                          \
         TypeNameString, []( const ::Kiv::Name & n ) -> ::Kiv::Ptr< ::Kiv::Entity > {  \
            return ::Kiv::Ptr< ::Kiv::Entity >( new Class( n ) );                     \
         } );                                                                          \
      return true;                                                                     \
   }()

#define KIV_DIR_ATTRS( X ) \
   X( COLL, entityPtr, EntityPtr, ::Kiv::Name, ::Kiv::Ptr< ::Kiv::Entity > )

class Dir : public Entity {
 public:
   explicit Dir( const Name & name = Name() ) : Entity( name ) {}
   ~Dir() override;
   const char * typeName() const override { return "Kiv::Dir"; }
   KIV_ENTITY( Dir, "Kiv::Dir", KIV_DIR_ATTRS )

   // Creates the entry of the named type, or returns the existing one when it
   // has that type already; an existing entry of another type is replaced.
   Ptr< Entity > entryIs( const Name & name, const std::string & typeName );
   // Places an existing entity under name.
   Ptr< Entity > entryIs( const Name & name, const Ptr< Entity > & entity );
   void entryDel( const Name & name );
   Ptr< Dir > subdirIs( const Name & name );
   void subdirDel( const Name & name );
   // The entry, or null.
   Ptr< Entity > entityRef( const Name & name ) const { return entityPtr( name ); }
   // Walks "a/b/c" below this directory; null when any step is missing.
   Ptr< Entity > entityAt( std::string_view path ) const;
   // Creates every missing directory of "a/b/c" and returns the last.
   Ptr< Dir > dirAt( std::string_view path );
};
KIV_NOTIFIEE( Dir, KIV_DIR_ATTRS )

template< class T >
Ptr< T > entity_cast( const Ptr< Entity > & e ) {
   return Ptr< T >( dynamic_cast< T * >( e.ptr() ) );
}

} // namespace Kiv
