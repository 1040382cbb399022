// The static RP check: one configuration through the machine end to end, and
// the findings (access lists expanded to exact prefixes) against a
// brute-force oracle over random rule sets.
#include <gtest/gtest.h>

#include <cstdint>
#include <map>
#include <random>
#include <set>
#include <string>
#include <vector>

#include "kiv/RangeException.h"
#include "kiv/testing/TestLoop.h"
#include "rpcheck/RpConfigCheckSm.h"

namespace {

using namespace Routing::Pim;
using Acl::AclAction;
using Acl::StandardAcl;
using Lumo::AddressFamily;
using Lumo::IpGenAddr;
using Lumo::IpGenPrefix;

IpGenAddr ip( const char * s ) { return IpGenAddr::fromStrep( s ); }
IpGenPrefix pfx( const char * s ) { return IpGenPrefix::fromStrep( s ); }

// One run end to end, its whole report as text; which findings a rule set
// gives is the property test's matter.
TEST( RpConfigCheckTest, MachineReportsConflictsOverlapsAndMissingLists ) {
   Kiv::Testing::TestLoop loop( 100.0 );
   auto config = Kiv::make< StaticRpConfig >( "red" );
   auto acls = Kiv::make< Acl::StandardAclConfig >( "acl" );
   auto result = Kiv::make< RpConfigCheckResult >( "red" );
   config->ruleIs( StaticRpRule::forPrefix( ip( "198.18.0.1" ), pfx( "239.0.0.0/8" ) ), {} );
   config->ruleIs( StaticRpRule::forAcl( ip( "198.18.0.2" ), "A" ), {} );
   config->ruleIs( StaticRpRule::forPrefix( ip( "198.18.0.3" ), pfx( "239.1.0.0/16" ) ), {} );
   config->ruleIs( StaticRpRule::forAcl( ip( "198.18.0.1" ), "missing" ), { true } );
   // Two halves that together serve 239.0.0.0/8.
   acls->standardAclIs( "A",
                        StandardAcl::fromStrep( "permit 239.0.0.0/9, permit 239.128.0.0/9" ) );

   Kiv::Ptr< RpConfigCheckSm > sm( rpConfigCheckSmFactory( config, acls, result ) );
   ASSERT_TRUE( sm );
   EXPECT_EQ( result->checkCount(), 0u ); // nothing runs before the caller starts it
   sm->doStart();
   EXPECT_EQ( result->lastCheckTime(), 100.0 );
   EXPECT_EQ( rpConfigCheckText( *result ),
              "VRF red: 4 rules, checked 1 times\n"
              "Groups mapped to more than one RP: 1\n"
              "  239.0.0.0/8 -> 198.18.0.1, 198.18.0.2\n"
              "Prefixes inside a wider prefix of another rule: 2\n"
              "  239.1.0.0/16 (198.18.0.3 group 239.1.0.0/16) inside 239.0.0.0/8 "
              "(198.18.0.1 group 239.0.0.0/8)\n"
              "  239.1.0.0/16 (198.18.0.3 group 239.1.0.0/16) inside 239.0.0.0/8 "
              "(198.18.0.2 access-list A)\n"
              "Access list missing is not configured\n" );

   EXPECT_THROW( rpConfigCheckSmFactory( nullptr, acls, result ), Kiv::RangeException );
   EXPECT_THROW( StaticRpRule::forPrefix( ip( "198.18.0.1" ), pfx( "ff3e::/16" ) ),
                 Kiv::RangeException );
}

// ---- property test ------------------------------------------------------------
//
// Random prefixes vary only in a window of w bits after the first s bits of
// a base address (or are the whole family, /0), so every address's fate is
// decided by its window bits, plus one "outside the base" case that only /0
// entries reach. The oracle evaluates each rule on those 2^w + 1 addresses
// with the plain first-match list and derives the fewest exact prefixes from
// the membership table alone.
constexpr unsigned w = 6;

struct Window {
   IpGenAddr base; // zero after the first s bits
   unsigned s;
};

// a with the n bits of value (most significant first) from bit i on.
IpGenAddr withBits( const IpGenAddr & a, unsigned i, unsigned n, std::uint32_t value ) {
   IpGenAddr::Bytes16 b{};
   const auto src = a.bytes();
   std::copy( src.begin(), src.end(), b.begin() );
   for( unsigned k = 0; k < n; ++k ) {
      const std::uint8_t m = std::uint8_t( 0x80u >> ( ( i + k ) % 8 ) );
      std::uint8_t & byte = b[ ( i + k ) / 8 ];
      byte = ( ( value >> ( n - 1 - k ) ) & 1 ) ? ( byte | m ) : ( byte & ~m );
   }
   if( a.af() == AddressFamily::ipv6 ) return IpGenAddr( b );
   return IpGenAddr( IpGenAddr::Bytes4{ b[ 0 ], b[ 1 ], b[ 2 ], b[ 3 ] } );
}

bool bitOf( const IpGenAddr & a, unsigned i ) {
   return ( a.bytes()[ i / 8 ] >> ( 7 - i % 8 ) ) & 1;
}

IpGenPrefix anyPrefix( AddressFamily af ) {
   return af == AddressFamily::ipv4 ? pfx( "0.0.0.0/0" ) : pfx( "::/0" );
}

struct Oracle {
   const Window & win;
   const std::vector< StaticRpRule > & rules;
   const Acl::StandardAclConfig & acls;
   std::vector< IpGenAddr > cells; // the 2^w window addresses
   IpGenAddr outsideAddr;          // one address outside the base

   Oracle( const Window & win, const std::vector< StaticRpRule > & rules,
           const Acl::StandardAclConfig & acls )
         : win( win ), rules( rules ), acls( acls ) {
      for( std::uint32_t c = 0; c < ( 1u << w ); ++c ) {
         cells.push_back( withBits( win.base, win.s, w, c ) );
      }
      const unsigned top = win.s - 1;
      if( win.s > 0 ) outsideAddr = withBits( win.base, top, 1, !bitOf( win.base, top ) );
   }

   bool member( const StaticRpRule & r, const IpGenAddr & a ) const {
      if( !r.usesAcl() ) return r.groupPrefix().contains( a );
      const StandardAcl * acl = acls.standardAclColl().find( r.aclName() );
      return acl && acl->permits( a );
   }

   std::vector< IpGenPrefix > blocks( const StaticRpRule & r ) const {
      static_assert( w == 6, "one bit per window address in a 64-bit mask" );
      std::uint64_t in = 0;
      for( std::uint32_t c = 0; c < cells.size(); ++c ) {
         if( member( r, cells[ c ] ) ) in |= std::uint64_t( 1 ) << c;
      }
      const bool outside = win.s > 0 && member( r, outsideAddr );
      // Block j of length l covers the cells [j << (w - l), (j + 1) << (w - l)).
      auto full = [ & ]( unsigned l, std::uint32_t j ) {
         const unsigned size = 1u << ( w - l );
         const std::uint64_t m =
            size == 64 ? ~std::uint64_t( 0 ) : ( std::uint64_t( 1 ) << size ) - 1;
         return ( ( in >> ( j * size ) ) & m ) == m;
      };
      std::vector< IpGenPrefix > out;
      if( outside && full( 0, 0 ) ) return { anyPrefix( win.base.af() ) };
      if( outside ) {
         for( unsigned i = 0; i < win.s; ++i ) {
            const IpGenAddr a = withBits( win.base, i, 1, !bitOf( win.base, i ) );
            out.push_back( IpGenPrefix::masked( a, i + 1 ) );
         }
      }
      for( unsigned l = 0; l <= w; ++l ) {
         for( std::uint32_t j = 0; j < ( 1u << l ); ++j ) {
            if( full( l, j ) && ( l == 0 || !full( l - 1, j >> 1 ) ) ) {
               out.push_back( IpGenPrefix( withBits( win.base, win.s, l, j ), win.s + l ) );
            }
         }
      }
      return out;
   }

   RpCheckFindings findings() const {
      RpCheckFindings f;
      std::vector< std::vector< IpGenPrefix > > b;
      std::map< IpGenPrefix, std::set< IpGenAddr > > rpsOf;
      for( const StaticRpRule & r : rules ) {
         if( r.usesAcl() && !acls.standardAclColl().find( r.aclName() ) ) {
            f.missingAcls.insert( r.aclName() );
         }
         b.push_back( blocks( r ) );
         for( const IpGenPrefix & p : b.back() ) rpsOf[ p ].insert( r.rpAddr() );
      }
      for( const auto & [ p, rps ] : rpsOf ) {
         if( rps.size() > 1 ) f.conflicts[ p ] = RpSet( rps.begin(), rps.end() );
      }
      for( std::size_t x = 0; x < rules.size(); ++x ) {
         for( std::size_t y = 0; y < rules.size(); ++y ) {
            if( x == y ) continue;
            for( const IpGenPrefix & p : b[ x ] ) {
               for( const IpGenPrefix & q : b[ y ] ) {
                  if( q.len() < p.len() && q.contains( p ) ) {
                     f.overlaps.insert( RpOverlap{ rules[ x ], p, rules[ y ], q } );
                  }
               }
            }
         }
      }
      return f;
   }
};

TEST( RpConfigCheckTest, FindingsMatchBruteForceOverRandomRuleSets ) {
   Kiv::Testing::TestLoop loop;
   const Window windows[] = {
      { ip( "0.0.0.0" ), 0 },          // the top bits, /0 included
      { ip( "224.0.0.0" ), 4 },
      { ip( "239.1.2.0" ), 26 },       // down to /32
      { ip( "2001:db8:0:10::" ), 60 }, // across the 64-bit middle
      { ip( "ff3e::1:0" ), 122 },      // down to /128
   };
   const char * const listNames[] = { "A", "B", "C", "D" }; // "D" is never configured
   std::mt19937_64 rng( 20261123 );
   auto pick = [ & ]( std::uint32_t n ) {
      return std::uint32_t( std::uniform_int_distribution< std::uint32_t >( 0, n - 1 )( rng ) );
   };

   auto config = Kiv::make< StaticRpConfig >( "red" );
   auto acls = Kiv::make< Acl::StandardAclConfig >( "acl" );
   auto result = Kiv::make< RpConfigCheckResult >( "red" );
   Kiv::Ptr< RpConfigCheckSm > sm( rpConfigCheckSmFactory( config, acls, result ) );

   constexpr int iterations = 10'000;
   int withConflicts = 0, withOverlaps = 0, withHoles = 0;
   for( int iter = 0; iter < iterations; ++iter ) {
      const Window & win = windows[ iter % std::size( windows ) ];
      const AddressFamily af = win.base.af();
      auto randomPrefix = [ & ] {
         if( pick( 8 ) == 0 ) return anyPrefix( af );
         const unsigned n = pick( w + 1 );
         return IpGenPrefix( withBits( win.base, win.s, n, pick( 1u << n ) ), win.s + n );
      };
      config->ruleDelAll();
      acls->standardAclDelAll();
      for( int l = 0; l < 3; ++l ) {
         StandardAcl acl;
         const std::uint32_t entries = pick( 6 );
         for( std::uint32_t e = 0; e < entries; ++e ) {
            const AclAction action = pick( 2 ) ? AclAction::permit : AclAction::deny;
            if( action == AclAction::deny ) ++withHoles;
            // Now and then an entry of the other family, which must change nothing.
            const AddressFamily other = af == AddressFamily::ipv4 ? AddressFamily::ipv6
                                                                  : AddressFamily::ipv4;
            acl.entryAdd( action, pick( 10 ) == 0 ? anyPrefix( other ) : randomPrefix() );
         }
         acls->standardAclIs( listNames[ l ], acl );
      }
      const std::uint32_t ruleCount = 1 + pick( 6 );
      for( std::uint32_t r = 0; r < ruleCount; ++r ) {
         const IpGenAddr rp = af == AddressFamily::ipv4
                                 ? IpGenAddr::ipv4( 0xC6120001u + pick( 3 ) )
                                 : withBits( ip( "2001:db8::1" ), 126, 1, pick( 2 ) );
         config->ruleIs( pick( 2 ) ? StaticRpRule::forPrefix( rp, randomPrefix() )
                                   : StaticRpRule::forAcl( rp, listNames[ pick( 4 ) ] ),
                         { pick( 2 ) == 0 } );
      }
      std::vector< StaticRpRule > rules;
      config->ruleForEach(
         [ & ]( const StaticRpRule & r, const StaticRpRuleOptions & ) { rules.push_back( r ); } );

      sm->doStart();
      const RpCheckFindings want = Oracle( win, rules, *acls ).findings();
      RpCheckFindings got;
      result->conflictForEach(
         [ & ]( const IpGenPrefix & p, const RpSet & rps ) { got.conflicts[ p ] = rps; } );
      result->overlapForEach( [ & ]( const RpOverlap & o, bool ) { got.overlaps.insert( o ); } );
      result->missingAclForEach(
         [ & ]( const Kiv::String & n, bool ) { got.missingAcls.insert( n ); } );
      // The generator is seeded: the iteration number is enough to replay one.
      ASSERT_EQ( got.conflicts, want.conflicts ) << "iteration " << iter;
      ASSERT_EQ( got.overlaps, want.overlaps ) << "iteration " << iter;
      ASSERT_EQ( got.missingAcls, want.missingAcls ) << "iteration " << iter;
      ASSERT_EQ( result->checkCount(), std::uint32_t( iter + 1 ) );
      withConflicts += !want.conflicts.empty();
      withOverlaps += !want.overlaps.empty();
   }
   // The generator must reach the interesting cases often.
   EXPECT_GT( withConflicts, iterations / 10 );
   EXPECT_GT( withOverlaps, iterations / 4 );
   EXPECT_GT( withHoles, iterations );
}

} // namespace
