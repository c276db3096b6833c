#ifndef TALP_THREAD_CTHREAD_H_
#define TALP_THREAD_CTHREAD_H_

#include <pthread.h>

#include <cstdint>
#include <memory>

#include "thread/event.h"
#include "thread/mutex.h"

// When a task thread runs a pass.
enum class ThreadType_t : int {
  EventDriven = 0,    // once per wake-up
  IntervalDriven = 1  // repeatedly, with the idle time as a pause between passes
};

enum class THREAD_STATE : int {
  kBusy = 0,          // a pass is being run
  kWaiting = 1,       // between passes
  kDown = 2,          // no thread, or the thread has ended
  kShuttingDown = 3,  // the last pass ended the thread
  kFault = 4
};

// Bits of the error flags.
enum THREAD_ERROR : std::uint32_t {
  kErrorMutexCreation = 0x01,
  kErrorEventCreation = 0x02,
  kErrorThreadCreation = 0x04,
  kErrorIllegalEvent = 0x10,  // an event for a thread that is not event-driven
  kErrorWorkSlots = 0x20
};

enum class TASK_STATUS : int { kNew = 0, kQueued = 1, kProcessing = 2, kDone = 3 };

// A work item with its own operation, for Event.
class CTask {
 public:
  virtual bool Task() = 0;  // false ends the thread that runs it

  TASK_STATUS status = TASK_STATUS::kNew;  // guarded by `lock`, like the id
  pthread_t threadId = 0;
  CMutexClass lock;
};

// Owns one thread. A pass of the thread calls OnTask(item) for every pending item, newest first, or
// OnTask() if none is pending. Operations may be called from any thread; they report failures in
// the state and the error flags and never throw.
//
// The constructor starts the thread as an event-driven one, which waits. The constructor of a
// derived class ends with SetThreadType, when its members are initialised; its destructor begins
// with Stop, before they are destroyed.
class CThread {
 public:
  CThread();
  ~CThread();
  CThread(const CThread&) = delete;
  CThread& operator=(const CThread&) = delete;

  // Handles one work item. The base version treats it as a CTask and runs it. Returning false ends
  // the thread.
  virtual bool OnTask(void* item);

  // Handles a pass without a pending item. Returning false ends the thread.
  virtual bool OnTask();

  // Starts the thread unless it runs already. False if it cannot be created. Must not be called
  // during a Stop.
  bool Start();

  // Ends the thread after its current pass and waits until it has ended. Called by the thread
  // itself, does not wait.
  void Stop();

  // Queues an item and wakes the thread. False if the store is full, or if the thread is
  // interval-driven, which is also a fault. A null item wakes the thread and queues
  // nothing. An event-driven thread must not call this on itself: it would wait for the end of its
  // own pass.
  bool Event(void* item);
  bool Event(CTask* task);

  // The store of at most 99 work items, last in, first out. Push accepts a null item and does not
  // store it. Pop is for the thread itself and needs a pending item.
  bool Push(void* item);
  bool Pop();
  bool Empty() const;
  std::uint32_t GetEventsPending() const;

  // `idle` is in units of 100 ns; less than 0 counts as 0. A change of the type also wakes the
  // thread, so an event-driven thread must not call SetThreadType on itself.
  void SetThreadType(ThreadType_t type, long idle);
  void SetIdle(long idle);

  // Does nothing: all threads of the daemon have the same priority.
  void SetPriority(long priority);

  THREAD_STATE ThreadState() const;
  std::uint32_t ErrorFlags() const;

  // Waits until the thread runs, at most for `timeout` in units of 100 ns; 0 or less waits without
  // end. Returns whether it runs.
  bool PingThread(long timeout) const;

 protected:
  bool StopRequested() const;

 private:
  friend void* _THKERNEL(void* object);

  static constexpr std::uint32_t kSlotCount = 100;

  static bool HasWork(void* object);

  void RunPasses();
  bool KernelProcess();
  bool RunPendingItems();
  void SetState(THREAD_STATE state);
  void SetFault(THREAD_ERROR error);  // the caller holds the lock if the thread exists
  bool AcceptsEvents();
  bool Running() const;
  ThreadType_t Type() const;
  void* CurrentItem() const;
  std::int32_t IdleTime() const;
  pthread_t ThreadId() const;
  void Join();

  CEventClass event_;
  bool running_ = false;        // true from the start of the thread's body to its end or to Stop
  bool stopRequested_ = false;  // true from Stop to the next Start
  bool created_ = false;        // there is a thread to join
  bool ended_ = false;          // the body of that thread has ended
  pthread_t thread_{};
  pthread_t threadId_ = 0;
  std::unique_ptr<void*[]> workSlots_;
  std::uint32_t pending_ = 0;
  void* currentItem_ = nullptr;
  THREAD_STATE state_ = THREAD_STATE::kDown;
  std::int32_t idle_ = 100;
  ThreadType_t threadType_ = ThreadType_t::EventDriven;
  std::uint32_t stackSize_ = 0;
  std::uint32_t errorFlags_ = 0;
  mutable CMutexClass lock_;  // guards all of the above but the event
};

#endif  // TALP_THREAD_CTHREAD_H_
