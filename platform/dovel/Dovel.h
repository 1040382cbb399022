#pragma once
// Dovel, the state store: typed entities addressed by path ("a/b/c"), shared
// by every agent of the process. An agent (a Dovel::Mounter) declares what it
// needs as mounts in a mount group, closes the group, and once the entity
// manager has mounted it is called back with the mount status; it then looks
// its entities up by path through the entity manager.
//
// Mount modes. The first letter gives the access, the others are flags:
//   ""     the store's default: read access, like "r".
//   "r"    read: the entity manager hands out the entity as const only.
//   "ri"   read, and the entity is a directory whose entries appear and
//          disappear as others write them (a read mount without "i" gets
//          the entries present at mount time, frozen; a write mount always
//          gets the store's directory, which its own entries go into).
//   "rO"   read, and the entity is optional: a missing one leaves the path
//          unmounted instead of failing the group.
//   "w"    write: the entity manager also hands out a writable entity.
//   "wi"   write, on a live directory (see "i").
//   "wc"   write, and the store creates the entity when nobody has yet.
//   "wcf"  write, create, and fresh: whatever a previous writer left at the
//          path is replaced by a new entity at mount time.
// Without "c" (or "O") a mount of a path nobody has published fails with
// mountNotFound_. A mount of a path that holds another type fails with
// mountTypeMismatch_; an unknown type or a malformed mode fails the group too.
#include <cstdint>
#include <functional>
#include <type_traits>
#include <string>
#include <vector>

#include "kiv/Entity.h"
#include "kiv/HashMap.h"
#include "kiv/Notifiee.h"
#include "kiv/Ptr.h"

namespace Dovel {

enum MountStatus : std::uint8_t {
   mountSuccess_ = 0,
   mountNotFound_ = 1,
   mountTypeMismatch_ = 2,
   mountUnknownType_ = 3,
   mountBadMode_ = 4,
};
const char * mountStatusName( MountStatus s );

// A parsed mount mode.
struct MountMode {
   bool write = false;
   bool live = false;       // "i"
   bool create = false;     // "c"
   bool fresh = false;      // "f"
   bool optional = false;   // "O"
   // False for a mode outside the grammar above.
   static bool parse( const std::string & text, MountMode & out );
};

struct Mount {
   std::string path;
   std::string typeName;
   std::string mode;
   Mount() = default;
   Mount( std::string p, std::string t, std::string m )
         : path( std::move( p ) ), typeName( std::move( t ) ), mode( std::move( m ) ) {}
   bool operator==( const Mount & ) const = default;
};

// Factories of the types the store can create, by type name. Whoever defines
// a type registers it (the store itself knows only "Kiv::Dir").
class TypeRegistry {
 public:
   // Builds the entity that goes to path, named name (the path's last
   // element unless it is a local entity).
   using Factory = std::function< Kiv::Ptr< Kiv::Notifier >( const std::string & path, const std::string & name ) >;
   static TypeRegistry & instance();
   void typeIs( const std::string & typeName, Factory f );
   bool hasType( const std::string & typeName ) const;
   // Null for an unknown type.
   Kiv::Ptr< Kiv::Notifier > create( const std::string & typeName, const std::string & path,
                                     const std::string & name ) const;
   // Registers T, built from its name as a Kiv::Name (entities) or
   // default-constructed.
   template< class T >
   void typeIs( const std::string & typeName ) {
      typeIs( typeName, []( const std::string &, const std::string & name ) -> Kiv::Ptr< Kiv::Notifier > {
         if constexpr( std::is_constructible_v< T, Kiv::Name > ) {
            return Kiv::Ptr< Kiv::Notifier >( new T( Kiv::Name( name ) ) );
         } else {
            (void)name;
            return Kiv::Ptr< Kiv::Notifier >( new T() );
         }
      } );
   }
 private:
   Kiv::HashMap< std::string, Factory > factories_;
};

// The tree of published entities. A path whose entity is a Kiv::Dir also
// holds, as directory entries, the entities published below it.
class Store : public Kiv::PtrInterface {
 public:
   explicit Store( TypeRegistry & types = TypeRegistry::instance() ) : types_( types ) {}
   TypeRegistry & types() const { return types_; }

   // The entity at path and its type name (null / "" when none).
   Kiv::Ptr< Kiv::Notifier > entity( const std::string & path ) const;
   std::string typeName( const std::string & path ) const;
   template< class T >
   Kiv::Ptr< T > entity( const std::string & path ) const {
      return Kiv::ptr_cast< T >( entity( path ) );
   }
   // Publishes a new entity of the type at path, or returns the one there when
   // it has that type. Throws Kiv::RangeException for another type already
   // there or an unknown type.
   Kiv::Ptr< Kiv::Notifier > entityIs( const std::string & path, const std::string & typeName );
   // Publishes an existing entity (replacing what was there).
   void entityIs( const std::string & path, const std::string & typeName,
                  const Kiv::Ptr< Kiv::Notifier > & e );
   void entityDel( const std::string & path );
   std::size_t size() const { return nodes_.size(); }

 private:
   struct Node {
      Kiv::Ptr< Kiv::Notifier > entity;
      std::string typeName;
   };
   void linkIntoParent( const std::string & path, const Node & n, bool on );
   TypeRegistry & types_;
   Kiv::HashMap< std::string, Node > nodes_;
};

class EntityManager;

// The base of whatever mounts: an agent.
class Mounter {
 public:
   virtual ~Mounter() = default;
   virtual void doMountsComplete( MountStatus status, const Kiv::Ptr< EntityManager > & em ) = 0;
};

class MountGroup : public Kiv::PtrInterface {
 public:
   explicit MountGroup( Mounter * m ) : mounter_( m ) {}
   Mounter * mounter() const { return mounter_; }
   // Adds one mount; a closed group refuses more (assertion).
   void doMount( const Mount & m );
   // Closes the group: the entity manager mounts it on its next
   // doMountClosedGroups. The arguments (wait for completion, a label, a
   // timeout) are kept for the host's log.
   void doClose( bool wait, const std::string & label, double timeout );
   bool closed() const { return closed_; }
   bool mounted() const { return mounted_; }
   const std::vector< Mount > & mounts() const { return mounts_; }

 private:
   friend class EntityManager;
   Mounter * mounter_;
   std::vector< Mount > mounts_;
   bool closed_ = false;
   bool mounted_ = false;
};

// One agent's view of the store: its mount groups, what they mounted and the
// local entities it created.
class EntityManager : public Kiv::PtrInterface {
 public:
   explicit EntityManager( const Kiv::Ptr< Store > & store );
   const Kiv::Ptr< Store > & store() const { return store_; }

   Kiv::Ptr< MountGroup > getMountGroup( Mounter * m );
   const std::vector< Kiv::Ptr< MountGroup > > & groups() const { return groups_; }
   // Mounts every closed group that is not mounted yet, in the order the
   // groups were obtained, and calls each mounter's doMountsComplete. A group
   // stops at its first failing mount and reports that status.
   void doMountClosedGroups();
   // The status of the last group mounted and the path that failed it.
   MountStatus lastStatus() const { return lastStatus_; }
   const std::string & lastFailedPath() const { return lastFailedPath_; }

   // A mounted or local entity, read-only; null when the path is neither.
   Kiv::Ptr< const Kiv::Notifier > getEntity( const std::string & path ) const;
   // A mounted entity the mounter may write ("w" mounts) or a local one.
   Kiv::Ptr< Kiv::Notifier > getWritableEntity( const std::string & path ) const;
   template< class T >
   Kiv::Ptr< const T > getEntity( const std::string & path ) const {
      return Kiv::ptr_cast< const T >( getEntity( path ) );
   }
   template< class T >
   Kiv::Ptr< T > getWritableEntity( const std::string & path ) const {
      return Kiv::ptr_cast< T >( getWritableEntity( path ) );
   }
   // The mount that mounted path (null when none).
   const Mount * mountOf( const std::string & path ) const;

   // Entities that live only in this agent, found by path like mounted ones.
   Kiv::Ptr< Kiv::Notifier > localEntityIs( const std::string & name, const std::string & typeName,
                                            const std::string & path );

 private:
   struct Mounted {
      Mount mount;
      Kiv::Ptr< Kiv::Notifier > entity;
      bool write = false;
   };
   MountStatus mountOne( const Mount & m );
   Kiv::Ptr< Store > store_;
   std::vector< Kiv::Ptr< MountGroup > > groups_;
   Kiv::HashMap< std::string, Mounted > mounted_;
   MountStatus lastStatus_ = mountSuccess_;
   std::string lastFailedPath_;
};

} // namespace Dovel

namespace Cell {
// This supervisor's cell number (1 unless set).
std::uint32_t cellId();
void cellIdIs( std::uint32_t id );
// "cell/<id>/" + path: where per-supervisor entities live.
std::string path( const std::string & p );
} // namespace Cell
