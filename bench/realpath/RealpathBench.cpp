// Real-path benchmark: a device under test in one network namespace, a
// generator in another emulating N PIM neighbours over a veth pair. The
// generator writes whole IP packets on a packet socket (no per-source socket
// or address, so 100,000 sources cost one socket and one buffer). The device's
// CPU and RSS come from /proc, its neighbour count from a probe command.
// Needs root; every namespace, file and process it makes is removed on exit,
// on error and on SIGINT/SIGTERM.
#include <arpa/inet.h>
#include <fcntl.h>
#include <linux/if_packet.h>
#include <net/ethernet.h>
#include <net/if.h>
#include <sched.h>
#include <sys/socket.h>
#include <sys/types.h>
#include <sys/wait.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fmt/core.h>
#include <fstream>
#include <map>
#include <sstream>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "bench/realpath/Measure.h"
#include "services/pimwire/HelloCodec.h"

namespace {

using Clock = std::chrono::steady_clock;
using namespace std::chrono_literals;
namespace fs = std::filesystem;

volatile std::sig_atomic_t stopFlag = 0;
void onSignal( int ) { stopFlag = 1; }
struct Interrupted : std::runtime_error {
   Interrupted() : std::runtime_error( "interrupted" ) {}
};
void checkStop() {
   if( stopFlag ) {
      throw Interrupted();
   }
}
void sleepFor( Clock::duration d ) {
   auto end = Clock::now() + d;
   while( Clock::now() < end ) {
      checkStop();
      std::this_thread::sleep_for( std::min< Clock::duration >( end - Clock::now(), 50ms ) );
   }
}
double secondsSince( Clock::time_point t ) {
   return std::chrono::duration< double >( Clock::now() - t ).count();
}

std::string readFile( const std::string & path ) {
   std::ifstream f( path );
   std::stringstream ss;
   ss << f.rdbuf();
   return ss.str();
}

// Runs a shell command; its stdout, and whether it exited with 0.
std::pair< std::string, bool > run( const std::string & cmd ) {
   FILE * p = popen( cmd.c_str(), "r" );
   if( !p ) {
      return { "", false };
   }
   std::string out;
   char buf[ 65536 ];
   std::size_t n;
   while( ( n = fread( buf, 1, sizeof buf, p ) ) > 0 ) {
      out.append( buf, n );
   }
   int st = pclose( p );
   return { out, WIFEXITED( st ) && WEXITSTATUS( st ) == 0 };
}
void mustRun( const std::string & cmd ) {
   if( !run( cmd + " >/dev/null" ).second ) {
      throw std::runtime_error( "failed: " + cmd );
   }
}
std::string substitute( std::string t, const std::map< std::string, std::string > & vars ) {
   for( const auto & [ k, v ] : vars ) {
      for( auto p = t.find( k ); p != std::string::npos; p = t.find( k, p + v.size() ) ) {
         t.replace( p, k.size(), v );
      }
   }
   return t;
}

struct Options {
   bool v6 = false;
   bool quick = false;
   std::vector< unsigned > sizes;
   double refreshRate = 1000;
   double refreshSeconds = 10;
   double holdSeconds = 10;
   double populateRate = 5000;
   double learnTimeout = 300;
   double rateCap = 2e6;
   int rateTrials = 8;
   unsigned holdtime = 105;
   bool peer = true;
   bool floor = true;
   std::string oursCmd, oursProbe, oursKey = "neighbor";
   std::string pimnbrdPath, pimnbrPath; // this build tree's, when --ours is not given
   std::string sinkPath;
};

// ---------------------------------------------------------------------------
// The LAN: two namespaces and a veth pair created directly inside them, so no
// interface ever exists in the caller's namespace.
struct Lan {
   std::string gen, dut;
   static constexpr const char * genIf = "rpgen";
   static constexpr const char * dutIf = "rpdut";
   bool v6;
   Lan( const std::string & tag, bool ipv6 ) : gen( tag + "g" ), dut( tag + "d" ), v6( ipv6 ) {
      try {
         mustRun( "ip netns add " + gen );
         mustRun( "ip netns add " + dut );
         mustRun( fmt::format( "ip link add {} netns {} type veth peer name {} netns {}", genIf,
                               gen, dutIf, dut ) );
         for( auto [ ns, dev, a4, a6 ] :
              { std::tuple{ gen, genIf, "198.18.0.1/15", "2001:db8::1/64" },
                std::tuple{ dut, dutIf, "198.18.0.2/15", "2001:db8::2/64" } } ) {
            mustRun( fmt::format( "ip -n {} link set lo up", ns ) );
            mustRun( fmt::format( "ip -n {} addr add {} dev {}", ns, a4, dev ) );
            mustRun( fmt::format( "ip -n {} addr add {} dev {} nodad", ns, a6, dev ) );
            mustRun( fmt::format( "ip -n {} link set {} up", ns, dev ) );
         }
      } catch( ... ) {
         teardown();
         throw;
      }
   }
   ~Lan() { teardown(); }
   Lan( const Lan & ) = delete;
   Lan & operator=( const Lan & ) = delete;
   void teardown() {
      run( "ip netns del " + gen + " 2>/dev/null" );
      run( "ip netns del " + dut + " 2>/dev/null" );
   }
   // Packets the device side lost before any socket read them: drops of the
   // device's PIM raw sockets and of its veth leg.
   std::uint64_t drops() const {
      auto [ raw, ok ] =
          run( fmt::format( "ip netns exec {} cat /proc/net/raw /proc/net/raw6 "
                            "/sys/class/net/{}/statistics/rx_dropped",
                            dut, dutIf ) );
      auto lastNl = raw.size() < 2 ? std::string::npos : raw.find_last_of( '\n', raw.size() - 2 );
      if( !ok || lastNl == std::string::npos ) {
         throw std::runtime_error( "cannot read the device's drop counters" );
      }
      std::uint64_t ifDrops = std::stoull( raw.substr( lastNl + 1 ) );
      return RealPath::parseRawDrops( raw, PimWire::kIpProtoPim ) + ifDrops;
   }
};

// Enters a namespace for the lifetime of the object (this thread only).
struct InNetns {
   int self;
   explicit InNetns( const std::string & ns ) : self( open( "/proc/self/ns/net", O_RDONLY ) ) {
      int fd = open( ( "/run/netns/" + ns ).c_str(), O_RDONLY );
      if( self < 0 || fd < 0 || setns( fd, CLONE_NEWNET ) < 0 ) {
         throw std::runtime_error( "cannot enter netns " + ns );
      }
      close( fd );
   }
   ~InNetns() {
      setns( self, CLONE_NEWNET );
      close( self );
   }
};

// ---------------------------------------------------------------------------
// The generator: one encoded Hello per emulated neighbour, sent round robin
// at a paced rate with sendmmsg.
class Generator {
 public:
   Generator( const Lan & lan, unsigned n, const Options & o ) : v6_( o.v6 ) {
      {
         InNetns in( lan.gen );
         fd_ = socket( AF_PACKET, SOCK_DGRAM, htons( v6_ ? ETH_P_IPV6 : ETH_P_IP ) );
         if( fd_ < 0 ) {
            throw std::runtime_error( "packet socket" );
         }
         dst_.sll_family = AF_PACKET;
         dst_.sll_protocol = htons( v6_ ? ETH_P_IPV6 : ETH_P_IP );
         dst_.sll_ifindex = static_cast< int >( if_nametoindex( Lan::genIf ) );
         dst_.sll_halen = 6;
         const std::uint8_t mac4[] = { 0x01, 0x00, 0x5e, 0x00, 0x00, 0x0d };
         const std::uint8_t mac6[] = { 0x33, 0x33, 0x00, 0x00, 0x00, 0x0d };
         std::memcpy( dst_.sll_addr, v6_ ? mac6 : mac4, 6 );
      }
      for( unsigned i = 0; i < n; ++i ) {
         add( i, o.holdtime );
      }
   }
   ~Generator() { close( fd_ ); }
   Generator( const Generator & ) = delete;
   Generator & operator=( const Generator & ) = delete;

   // Sends `count` Hellos at `rate` per second (round robin over the
   // neighbours). Returns the rate achieved.
   double send( std::uint64_t count, double rate ) {
      auto t0 = Clock::now();
      std::uint64_t sent = 0;
      while( sent < count ) {
         checkStop();
         auto due = std::min< std::uint64_t >( count, std::uint64_t( rate * secondsSince( t0 ) ) + 1 );
         if( due <= sent ) {
            std::this_thread::sleep_for( 100us );
            continue;
         }
         sent += burst( std::min< std::uint64_t >( due - sent, kBatch ) );
      }
      double el = secondsSince( t0 );
      return el > 0 ? double( sent ) / el : rate;
   }

 private:
   static constexpr unsigned kBatch = 256;

   void add( unsigned i, unsigned holdtime ) {
      PimWire::Hello h;
      h.holdtimePresent = true;
      h.holdtime = static_cast< std::uint16_t >( holdtime );
      h.drPriorityPresent = true;
      h.drPriority = 1;
      h.generationIdPresent = true;
      h.generationId = 0x5a000000u + i;
      h.lanPruneDelay = { true, false, 500, 2500 };
      PimWire::Addr src, dst;
      std::uint8_t ip[ 40 ] = {};
      std::size_t ipLen;
      // Sources from the second /24 (IPv4) or 2001:db8::1:0 (IPv6) upward,
      // clear of the two interface addresses.
      if( v6_ ) {
         std::array< std::uint8_t, 16 > s{ 0x20, 0x01, 0x0d, 0xb8 };
         std::uint32_t low = 0x10000u + i;
         s[ 12 ] = std::uint8_t( low >> 24 );
         s[ 13 ] = std::uint8_t( low >> 16 );
         s[ 14 ] = std::uint8_t( low >> 8 );
         s[ 15 ] = std::uint8_t( low );
         src = PimWire::Addr::v6( s );
         dst = *PimWire::Addr::parse( "ff02::d" );
         ipLen = 40;
      } else {
         src = PimWire::Addr::v4( ( 198u << 24 | 18u << 16 | 1u << 8 ) + i );
         dst = PimWire::Addr::v4( 224, 0, 0, 13 );
         ipLen = 20;
      }
      std::uint8_t pim[ 128 ];
      std::size_t pimLen = PimWire::encodeHello(
          h, v6_ ? PimWire::Family::ipv6 : PimWire::Family::ipv4, src, dst, pim, sizeof pim );
      if( pimLen == 0 ) {
         throw std::logic_error( "cannot encode the generator's Hello" );
      }
      if( v6_ ) {
         ip[ 0 ] = 0x60;
         ip[ 4 ] = std::uint8_t( pimLen >> 8 );
         ip[ 5 ] = std::uint8_t( pimLen );
         ip[ 6 ] = PimWire::kIpProtoPim;
         ip[ 7 ] = 1; // hop limit
         std::memcpy( ip + 8, src.bytes.data(), 16 );
         std::memcpy( ip + 24, dst.bytes.data(), 16 );
      } else {
         std::size_t total = 20 + pimLen;
         ip[ 0 ] = 0x45;
         ip[ 1 ] = 0xc0; // internetwork control
         ip[ 2 ] = std::uint8_t( total >> 8 );
         ip[ 3 ] = std::uint8_t( total );
         ip[ 8 ] = 1; // TTL
         ip[ 9 ] = PimWire::kIpProtoPim;
         std::memcpy( ip + 12, src.bytes.data(), 4 );
         std::memcpy( ip + 16, dst.bytes.data(), 4 );
         std::uint32_t sum = 0;
         for( int k = 0; k < 20; k += 2 ) {
            sum += std::uint32_t( ip[ k ] << 8 | ip[ k + 1 ] );
         }
         while( sum >> 16 ) {
            sum = ( sum & 0xffff ) + ( sum >> 16 );
         }
         ip[ 10 ] = std::uint8_t( ~sum >> 8 );
         ip[ 11 ] = std::uint8_t( ~sum );
      }
      packets_.emplace_back( ip, ip + ipLen );
      packets_.back().insert( packets_.back().end(), pim, pim + pimLen );
   }

   std::size_t burst( std::uint64_t count ) {
      std::array< iovec, kBatch > iov;
      std::array< mmsghdr, kBatch > msgs{};
      for( std::uint64_t k = 0; k < count; ++k ) {
         auto & p = packets_[ ( next_ + k ) % packets_.size() ];
         iov[ k ] = { p.data(), p.size() };
         msgs[ k ].msg_hdr.msg_name = &dst_;
         msgs[ k ].msg_hdr.msg_namelen = sizeof dst_;
         msgs[ k ].msg_hdr.msg_iov = &iov[ k ];
         msgs[ k ].msg_hdr.msg_iovlen = 1;
      }
      int n = sendmmsg( fd_, msgs.data(), static_cast< unsigned >( count ), 0 );
      if( n < 0 ) {
         if( errno == ENOBUFS || errno == EAGAIN || errno == EINTR ) {
            return 0;
         }
         throw std::runtime_error( fmt::format( "sendmmsg: {}", std::strerror( errno ) ) );
      }
      next_ = ( next_ + std::uint64_t( n ) ) % packets_.size();
      return std::size_t( n );
   }

   bool v6_;
   int fd_ = -1;
   sockaddr_ll dst_{};
   std::vector< std::vector< std::uint8_t > > packets_;
   std::uint64_t next_ = 0;
};

// ---------------------------------------------------------------------------
// A device under test running in the LAN's device namespace.
class Device {
 public:
   virtual ~Device() = default;
   virtual pid_t pid() const = 0;
   // Neighbour count, nullopt when the device has no probe or it failed.
   virtual std::optional< std::uint64_t > neighbours() const = 0;
   virtual bool hasProbe() const = 0;

   std::uint64_t cpuNs() const {
      // Per-thread schedstat gives on-CPU time in ns, where /proc/<pid>/stat
      // counts 10 ms ticks that are too coarse for a cheap device.
      std::uint64_t ns = 0;
      bool any = false;
      std::error_code ec;
      for( const auto & t :
           fs::directory_iterator( fmt::format( "/proc/{}/task", pid() ), ec ) ) {
         if( auto v = RealPath::parseSchedstatNs( readFile( t.path() / "schedstat" ) ) ) {
            ns += *v;
            any = true;
         }
      }
      if( any ) {
         return ns;
      }
      auto ticks = RealPath::parseStatCpuTicks( readFile( fmt::format( "/proc/{}/stat", pid() ) ) );
      return ticks.value_or( 0 ) * 1'000'000'000ull / std::uint64_t( sysconf( _SC_CLK_TCK ) );
   }
   std::uint64_t rssBytes() const {
      auto pages =
          RealPath::parseStatmRssPages( readFile( fmt::format( "/proc/{}/statm", pid() ) ) );
      return pages.value_or( 0 ) * std::uint64_t( sysconf( _SC_PAGESIZE ) );
   }
   bool alive() const { return kill( pid(), 0 ) == 0; }
};

std::optional< std::uint64_t > probe( const std::string & cmd, const std::string & key ) {
   auto [ out, ok ] = run( "timeout 60 " + cmd + " 2>/dev/null" );
   return ok ? RealPath::parseNeighbourCount( out, key ) : std::nullopt;
}

void stopPid( pid_t pid, bool reap ) {
   if( pid <= 0 ) {
      return;
   }
   kill( pid, SIGTERM );
   for( int i = 0; i < 50; ++i ) {
      if( reap ? waitpid( pid, nullptr, WNOHANG ) == pid : kill( pid, 0 ) != 0 ) {
         return;
      }
      std::this_thread::sleep_for( 100ms );
   }
   kill( pid, SIGKILL );
   if( reap ) {
      waitpid( pid, nullptr, 0 );
   }
}

// A command line started as our child inside the device namespace ({ns} and
// {if} are substituted): the floor, and later our daemon.
class ChildDevice : public Device {
 public:
   ChildDevice( const Lan & lan, const std::string & cmdTemplate, std::string probeTemplate,
                std::string key )
       : key_( std::move( key ) ) {
      std::map< std::string, std::string > vars{ { "{ns}", lan.dut }, { "{if}", Lan::dutIf } };
      probe_ = substitute( std::move( probeTemplate ), vars );
      std::string cmd = substitute( cmdTemplate, vars );
      pid_ = fork();
      if( pid_ == 0 ) {
         // ip netns exec execs the command, so the child's pid is the device's.
         execl( "/usr/bin/ip", "ip", "netns", "exec", lan.dut.c_str(), "/bin/sh", "-c",
                ( "exec " + cmd ).c_str(), static_cast< char * >( nullptr ) );
         _exit( 127 );
      }
      if( pid_ < 0 ) {
         throw std::runtime_error( "fork" );
      }
   }
   ~ChildDevice() override { stop(); }
   pid_t pid() const override { return pid_; }
   void stop() {
      stopPid( pid_, true );
      pid_ = -1;
   }
   bool hasProbe() const override { return !probe_.empty(); }
   std::optional< std::uint64_t > neighbours() const override {
      return hasProbe() ? probe( probe_, key_ ) : std::nullopt;
   }

 private:
   pid_t pid_ = -1;
   std::string probe_, key_;
};

// Our daemon, pimnbrd from this build tree, with a configuration file and a
// state directory of its own; probed through pimnbr, which reads only the
// shared-memory tables. The neighbour limits are raised to the largest N.
class PimnbrdDevice : public ChildDevice {
 public:
   PimnbrdDevice( const Lan & lan, const Options & o )
       : ChildDevice( lan, command( lan, o ), probeCommand( lan, o ), "neighbor" ),
         dir_( stateDir( lan ) ) {}
   ~PimnbrdDevice() override {
      stop();
      std::error_code ec;
      fs::remove_all( dir_, ec );
   }

 private:
   static std::string stateDir( const Lan & lan ) { return "/tmp/" + lan.dut; }
   static std::string command( const Lan & lan, const Options & o ) {
      const std::string dir = stateDir( lan );
      fs::create_directories( dir );
      // Room for the largest sweep; the defaults would refuse the excess.
      const unsigned limit = 1u << 20;
      std::ofstream( dir + "/pimnbrd.yaml" ) << fmt::format(
          "address-families: [{}]\n"
          "vrfs:\n"
          "  default:\n"
          "    multicast-routing: true\n"
          "    neighbor-limit: {}\n"
          "    interfaces:\n"
          "      {}:\n"
          "        hello-interval: 30\n"
          "        neighbor-limit: {}\n",
          o.v6 ? "ipv6" : "ipv4", limit, Lan::dutIf, limit );
      return fmt::format( "{} -c {}/pimnbrd.yaml --state-dir {} --foreground --log stderr 2>{}/log",
                          o.pimnbrdPath, dir, dir, dir );
   }
   static std::string probeCommand( const Lan & lan, const Options & o ) {
      // With no neighbour yet pimnbr prints {} and exits non-zero: that is a count of 0.
      return fmt::format( "{} --state-dir {} show {} pim neighbor json 2>/dev/null || true", o.pimnbrPath,
                          stateDir( lan ), o.v6 ? "ipv6" : "ip" );
   }
   std::string dir_;
};

// FRRouting's zebra and pimd with their own config and run directories
// named after the namespace; measured: pimd.
class FrrDevice : public Device {
 public:
   explicit FrrDevice( const Lan & lan ) : ns_( lan.dut ) {
      try {
         fs::create_directories( runDir() );
         fs::create_directories( etcDir() );
         std::ofstream( etcDir() + "/frr.conf" )
             << fmt::format( "interface {}\n {} pim\n!\n", Lan::dutIf, lan.v6 ? "ipv6" : "ip" );
         mustRun( fmt::format( "chown -R frr:frr {} {}", runDir(), etcDir() ) );
         for( const char * d : { "zebra", lan.v6 ? "pim6d" : "pimd" } ) {
            mustRun( fmt::format( "ip netns exec {0} /usr/lib/frr/{1} -d -N {0} -P 0 -f {2}/frr.conf",
                                  ns_, d, etcDir() ) );
         }
         auto deadline = Clock::now() + 10s;
         while( ( pid_ = readPid( lan.v6 ? "pim6d" : "pimd" ) ) <= 0 && Clock::now() < deadline ) {
            sleepFor( 100ms );
         }
         if( pid_ <= 0 ) {
            throw std::runtime_error( "pimd did not start" );
         }
         probe_ = fmt::format( "vtysh -N {} -c 'show {} pim neighbor json'", ns_,
                               lan.v6 ? "ipv6" : "ip" );
      } catch( ... ) {
         stop();
         throw;
      }
   }
   ~FrrDevice() override { stop(); }
   pid_t pid() const override { return pid_; }
   bool hasProbe() const override { return true; }
   std::optional< std::uint64_t > neighbours() const override { return probe( probe_, "neighbor" ); }

 private:
   std::string runDir() const { return "/var/run/frr/" + ns_; }
   std::string etcDir() const { return "/etc/frr/" + ns_; }
   pid_t readPid( const std::string & d ) const {
      std::string s = readFile( runDir() + "/" + d + ".pid" );
      return s.empty() ? 0 : pid_t( std::atoi( s.c_str() ) );
   }
   void stop() {
      for( const char * d : { "pimd", "pim6d", "zebra" } ) {
         stopPid( readPid( d ), false );
      }
      std::error_code ec;
      fs::remove_all( runDir(), ec );
      fs::remove_all( etcDir(), ec );
   }
   std::string ns_, probe_;
   pid_t pid_ = 0;
};

// ---------------------------------------------------------------------------
struct Figures {
   std::optional< double > cpuPerHelloUs, cpuPerNewUs, rssPerNbr, learnS, maxRate;
   std::optional< double > holdPct; // core share to hold N at a 30 s Hello period
   bool rateLowerBound = false; // the generator, not the device, set the limit
   std::string note;
};

// Waits until the count stops moving or reaches n; returns the last count.
std::uint64_t settle( const Device & d, std::uint64_t n, double timeoutS ) {
   auto t0 = Clock::now();
   std::uint64_t last = ~0ull;
   int still = 0;
   while( secondsSince( t0 ) < timeoutS ) {
      auto c = d.neighbours().value_or( 0 );
      if( c >= n ) {
         return c;
      }
      still = c == last ? still + 1 : 0;
      if( still >= 3 ) {
         return c;
      }
      last = c;
      sleepFor( 500ms );
   }
   return last == ~0ull ? 0 : last;
}

// Waits (at most 30 s) until the device uses under 2 % of a core; returns
// its CPU time then.
std::uint64_t waitQuiet( const Device & d ) {
   auto last = d.cpuNs();
   for( int i = 0; i < 300; ++i ) {
      sleepFor( 100ms );
      auto now = d.cpuNs();
      if( now - last < 2'000'000 ) {
         return now;
      }
      last = now;
   }
   return last;
}

Figures measure( const Lan & lan, Device & d, unsigned n, const Options & o ) {
   Figures f;
   Generator gen( lan, n, o );
   // Ready: the device has a PIM raw socket in its namespace (and, with a
   // probe, answers it).
   auto deadline = Clock::now() + 20s;
   for( ;; ) {
      auto [ raw, ok ] = run( fmt::format( "ip netns exec {} cat /proc/net/raw /proc/net/raw6", lan.dut ) );
      bool sock = raw.find( ":0067 " ) != std::string::npos;
      if( sock && ( !d.hasProbe() || d.neighbours() ) ) {
         break;
      }
      if( Clock::now() > deadline || !d.alive() ) {
         throw std::runtime_error( "device not ready" );
      }
      sleepFor( 200ms );
   }
   sleepFor( 1s ); // let it finish joining the group and its start-up work
   auto rss0 = d.rssBytes();

   // Populate: every neighbour once, repeated while the count falls short.
   // CPU is taken over the sends and the work they leave behind, not over
   // the probes, which cost the device too.
   auto t0 = Clock::now();
   std::uint64_t learnt = 0, populateNs = 0;
   for( int round = 0; round < 5 && secondsSince( t0 ) < o.learnTimeout; ++round ) {
      auto c0 = d.cpuNs();
      gen.send( n, o.populateRate );
      populateNs += waitQuiet( d ) - c0;
      if( !d.hasProbe() ) {
         break;
      }
      learnt = settle( d, n, o.learnTimeout - secondsSince( t0 ) );
      if( learnt >= n ) {
         f.learnS = secondsSince( t0 );
         break;
      }
   }
   if( d.hasProbe() && learnt < n ) {
      f.note = fmt::format( "learnt {} of {}", learnt, n );
      return f;
   }
   f.cpuPerNewUs = double( populateNs ) / 1e3 / n;
   f.rssPerNbr = ( double( d.rssBytes() ) - double( rss0 ) ) / n;

   // Refresh at the set rate.
   auto hellos = std::uint64_t( o.refreshRate * o.refreshSeconds );
   auto cpu1 = d.cpuNs();
   gen.send( hellos, o.refreshRate );
   f.cpuPerHelloUs = double( d.cpuNs() - cpu1 ) / 1e3 / double( hellos );
   f.holdPct = *f.cpuPerHelloUs * n / 30 / 1e4;

   // Highest sustained rate: count stays at n and nothing is dropped.
   RealPath::RateSearch search( std::max( 1000.0, o.refreshRate ), o.rateCap, 0.15, o.rateTrials );
   while( auto rate = search.next() ) {
      auto drops0 = lan.drops();
      double got = gen.send( std::uint64_t( *rate * o.holdSeconds ), *rate );
      sleepFor( 300ms );
      bool held = lan.drops() == drops0 && d.alive();
      if( held && d.hasProbe() ) {
         held = d.neighbours().value_or( 0 ) == n;
      }
      if( got < *rate * 0.9 ) {
         // The generator fell short: judge the rate it reached, and stop
         // climbing once that held since it cannot go higher.
         search.record( got, held );
         if( held ) {
            f.rateLowerBound = true;
            f.note = fmt::format( "generator limit about {:.0f} Hellos/s", got );
            break;
         }
         continue;
      }
      search.record( *rate, held );
      if( !held && d.hasProbe() ) {
         // Neighbours lost must come back before the next trial.
         gen.send( n, o.populateRate );
         settle( d, n, 30 );
      }
   }
   if( search.best() > 0 ) {
      f.maxRate = search.best();
      f.rateLowerBound = f.rateLowerBound || search.failed() == 0;
   }
   return f;
}

std::string fmtOpt( const std::optional< double > & v, const char * spec ) {
   return v ? fmt::format( fmt::runtime( spec ), *v ) : std::string( "-" );
}

} // namespace

int main( int argc, char ** argv ) {
   Options o;
   CLI::App app{ "Real-path benchmark: a PIM device under test against emulated neighbours" };
   app.add_flag( "--quick", o.quick, "Small sizes and short trials (under 3 minutes)" );
   app.add_flag( "-6,--ipv6", o.v6, "IPv6 Hellos instead of IPv4" );
   app.add_option( "--sizes", o.sizes, "Neighbour counts (default: the full sweep)" );
   app.add_option( "--rate", o.refreshRate, "Refresh rate for CPU per Hello, per second" );
   app.add_option( "--populate-rate", o.populateRate, "Rate of first Hellos, per second" );
   app.add_option( "--rate-cap", o.rateCap, "Highest rate the search tries" );
   app.add_option( "--holdtime", o.holdtime, "Holdtime the neighbours announce, seconds" );
   app.add_flag( "!--no-peer", o.peer, "Skip the FRRouting peer" );
   app.add_flag( "!--no-floor", o.floor, "Skip the do-nothing receiver" );
   app.add_option( "--ours", o.oursCmd,
                   "Our daemon's command line, run in the device namespace ({ns}, {if})" );
   app.add_option( "--ours-probe", o.oursProbe,
                   "Command printing our neighbour count or JSON ({ns}, {if})" );
   app.add_option( "--ours-key", o.oursKey, "JSON member that marks one neighbour" );
   CLI11_PARSE( app, argc, argv );
   if( geteuid() != 0 ) {
      fmt::print( stderr, "realpath_bench: needs root (network namespaces, raw sockets)\n" );
      return 2;
   }
   if( o.sizes.empty() ) {
      o.sizes = o.quick ? std::vector< unsigned >{ 10, 100, 1000 }
                        : std::vector< unsigned >{ 10, 100, 1000, 10000, 30000, 100000 };
   }
   if( o.quick ) {
      o.refreshSeconds = 2;
      o.holdSeconds = 1;
      o.rateTrials = 7;
      o.learnTimeout = 20;
   }
   const fs::path here = fs::canonical( "/proc/self/exe" ).parent_path();
   o.sinkPath = ( here / "realpath_sink" ).string();
   o.pimnbrdPath = ( here / "../../tools/pimnbrd/pimnbrd" ).lexically_normal().string();
   o.pimnbrPath = ( here / "../../tools/pimnbr/pimnbr" ).lexically_normal().string();
   // Debian's frr 8.4 ships no pim6d, so the IPv6 peer is usually absent.
   bool frr = fs::exists( o.v6 ? "/usr/lib/frr/pim6d" : "/usr/lib/frr/pimd" );
   struct sigaction sa{};
   sa.sa_handler = onSignal;
   sigaction( SIGINT, &sa, nullptr );
   sigaction( SIGTERM, &sa, nullptr );
   sigaction( SIGHUP, &sa, nullptr );
   signal( SIGPIPE, SIG_IGN );

   const char * cols[] = { "ours", "peer", "floor" };
   std::map< std::pair< unsigned, int >, Figures > table;
   int seq = 0;
   int rc = 0;
   try {
      for( unsigned n : o.sizes ) {
         for( int c = 0; c < 3; ++c ) {
            Figures & f = table[ { n, c } ];
            if( c == 0 && o.oursCmd.empty() && !fs::exists( o.pimnbrdPath ) ) {
               f.note = "n/a (no pimnbrd at " + o.pimnbrdPath + ")";
               continue;
            }
            if( ( c == 1 && ( !o.peer || !frr ) ) || ( c == 2 && !o.floor ) ) {
               f.note = c == 1 && o.peer ? fmt::format( "n/a (no frr {})", o.v6 ? "pim6d" : "pimd" )
                                        : "skipped";
               continue;
            }
            fmt::print( stderr, "N={} {}: measuring\n", n, cols[ c ] );
            try {
               Lan lan( fmt::format( "rpb{}x{}", getpid(), seq++ ), o.v6 );
               std::unique_ptr< Device > dev;
               if( c == 0 && o.oursCmd.empty() ) {
                  dev = std::make_unique< PimnbrdDevice >( lan, o );
               } else if( c == 0 ) {
                  dev = std::make_unique< ChildDevice >( lan, o.oursCmd, o.oursProbe, o.oursKey );
               } else if( c == 1 ) {
                  dev = std::make_unique< FrrDevice >( lan );
               } else {
                  dev = std::make_unique< ChildDevice >(
                      lan, o.sinkPath + " {if}" + ( o.v6 ? " -6" : "" ), "", "" );
               }
               f = measure( lan, *dev, n, o );
            } catch( const Interrupted & ) {
               throw;
            } catch( const std::exception & e ) {
               f.note = e.what();
            }
         }
      }
   } catch( const Interrupted & ) {
      fmt::print( stderr, "realpath_bench: interrupted, namespaces removed\n" );
      rc = 130;
   } catch( const std::exception & e ) {
      fmt::print( stderr, "realpath_bench: {}\n", e.what() );
      rc = 1;
   }

   // Ratio: how many times ours beats the peer (cost: peer/ours; rate: ours/peer).
   struct Row {
      const char * name;
      std::optional< double > Figures::*field;
      const char * spec;
      bool higherBetter;
   };
   const Row rows[] = {
       { "CPU per refresh Hello, us", &Figures::cpuPerHelloUs, "{:.2f}", false },
       { "CPU per new neighbour, us", &Figures::cpuPerNewUs, "{:.2f}", false },
       { "RSS growth per neighbour, B", &Figures::rssPerNbr, "{:.0f}", false },
       { "time to learn all N, s", &Figures::learnS, "{:.2f}", false },
       { "max sustained rate, Hellos/s", &Figures::maxRate, "{:.0f}", true },
       { "core to hold N at 30 s, %", &Figures::holdPct, "{:.3f}", false },
   };
   fmt::print( "\nReal path, {} Hellos; refresh at {:.0f}/s; rate trials {:.0f} s each\n",
               o.v6 ? "IPv6" : "IPv4", o.refreshRate, o.holdSeconds );
   fmt::print( "{:>7} {:<30} {:>14} {:>14} {:>8} {:>14}\n", "N", "figure", "ours", "peer", "ratio",
               "floor" );
   for( unsigned n : o.sizes ) {
      for( const auto & r : rows ) {
         std::string cell[ 3 ];
         for( int c = 0; c < 3; ++c ) {
            auto it = table.find( { n, c } );
            if( it == table.end() ) {
               cell[ c ] = "-";
               continue;
            }
            cell[ c ] = fmtOpt( it->second.*r.field, r.spec );
            if( r.field == &Figures::maxRate && it->second.rateLowerBound && it->second.maxRate ) {
               cell[ c ] = ">=" + cell[ c ];
            }
         }
         std::string ratio = "-";
         auto ours = table.count( { n, 0 } ) ? table[ { n, 0 } ].*r.field : std::nullopt;
         auto peer = table.count( { n, 1 } ) ? table[ { n, 1 } ].*r.field : std::nullopt;
         if( ours && peer && *ours > 0 && *peer > 0 ) {
            ratio = fmt::format( "{:.1f}x", r.higherBetter ? *ours / *peer : *peer / *ours );
         }
         fmt::print( "{:>7} {:<30} {:>14} {:>14} {:>8} {:>14}\n", n, r.name, cell[ 0 ], cell[ 1 ],
                     ratio, cell[ 2 ] );
      }
   }
   for( unsigned n : o.sizes ) {
      for( int c = 0; c < 3; ++c ) {
         auto it = table.find( { n, c } );
         if( it != table.end() && !it->second.note.empty() ) {
            fmt::print( "note N={} {}: {}\n", n, cols[ c ], it->second.note );
         }
      }
   }
   return rc;
}
