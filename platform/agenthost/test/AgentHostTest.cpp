// The host drives a small agent through its life on virtual time: mounts,
// stages it waits for (completed later, or never), an agent whose stage
// input is disabled, and cleanup.
#include <gtest/gtest.h>

#include "agenthost/AgentHost.h"
#include "agenthost/StagesHelper.h"
#include "kiv/testing/TestLoop.h"

namespace {

class ToyAgent : public AgentBase::CAgent {
 public:
   explicit ToyAgent( const std::string & name ) : CAgent( name ) {}
   void doInit() override {
      auto g = getMountGroup();
      const char * c = Stage::bootStageClass;
      g->doMount( { Stage::agentConfigPath( c, name() ), "Stage::AgentConfig", "r" } );
      g->doMount( { Stage::agentStatusPath( c, name() ), "Stage::AgentStatus", "wcf" } );
      g->doMount( { Stage::progressPath( c ), "Stage::ProgressDir", "r" } );
      g->doClose( false, "", 0.0 );
   }
   void doMountsComplete( Dovel::MountStatus s, const Kiv::Ptr< Dovel::EntityManager > & em ) override {
      status = s;
      if( s != Dovel::mountSuccess_ ) return;
      const char * c = Stage::bootStageClass;
      boot = Kiv::make< AgentBase::StagesHelper >(
         c, this, em->getEntity< Stage::AgentConfig >( Stage::agentConfigPath( c, name() ) ),
         em->getWritableEntity< Stage::AgentStatus >( Stage::agentStatusPath( c, name() ) ),
         em->getEntity< Stage::ProgressDir >( Stage::progressPath( c ) ), nullptr );
      boot->waitForStage( "Slow" );
      boot->waitForStage( "Never" );
   }
   void doStage( const std::string & cls, const std::string & stage ) override {
      delivered.push_back( stage );
      // "Slow" completes three seconds later, "Never" never does.
      if( stage == "Slow" ) timer_.timeMinIs( timerWheel()->clock().now() + 3.0 );
   }
   void doCleanup() override { ++cleanups; }

   struct Timer : Tolm::TimerWheel::NotifieeConst {
      ToyAgent * a;
      explicit Timer( ToyAgent * t ) : NotifieeConst( t->timerWheel().ptr() ), a( t ) {}
      void onTime() override { a->boot->doStageComplete( "Slow" ); }
   };
   Dovel::MountStatus status = Dovel::mountNotFound_;
   Kiv::Ptr< AgentBase::StagesHelper > boot;
   std::vector< std::string > delivered;
   int cleanups = 0;
   Timer timer_{ this };
};

TEST( AgentHostTest, MountFailureReachesTheAgent ) {
   Kiv::Testing::TestLoop loop( 100.0 );
   AgentBase::AgentHost host( Kiv::make< Dovel::Store >() );
   auto agent = Kiv::make< ToyAgent >( "Toy" );
   host.agentIs( agent );
   host.doInit();
   EXPECT_EQ( host.doMount(), Dovel::mountNotFound_ ) << "its stage input was never published";
   EXPECT_EQ( agent->status, Dovel::mountNotFound_ );
}

TEST( AgentHostTest, DrivesStagesToCompletionOrTimeout ) {
   Kiv::Testing::TestLoop loop( 100.0 );
   auto store = Kiv::make< Dovel::Store >();
   AgentBase::AgentHost host( store );
   auto agent = Kiv::make< ToyAgent >( "Toy" );
   host.agentIs( agent );
   host.doInit();
   EXPECT_EQ( host.publishMissing(), 1u ) << "the stage input; the status is created by its mount";
   ASSERT_EQ( host.doMount(), Dovel::mountSuccess_ );

   EXPECT_TRUE( host.runStage( Stage::bootStageClass, "Fast" ) ) << "not waited for";
   EXPECT_TRUE( host.runStage( Stage::bootStageClass, "Slow" ) );
   EXPECT_DOUBLE_EQ( loop.now(), 103.0 );
   EXPECT_FALSE( host.runStage( Stage::bootStageClass, "Never", 10.0 ) );
   EXPECT_DOUBLE_EQ( loop.now(), 113.0 );
   auto done = store->entity< Stage::CompletionStatusDir >( Stage::completionStatusPath( Stage::bootStageClass ) );
   EXPECT_TRUE( done->stageComplete( "Slow" ) );
   EXPECT_FALSE( done->stageComplete( "Never" ) );

   store->entity< Stage::AgentConfig >( Stage::agentConfigPath( Stage::bootStageClass, "Toy" ) )->enabledIs( false );
   EXPECT_TRUE( host.runStage( Stage::bootStageClass, "Later" ) );
   EXPECT_EQ( agent->delivered, ( std::vector< std::string >{ "Fast", "Slow", "Never" } ) )
      << "each once, nothing while disabled";
   host.agentDel();
   EXPECT_EQ( agent->cleanups, 1 );
}

} // namespace
