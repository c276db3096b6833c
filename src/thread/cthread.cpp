#include "thread/cthread.h"

#include <algorithm>
#include <cstdio>
#include <limits>
#include <new>

#include "thread/sleep.h"

namespace {

// A negative pause is no pause.
std::int32_t BoundedIdle(long idle) {
  constexpr long kLongest = std::numeric_limits<std::int32_t>::max();
  return static_cast<std::int32_t>(std::clamp(idle, 0L, kLongest));
}

}  // namespace

CThread::CThread() : workSlots_(new (std::nothrow) void*[kSlotCount]) {
  if (workSlots_ == nullptr) {
    SetFault(kErrorWorkSlots);
  } else if (!lock_.created) {
    std::perror("mutex creation failed");
    SetFault(kErrorMutexCreation);
  } else if (!event_.created) {
    std::perror("event creation failed");
    SetFault(kErrorEventCreation);
  } else {
    Start();
  }
}

CThread::~CThread() {
  Stop();
  Join();
}

bool CThread::OnTask(void* item) {
  CTask* const task = static_cast<CTask*>(item);
  MUTEX_GUARD guard(&task->lock);
  task->status = TASK_STATUS::kProcessing;
  const bool goOn = task->Task();
  task->status = TASK_STATUS::kDone;
  return goOn;
}

bool CThread::OnTask() {
  std::printf("\nthread is alive\n");
  return true;
}

// The thread's body, a free function for pthread_create.
void* _THKERNEL(void* object) {
  static_cast<CThread*>(object)->RunPasses();
  return nullptr;
}

bool CThread::Start() {
  MUTEX_GUARD guard(&lock_);
  stopRequested_ = false;
  if (running_ || (created_ && !ended_)) return true;
  Join();
  errorFlags_ &= ~static_cast<std::uint32_t>(kErrorThreadCreation);
  pthread_attr_t attributes;
  pthread_attr_init(&attributes);
  if (stackSize_ != 0) pthread_attr_setstacksize(&attributes, stackSize_);
  ended_ = false;
  const int error = pthread_create(&thread_, &attributes, _THKERNEL, this);
  pthread_attr_destroy(&attributes);
  created_ = error == 0;
  if (created_) return true;
  SetFault(kErrorThreadCreation);
  std::fprintf(stderr, "error: could not create thread, pthread_create failed (%d)!\n", error);
  return false;
}

void CThread::RunPasses() {
  {
    MUTEX_GUARD guard(&lock_);
    state_ = THREAD_STATE::kWaiting;
    running_ = !stopRequested_;
    threadId_ = pthread_self();
  }
  bool goOn = true;
  while (goOn) {
    const ThreadType_t type = Type();
    // The event's mutex is held during an event-driven pass, so a Set waits for the pass to end.
    if (type == ThreadType_t::EventDriven) event_.WaitUnless(HasWork, this);
    goOn = KernelProcess();
    if (type == ThreadType_t::EventDriven) event_.Reset();
    if (goOn && Type() == ThreadType_t::IntervalDriven) {
      IdleBetweenPasses(static_cast<unsigned>(IdleTime()));
    }
  }
  MUTEX_GUARD guard(&lock_);
  state_ = THREAD_STATE::kDown;
  running_ = false;
  ended_ = true;
}

// A Set before the wait is lost, so every wait first checks for a new type, an item or a stop.
bool CThread::HasWork(void* object) {
  const CThread* const self = static_cast<const CThread*>(object);
  MUTEX_GUARD guard(&self->lock_);
  return self->threadType_ != ThreadType_t::EventDriven || self->pending_ > 0 || !self->running_;
}

bool CThread::KernelProcess() {
  {
    MUTEX_GUARD guard(&lock_);
    state_ = THREAD_STATE::kBusy;
    if (!running_) {
      state_ = THREAD_STATE::kShuttingDown;
      return false;
    }
  }
  const bool goOn = Empty() ? OnTask() : RunPendingItems();
  SetState(goOn ? THREAD_STATE::kWaiting : THREAD_STATE::kShuttingDown);
  return goOn;
}

bool CThread::RunPendingItems() {
  bool goOn = true;
  while (goOn && !Empty()) {
    Pop();
    goOn = OnTask(CurrentItem());
  }
  MUTEX_GUARD guard(&lock_);
  currentItem_ = nullptr;
  return goOn;
}

ThreadType_t CThread::Type() const {
  MUTEX_GUARD guard(&lock_);
  return threadType_;
}

void* CThread::CurrentItem() const {
  MUTEX_GUARD guard(&lock_);
  return currentItem_;
}

std::int32_t CThread::IdleTime() const {
  MUTEX_GUARD guard(&lock_);
  return idle_;
}

void CThread::Stop() {
  lock_.Lock();
  const bool alive = created_ && !ended_;
  running_ = false;
  stopRequested_ = true;
  const bool interval = threadType_ == ThreadType_t::IntervalDriven;
  // An interval-driven thread is sent no event: it checks `running_` before every pass. Its
  // ErrorFlags show one that was refused all the same. Fixed, see docs/architecture.md.
  if (interval && alive) SetFault(kErrorIllegalEvent);
  const bool byItself = alive && threadId_ == pthread_self();
  lock_.Unlock();
  if (!alive || byItself) return;
  if (!interval) event_.Set();
  for (bool ended = false; !ended;) {
    Sleep(static_cast<unsigned>(IdleTime()));
    MUTEX_GUARD guard(&lock_);
    ended = ended_;
  }
}

void CThread::Join() {
  if (created_) pthread_join(thread_, nullptr);
  created_ = false;
}

bool CThread::AcceptsEvents() {
  MUTEX_GUARD guard(&lock_);
  if (threadType_ != ThreadType_t::EventDriven) SetFault(kErrorIllegalEvent);
  return threadType_ == ThreadType_t::EventDriven;
}

bool CThread::Event(void* item) {
  if (!AcceptsEvents() || !Push(item)) return false;
  event_.Set();
  return true;
}

bool CThread::Event(CTask* task) {
  if (!AcceptsEvents()) return false;
  {
    // The thread takes this lock before it runs the task, so it sees the id and the status.
    MUTEX_GUARD guard(&task->lock);
    task->threadId = ThreadId();
    if (!Push(task)) return false;
    task->status = TASK_STATUS::kQueued;
  }
  event_.Set();
  return true;
}

bool CThread::Push(void* item) {
  if (item == nullptr) return true;
  MUTEX_GUARD guard(&lock_);
  if (pending_ + 1 >= kSlotCount || workSlots_ == nullptr) return false;
  workSlots_[pending_++] = item;
  return true;
}

bool CThread::Pop() {
  MUTEX_GUARD guard(&lock_);
  currentItem_ = workSlots_[--pending_];
  return true;
}

bool CThread::Empty() const { return GetEventsPending() == 0; }

std::uint32_t CThread::GetEventsPending() const {
  MUTEX_GUARD guard(&lock_);
  return pending_;
}

void CThread::SetThreadType(ThreadType_t type, long idle) {
  lock_.Lock();
  idle_ = BoundedIdle(idle);
  const bool changed = threadType_ != type;
  threadType_ = type;
  lock_.Unlock();
  if (changed) event_.Set();
}

void CThread::SetIdle(long idle) {
  MUTEX_GUARD guard(&lock_);
  idle_ = BoundedIdle(idle);
}

void CThread::SetPriority(long) {}

THREAD_STATE CThread::ThreadState() const {
  MUTEX_GUARD guard(&lock_);
  return state_;
}

std::uint32_t CThread::ErrorFlags() const {
  MUTEX_GUARD guard(&lock_);
  return errorFlags_;
}

bool CThread::PingThread(long timeout) const {
  for (std::int64_t elapsed = 0; timeout <= 0 || elapsed <= timeout;) {
    if (Running()) return true;
    const std::int32_t idle = IdleTime();
    elapsed += std::max(idle, 1);
    Sleep(static_cast<unsigned>(idle));
  }
  return false;
}

bool CThread::Running() const {
  MUTEX_GUARD guard(&lock_);
  return running_;
}

pthread_t CThread::ThreadId() const {
  MUTEX_GUARD guard(&lock_);
  return threadId_;
}

bool CThread::StopRequested() const {
  MUTEX_GUARD guard(&lock_);
  return stopRequested_;
}

void CThread::SetState(THREAD_STATE state) {
  MUTEX_GUARD guard(&lock_);
  state_ = state;
}

void CThread::SetFault(THREAD_ERROR error) {
  errorFlags_ |= error;
  state_ = THREAD_STATE::kFault;
}
