#pragma once
// Mounting shared-memory table sets by path.
//
// A writer mount ("w...") creates the table set at a path, or attaches to the
// one already there; a reader mount ("r...") only attaches. Table sets live in
// a Directory (the process-wide one unless another is given) until they are
// cleaned up after their last unmount, so a writer that restarts finds its
// tables again, and a reader attached to a table set keeps it as long as it
// holds it. The types a Directory can create are registered by type name,
// by whoever defines the rows (a typed mount registers its type itself).
#include <cstddef>
#include <functional>
#include <string>
#include <vector>

#include "kiv/Entity.h"
#include "kiv/HashMap.h"
#include "kiv/Ptr.h"
#include "varn/VarnTable.h"

namespace KivVarn {

// One named table of a table set and its capacity in rows.
struct CollectionInfo {
   std::string name;
   std::size_t size = 0;
};

// What to mount: the table set's type and the sizes of its tables.
struct MountInfo {
   std::string typeName;
   std::vector< CollectionInfo > collections;
   MountInfo() = default;
   MountInfo( const std::string & type, std::vector< CollectionInfo > colls )
         : typeName( type ), collections( std::move( colls ) ) {}
   // The size the info gives the named collection, or dflt.
   std::size_t size( const std::string & name, std::size_t dflt ) const;
   MountInfo & collectionIs( const std::string & name, std::size_t size );
};

// Where table sets live between mounts.
class Directory {
 public:
   using Creator = std::function< Kiv::Ptr< Kiv::Entity >( const std::string & path,
                                                           const MountInfo &, TableStore & ) >;
   explicit Directory( TableStore & store = HeapTableStore::instance() );
   Directory( const Directory & ) = delete;
   Directory & operator=( const Directory & ) = delete;
   static Directory & instance();

   void typeIs( const std::string & typeName, Creator c );
   // Registers T (with T::kTypeName and a (name, MountInfo, TableStore)
   // constructor) unless its name is already known.
   template< class T >
   void typeIs() {
      if( hasType( T::kTypeName ) ) return;
      typeIs( T::kTypeName, []( const std::string & path, const MountInfo & info, TableStore & s ) {
         return Kiv::Ptr< Kiv::Entity >( new T( Kiv::Name( path ), info, s ) );
      } );
   }
   bool hasType( const std::string & typeName ) const { return creators_.contains( typeName ); }

   // The table set at path, or null.
   Kiv::Ptr< Kiv::Entity > entity( const std::string & path ) const;
   std::size_t mounts( const std::string & path ) const;
   std::size_t tableSets() const { return sets_.size(); }

 private:
   friend class Mount;
   struct Set {
      Kiv::Ptr< Kiv::Entity > entity;
      std::string typeName;
      std::size_t mounts = 0;
   };
   TableStore & store_;
   Kiv::HashMap< std::string, Creator > creators_;
   Kiv::HashMap< std::string, Set > sets_;
};

// One agent's mounts.
class Mount : public Kiv::PtrInterface {
 public:
   explicit Mount( Directory & dir = Directory::instance() );
   ~Mount() override;

   // Mode "w..." creates or attaches, "r..." attaches; any other mode, an
   // unknown type, or a table set of another type at path throws
   // Kiv::RangeException. A reader mount of a path without a table set
   // returns null and mounts nothing. Mounting a path twice returns the same
   // entity and counts once.
   Kiv::Ptr< Kiv::Entity > doMount( const std::string & path, const std::string & mode,
                                    const MountInfo & mountInfo );
   // The typed form: registers T with the directory and mounts with
   // T::mountInfo() unless info is given.
   template< class T >
   Kiv::Ptr< T > doMount( const std::string & path, const std::string & mode ) {
      return doMount< T >( path, mode, T::mountInfo() );
   }
   template< class T >
   Kiv::Ptr< T > doMount( const std::string & path, const std::string & mode, const MountInfo & info ) {
      dir_.typeIs< T >();
      return Kiv::ptr_cast< T >( doMount( path, mode, info ) );
   }
   Directory & directory() const { return dir_; }
   // Forgets this mount's table set at path (nothing when not mounted).
   void doUnmount( const std::string & path );
   // The table set this mount holds at path, or null.
   Kiv::Ptr< Kiv::Entity > getEntity( const std::string & path ) const;
   // Removes the table set at path from the directory once nobody has it
   // mounted; a table set still mounted elsewhere stays.
   void cleanup( const std::string & path );
   // Marks the mount ready; mounts made before are kept.
   void handleInitialized() { initialized_ = true; }
   bool initialized() const { return initialized_; }
   bool isMounted( const std::string & path ) const { return mounted_.contains( path ); }

 private:
   Directory & dir_;
   Kiv::HashMap< std::string, Kiv::Ptr< Kiv::Entity > > mounted_;
   bool initialized_ = false;
};

} // namespace KivVarn
