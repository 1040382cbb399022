// Secondary addresses of neighbours: learnt from the address list, removed
// when a later Hello drops them or the neighbour leaves, and contested
// between neighbours (the newest advertiser wins, a primary address outranks
// a secondary claim). The interface keeps a map from each secondary address
// to its owner.
#include <map>

#include "EngineFixture.h"

namespace PimScenario {
namespace {

// Each neighbour's secondary addresses, then the interface's map of them to
// their owners, by last byte in address order: "2:150,151 3:170 | 150>2 151>2 170>3".
std::string holders( const Intf & intf ) {
   const auto last = []( const Lumo::IpGenAddr & a ) {
      std::ostringstream os;
      os << a;
      return os.str().substr( os.str().rfind( '.' ) + 1 );
   };
   std::map< Lumo::IpGenAddr, std::set< Lumo::IpGenAddr > > lists;
   intf.neighborForEach( [ & ]( const Lumo::IpGenAddr & n, const Kiv::Ptr< Neighbor > & nb ) {
      nb->secondaryAddressForEach( [ & ]( const Lumo::IpGenAddr & a, bool ) { lists[ n ].insert( a ); } );
   } );
   std::map< Lumo::IpGenAddr, Lumo::IpGenAddr > owners;
   intf.nbSecondaryAddressForEach( [ & ]( const Lumo::IpGenAddr & a, const Lumo::IpGenAddr & o ) { owners[ a ] = o; } );
   std::string r;
   for( const auto & [ n, l ] : lists ) {
      r += last( n );
      for( const auto & a : l ) r += ( a == *l.begin() ? ":" : "," ) + last( a );
      r += " ";
   }
   r += "|";
   for( const auto & [ a, o ] : owners ) r += " " + last( a ) + ">" + last( o );
   return r;
}

TEST( ScenarioSecondaryAddress, HellosLearnDropAndContestSecondaries ) {
   // After `wait` seconds a Hello from 198.18.0.<from> with `hold` listing
   // 198.18.0.<addrs>, then who holds what.
   struct Step {
      double wait;
      int from;
      std::uint16_t hold;
      std::vector< int > addrs;
      const char * holders;
   };
   const auto conflict = []( int by, int before ) {
      return "Neighbor 198.18.0." + std::to_string( by ) + " advertised secondary address 198.18.0.150 on " +
             "interface Ethernet1, which was previously advertised by neighbor 198.18.0." + std::to_string( before );
   };
   const struct {
      const char * name;
      std::vector< Step > steps;
      std::vector< std::string > conflicts = {};
   } scripts[] = {
      { "learnt, then removed one by one, then all at once",
        { { 0, 2, 105, { 102, 103, 104 }, "2:102,103,104 | 102>2 103>2 104>2" },
          { 10, 2, 105, { 102, 104, 105 }, "2:102,104,105 | 102>2 104>2 105>2" },
          { 10, 2, 105, {}, "|" } } },
      { "a primary takes its address back and keeps it",
        { { 0, 2, 105, { 7, 8 }, "2:7,8 | 7>2 8>2" },
          { 0, 7, 105, {}, "2:8 | 8>2" },
          { 0, 2, 105, { 7, 8 }, "2:8 | 8>2" } } },
      { "the newest advertiser wins, every time",
        { { 5, 2, 105, { 150, 151 }, "2:150,151 | 150>2 151>2" },
          { 5, 3, 105, { 150 }, "2:151 3:150 | 150>3 151>2" },
          { 10, 2, 105, { 150, 151 }, "2:150,151 | 150>2 151>2" } },
        { conflict( 3, 2 ), conflict( 2, 3 ) } },
      // However a neighbour leaves, a router that then advertises one of its
      // addresses meets no conflict.
      { "expiry takes the secondaries",
        { { 0, 2, 30, { 160, 161 }, "2:160,161 | 160>2 161>2" },
          { 0, 3, 105, { 170 }, "2:160,161 3:170 | 160>2 161>2 170>3" },
          { 31, 4, 105, { 161 }, "3:170 4:161 | 161>4 170>3" } } },
      { "a goodbye with its list takes them",
        { { 0, 2, 30, { 160, 161 }, "2:160,161 | 160>2 161>2" },
          { 0, 3, 105, { 170 }, "2:160,161 3:170 | 160>2 161>2 170>3" },
          { 1, 2, 0, { 160, 161 }, "3:170 | 170>3" },
          { 0, 4, 105, { 161 }, "3:170 4:161 | 161>4 170>3" } } },
      // A goodbye takes the sender's mappings and no one else's, whatever
      // its list says.
      { "a goodbye without a list takes them",
        { { 0, 2, 30, { 160, 161 }, "2:160,161 | 160>2 161>2" },
          { 0, 3, 105, { 170 }, "2:160,161 3:170 | 160>2 161>2 170>3" },
          { 1, 2, 0, {}, "3:170 | 170>3" },
          { 0, 4, 105, { 161 }, "3:170 4:161 | 161>4 170>3" },
          { 0, 3, 0, { 161 }, "4:161 | 161>4" } } },
   };
   for( const auto & s : scripts ) {
      SCOPED_TRACE( s.name );
      EngineFixture f;
      auto intf = f.startIntf( eth1, "198.18.0.1/24" );
      for( const Step & st : s.steps ) {
         SCOPED_TRACE( st.holders );
         f.advanceBy( st.wait );
         auto h = hello( "198.18.0." + std::to_string( st.from ) ).hold( st.hold );
         for( int a : st.addrs ) h.secondary.push_back( ip( "198.18.0." + std::to_string( a ) ) );
         f.receive( eth1, h );
         EXPECT_EQ( holders( *intf ), st.holders );
      }
      EXPECT_EQ( f.logTexts( "PIM_NEIGHBOR_SECONDARY_ADDRESS_CONFLICT" ), s.conflicts );
   }
}

// Addresses that cannot stand for the neighbour are skipped and counted (the
// own primary is just dropped); the good one beside them is learnt.
TEST( ScenarioSecondaryAddress, UnusableAddressesAreIgnoredCountedAndTracedTheOthersLearnt ) {
   struct Case {
      Lumo::AddressFamily af;
      const char * listed;
      const char * why;
      std::uint32_t counted;
   };
   const auto v4 = Lumo::AddressFamily::ipv4;
   const auto v6 = Lumo::AddressFamily::ipv6;
   const Case cases[] = {
      { v4, "198.18.0.2", "the sender's own primary", 0 },
      { v4, "198.18.0.1", "is one of our own addresses", 1 },
      { v4, "198.18.9.1", "is one of our own addresses", 1 },
      { v4, "198.18.0.3", "is the primary address of another neighbor", 1 },
      { v4, "0.0.0.0", "is unspecified", 1 },
      { v4, "224.0.0.13", "is multicast", 1 },
      { v4, "255.255.255.255", "is broadcast", 1 },
      { v4, "198.18.0.255", "is broadcast", 1 },
      { v4, "127.0.0.1", "is loopback", 1 },
      { v6, "fe80::9", "is link-local", 1 },
      { v6, "::1", "is loopback", 1 },
      { v6, "::", "is unspecified", 1 },
      { v6, "2001:db8::3", "is the primary address of another neighbor", 1 },
   };
   for( const Case & c : cases ) {
      SCOPED_TRACE( std::string( c.listed ) + ": " + c.why );
      const bool six = c.af == v6;
      EngineFixture f( c.af );
      auto intf = f.startIntf( eth1, six ? "2001:db8::1/64" : "198.18.0.1/24",
                               { .secondary = { ip( six ? "2001:db8:9::1" : "198.18.9.1" ) } } );
      const char * sender = six ? "2001:db8::2" : "198.18.0.2";
      const char * good = six ? "2001:db8::120" : "198.18.0.120";
      f.receive( eth1, hello( six ? "2001:db8::3" : "198.18.0.3" ) );
      auto h = hello( sender );
      h.secondary = { ip( c.listed ), ip( good ) };
      f.receive( eth1, h );
      auto nb = f.neighbor( eth1, sender );
      ASSERT_TRUE( nb );
      EXPECT_TRUE( nb->secondaryAddressSize() == 1 && nb->secondaryAddress( ip( good ) ) );
      EXPECT_EQ( intf->nbSecondaryAddressSize(), 1u );
      EXPECT_EQ( intf->ignoredSecondaryCount(), c.counted );
   }
}

// The per-neighbour limit holds whatever the Hello lists.
TEST( ScenarioSecondaryAddress, PerNeighborLimitHoldsAndTheRestIsCounted ) {
   EngineFixture f;
   auto intf = f.startIntf( eth1, "198.18.0.1/24" );
   auto h = hello( "198.18.0.2" );
   for( int i = 0; i < 40; ++i ) h.secondary.push_back( ip( "198.18.1." + std::to_string( i + 1 ) ) );
   f.receive( eth1, h );
   EXPECT_EQ( f.neighbor( eth1, "198.18.0.2" )->secondaryAddressSize(), kNeighborSecondaryAddressLimit );
   EXPECT_EQ( intf->nbSecondaryAddressSize(), kNeighborSecondaryAddressLimit );
   EXPECT_EQ( intf->ignoredSecondaryCount(), 40u - kNeighborSecondaryAddressLimit );
}

} // namespace
} // namespace PimScenario
