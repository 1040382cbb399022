#pragma once
// Shared by the sources of IntfSm and GlobalIntfSm only: PimIntfSm.cpp
// (construction, start-up, the neighbour side), PimIntfSmHello.cpp (Hello
// transmission and timers), PimIntfSmDr.cpp (DR, LAN prune delay, T bit,
// BFD bookkeeping) and PimGlobalIntfSm.cpp.
#include "hello/PimIntfSm.h"
#include "kiv/Trace.h"
#include "rundle/Rundle.h"
#include "tolm/TimerWheel.h"

namespace Routing::Pim::IntfSmDetail {

// The "Pim::Intf" trace handle, one for all four sources.
Kiv::TraceHandle & th();

inline void armTimer( Tolm::TimerWheel::NotifieeConst & timer, Kiv::Seconds t ) {
   // A machine without a wheel is a traced state; never arm an unbound timer.
   if( timer.notifier() || t == Kiv::kNever ) timer.timeMinIs( t );
}

} // namespace Routing::Pim::IntfSmDetail

#define ITRACE( level, expr ) \
   KIV_TRACE( th(), level, "<Vrf:" << inputs_.vrfName << ">" << expr )
// A sentence for the trace and the ring buffer, which names the function.
#define IRECORD( level, fn, expr ) RUNDLE_TRACE_RECORD( ITRACE, level, "IntfSm::" << fn << "(), ", expr )
