#include "varn/VarnMount.h"

#include "kiv/RangeException.h"

namespace KivVarn {

namespace {
// Names each table of a table set by its full path, so that a store keeping
// tables outside the process can tell the sets apart.
class PathTableStore : public TableStore {
 public:
   PathTableStore( TableStore & inner, const std::string & path ) : inner_( inner ), path_( path ) {}
   std::unique_ptr< RowTable > tableIs( const std::string & name, std::size_t rowSize,
                                        std::size_t keySize, std::size_t capacity ) override {
      return inner_.tableIs( path_ + "/" + name, rowSize, keySize, capacity );
   }

 private:
   TableStore & inner_;
   const std::string & path_;
};
} // namespace

std::size_t MountInfo::size( const std::string & name, std::size_t dflt ) const {
   for( const auto & c : collections ) {
      if( c.name == name ) return c.size;
   }
   return dflt;
}

MountInfo & MountInfo::collectionIs( const std::string & name, std::size_t size ) {
   for( auto & c : collections ) {
      if( c.name == name ) {
         c.size = size;
         return *this;
      }
   }
   collections.push_back( CollectionInfo{ name, size } );
   return *this;
}

Directory::Directory( TableStore & store ) : store_( store ) {}

Directory & Directory::instance() {
   static Directory dir;
   return dir;
}

void Directory::typeIs( const std::string & typeName, Creator c ) {
   creators_.insertOrAssignFn( typeName, std::move( c ) );
}

Kiv::Ptr< Kiv::Entity > Directory::entity( const std::string & path ) const {
   const Set * s = sets_.find( path );
   return s ? s->entity : nullptr;
}

std::size_t Directory::mounts( const std::string & path ) const {
   const Set * s = sets_.find( path );
   return s ? s->mounts : 0;
}

Mount::Mount( Directory & dir ) : dir_( dir ) {}

Mount::~Mount() {
   while( const std::string * p = mounted_.firstKey() ) {
      const std::string path = *p;
      doUnmount( path );
   }
}

Kiv::Ptr< Kiv::Entity > Mount::doMount( const std::string & path, const std::string & mode,
                                        const MountInfo & mountInfo ) {
   const bool writer = !mode.empty() && mode[ 0 ] == 'w';
   const bool reader = !mode.empty() && mode[ 0 ] == 'r';
   if( !writer && !reader ) {
      throw Kiv::RangeException( "KivVarn::Mount::mode '" + mode + "' not allowed" );
   }
   Directory::Set * set = dir_.sets_.find( path );
   if( set && set->typeName != mountInfo.typeName ) {
      throw Kiv::RangeException( "KivVarn::Mount " + path + " holds " + set->typeName + ", not " +
                                 mountInfo.typeName );
   }
   if( const Kiv::Ptr< Kiv::Entity > * e = mounted_.find( path ) ) return *e;
   if( !set ) {
      if( reader ) return nullptr;
      const Directory::Creator * create = dir_.creators_.find( mountInfo.typeName );
      if( !create ) {
         throw Kiv::RangeException( "KivVarn::Mount unknown type " + mountInfo.typeName +
                                    " not allowed" );
      }
      Directory::Set fresh;
      PathTableStore store( dir_.store_, path );
      fresh.entity = ( *create )( path, mountInfo, store );
      fresh.typeName = mountInfo.typeName;
      set = dir_.sets_.tryInsert( path, std::move( fresh ) ).first;
   }
   ++set->mounts;
   mounted_.tryInsert( path, set->entity );
   return set->entity;
}

void Mount::doUnmount( const std::string & path ) {
   if( !mounted_.erase( path ) ) return;
   if( Directory::Set * set = dir_.sets_.find( path ) ) {
      if( set->mounts > 0 ) --set->mounts;
   }
}

Kiv::Ptr< Kiv::Entity > Mount::getEntity( const std::string & path ) const {
   const Kiv::Ptr< Kiv::Entity > * e = mounted_.find( path );
   return e ? *e : nullptr;
}

void Mount::cleanup( const std::string & path ) {
   const Directory::Set * set = dir_.sets_.find( path );
   if( !set || set->mounts > 0 ) return;
   dir_.sets_.erase( path );
}

} // namespace KivVarn
