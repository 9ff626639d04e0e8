// A destination with its own thread.
#pragma once

#include <Outlet.h>

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

namespace sorvex::agent {

/// Lines in transit to several destinations, which share them.
struct Batch {
  std::string lines;  ///< each with its line feed; the last one of an input may lack it
  std::uint64_t events = 0;
  std::string source;
  std::chrono::system_clock::time_point readTime;
};

/// Signals the reading thread that some feeder may have room now.
class RoomSignal {
 public:
  void Notify();
  /// Waits until the next `Notify` or until `limit` has passed.
  void Wait(std::chrono::milliseconds limit);

 private:
  std::mutex m_mutex;
  std::condition_variable m_changed;
  bool m_bNotified = false;
};

/// Opens an outlet, sends it the reading thread's lines, and closes it, all in its own thread. It holds a few megabytes
/// of lines at most. Everything except the thread's own work is called by the reading thread.
class Feeder {
 public:
  Feeder(Outlet& outlet, RoomSignal& room);
  ~Feeder();
  Feeder(const Feeder&) = delete;
  Feeder& operator=(const Feeder&) = delete;

  bool HasRoom() const;
  void Take(std::shared_ptr<const Batch> batch);

  bool IsStalled() const { return m_outlet.IsStalled(); }
  bool HasGivenUp() const { return m_outlet.HasGivenUp(); }
  void LeaveOut(const Batch& batch) { m_outlet.CountLeftOut(batch.events); }

  /// Says that nothing more comes.
  void End();

 private:
  void Run();
  void Feed();
  std::shared_ptr<const Batch> WaitForBatch();
  void RemoveBatch();
  void Send(const Batch& batch);

  Outlet& m_outlet;
  RoomSignal& m_room;

  mutable std::mutex m_mutex;
  std::condition_variable m_changed;
  std::deque<std::shared_ptr<const Batch>> m_batches;  ///< the first one is being sent
  std::size_t m_bytes = 0;
  bool m_bEnded = false;

  WindowsAgentCommon::Event m_event;  ///< the thread's own
  std::thread m_thread;
};

}  // namespace sorvex::agent
