// Base of every task of the agent: a message queue and the threads that serve it.
#pragma once

#include <SorvexCommonExport.h>

#include <ace/Monotonic_Time_Policy.h>
#include <ace/Task.h>

namespace WindowsAgentCommon {

/// An `ACE_Task<ACE_MT_SYNCH>` whose deadlines run on the monotonic clock, so setting the clock back delays nobody.
/// Deadlines for its queue are therefore the task's own `gettimeofday()` plus an interval.
class SORVEXCOMMON_EXPORT VaroTask : public ACE_Task<ACE_MT_SYNCH, ACE_Monotonic_Time_Policy> {
 public:
  VaroTask();
  ~VaroTask() override;
};

}  // namespace WindowsAgentCommon
