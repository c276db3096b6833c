#ifndef TALP_THREAD_CTHREAD_H_
#define TALP_THREAD_CTHREAD_H_

#include <pthread.h>

#include <cstdint>
#include <memory>

#include "thread/event.h"
#include "thread/mutex.h"

// When a task thread runs a pass.
enum ThreadType_t : int {
  EventDriven = 0,    // once per wake-up
  IntervalDriven = 1  // over and over, pausing for the idle time between passes
};

enum THREAD_STATE : int {
  kThreadBusy = 0,          // a pass is being run
  kThreadWaiting = 1,       // between passes
  kThreadDown = 2,          // no thread, or the thread has ended
  kThreadShuttingDown = 3,  // the last pass ended the thread
  kThreadFault = 4
};

enum THREAD_ERROR : std::uint32_t {
  kErrorMutexCreation = 0x01,
  kErrorEventCreation = 0x02,
  kErrorThreadCreation = 0x04,
  kErrorIllegalEvent = 0x10,  // an event for a thread that is not event-driven
  kErrorWorkSlots = 0x20
};

enum TASK_STATUS : int { kTaskQueued = 1, kTaskProcessing = 2, kTaskDone = 3 };

// A work item that does its own work.
class CTask {
 public:
  virtual bool Task() = 0;  // false ends the thread that runs it

  int status = 0;  // TASK_STATUS; guarded by `lock`, like the id
  pthread_t threadId = 0;
  CMutexClass lock;
};

// One thread and the work that it does: it calls OnTask for every item that Event queues, newest
// first, or OnTask() where no item is pending. Operations may be called from any thread; they
// report failures in the state and the error flags and never throw.
//
// The thread starts inside the constructor, as an event-driven one that waits; a derived class
// switches it with SetThreadType when its own members stand, and calls Stop in its own destructor,
// before they go.
class CThread {
 public:
  CThread();
  ~CThread();
  CThread(const CThread&) = delete;
  CThread& operator=(const CThread&) = delete;

  // One work item; the base version takes it for a CTask and runs it. Returning false ends the
  // thread.
  virtual bool OnTask(void* item);

  // One pass without a pending item. Returning false ends the thread.
  virtual bool OnTask();

  // Starts the thread unless it runs already. False if it cannot be created. Not while a Stop is
  // under way.
  bool Start();

  // Ends the thread after its current pass and waits for that; called by the thread itself, only
  // asks for it.
  void Stop();

  // Queues an item and wakes the thread. False if the store is full or the thread is
  // interval-driven (then also a fault). A null item only wakes. Must not be called from within a
  // pass of the same event-driven thread, which holds the event.
  bool Event(void* item);
  bool Event(CTask* task);

  // The store of work items: at most 99, last in, first out. Pop needs an item to be pending and
  // is for the thread itself; a null item is accepted and not stored.
  bool Push(void* item);
  bool Pop();
  bool Empty();
  std::uint32_t GetEventsPending();

  // `idle` is in units of 100 ns; less than 0 counts as 0. To change the type is also an event:
  // not from within a pass of the same event-driven thread.
  void SetThreadType(ThreadType_t type, long idle);
  void SetIdle(long idle);

  // Does nothing: all threads of the daemon have the same priority.
  void SetPriority(long priority);

  int ThreadState();
  std::uint32_t ErrorFlags();

  // Waits until the thread runs: up to `timeout`, in units of 100 ns, or without end if that is 0
  // or less. Returns whether it runs.
  bool PingThread(long timeout);

 protected:
  bool StopRequested();

 private:
  friend void* _THKERNEL(void* object);

  static constexpr std::uint32_t kSlotCount = 100;

  static bool HasWork(void* object);

  void RunPasses();
  bool KernelProcess();
  bool RunPendingItems();
  void SetState(int state);
  void SetFault(THREAD_ERROR error);  // under the lock, where the thread exists
  bool AcceptsEvents();
  bool Running();
  ThreadType_t Type();
  void* CurrentItem();
  std::int32_t IdleTime();
  pthread_t ThreadId();
  void Join();

  CEventClass event_;
  bool running_ = false;        // from the start of the thread's body to its end or Stop
  bool stopRequested_ = false;  // outlives a body that has not begun yet, unlike `running_`
  bool created_ = false;        // there is a thread to join
  bool ended_ = false;          // and its body has ended
  pthread_t thread_{};
  pthread_t threadId_ = 0;
  std::unique_ptr<void*[]> workSlots_;
  std::uint32_t pending_ = 0;
  void* currentItem_ = nullptr;
  int state_ = kThreadDown;
  std::int32_t idle_ = 100;
  ThreadType_t threadType_ = EventDriven;
  std::uint32_t stackSize_ = 0;
  std::uint32_t errorFlags_ = 0;
  CMutexClass lock_;  // guards all of the above but the event
};

#endif  // TALP_THREAD_CTHREAD_H_
