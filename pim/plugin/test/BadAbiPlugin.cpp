// A plug-in that claims an ABI version the host does not speak.
#include "agenthost/AgentHost.h"

extern "C" {
namespace {
const char * const kNone[] = { nullptr };
}
extern const AgentBase::PluginDescriptor agentPluginDescriptor;
const AgentBase::PluginDescriptor agentPluginDescriptor = { AgentBase::kPluginAbiVersion + 1, "bad", kNone };
}
